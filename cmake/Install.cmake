# What `cmake --install` puts where. Three components, each of which becomes a Debian package:
#   runtime      the shared library
#   development  headers, the link for the linker, the CMake package, the pkg-config file
#   tools        the commands and their manual pages
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KELO_PUBLIC_HEADERS
    src/KELOAPI/kelo_api.h
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
function(kelo_install_tool target)
    if(TARGET ${target})
        install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
        install(FILES ${ARGN} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
    endif()
endfunction()
kelo_install_tool(kelo-sim simulator/app/kelo-sim.1)
file(GLOB kelo_pages CONFIGURE_DEPENDS tools/kelo/man/*.1)
kelo_install_tool(kelo ${kelo_pages})
