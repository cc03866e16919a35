# What `cmake --install` puts where. Three components, each of which becomes a Debian package:
#   runtime      the shared library
#   development  headers, the link for the linker, the CMake package, the pkg-config file
#   tools        the commands and their manual pages
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KELO_PUBLIC_HEADERS
    src/KELOAPI/kelo_api.h
    src/KELOAPI/kelo.hpp
    src/KELOAPI/kelo.hpp
    common/crc32.h
    common/kelo_common_defs.h
    common/kelo_registers.h
    common/kelo_types.h)
set(KELO_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/kelo")
set(KELO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/kelobase")

install(TARGETS kelobase EXPORT kelobase
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${KELO_PUBLIC_HEADERS} DESTINATION "${KELO_INSTALL_INCLUDEDIR}" COMPONENT development)

install(EXPORT kelobase NAMESPACE kelobase:: DESTINATION "${KELO_INSTALL_CMAKEDIR}" COMPONENT development)
configure_package_config_file(cmake/kelobaseConfig.cmake.in "${PROJECT_BINARY_DIR}/kelobaseConfig.cmake"
                              INSTALL_DESTINATION "${KELO_INSTALL_CMAKEDIR}" NO_SET_AND_CHECK_MACRO)
# A new major version has another SONAME, so nothing built for one fits the other.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kelobaseConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/kelobaseConfig.cmake" "${PROJECT_BINARY_DIR}/kelobaseConfigVersion.cmake"
        DESTINATION "${KELO_INSTALL_CMAKEDIR}" COMPONENT development)

# Paths in the file are relative to where it lies, so that an installed tree may be moved.
file(RELATIVE_PATH KELO_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/kelobase.pc.in "${PROJECT_BINARY_DIR}/kelobase.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kelobase.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# kelo_install_tool(TARGET PAGE...): a command and its manual pages, where the command is built.
# Pages are compressed without a time stamp.
find_program(KELO_GZIP gzip REQUIRED)
function(kelo_install_tool target)
    if(NOT TARGET ${target})
        return()
    endif()
    install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    foreach(page IN LISTS ARGN)
        cmake_path(GET page FILENAME name)
        set(packed "${PROJECT_BINARY_DIR}/man/${name}.gz")
        add_custom_command(OUTPUT "${packed}" COMMAND "${KELO_GZIP}" -9nc "${page}" > "${packed}"
                           DEPENDS "${page}" VERBATIM)
        list(APPEND pages "${packed}")
    endforeach()
    add_custom_target(${target}_manual ALL DEPENDS ${pages})
    install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endfunction()
file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/man")
kelo_install_tool(kelo-sim "${PROJECT_SOURCE_DIR}/simulator/app/kelo-sim.1")
file(GLOB kelo_pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/kelo/man/*.1")
kelo_install_tool(kelo ${kelo_pages})
if(TARGET kelo)
    install(FILES tools/kelo/completion/kelo.bash RENAME kelo COMPONENT tools
            DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
endif()
