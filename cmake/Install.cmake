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

foreach(tool IN ITEMS kelo kelo-sim)
    if(TARGET ${tool})
        install(TARGETS ${tool} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    endif()
endforeach()
