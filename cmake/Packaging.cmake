# `cpack -G DEB` makes three Debian packages of the installed components, by Debian's own rules for
# names: the number in libkelobase2 is that of the SONAME, so that two major versions can be
# installed side by side.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelobase)
set(CPACK_PACKAGE_VENDOR "libkelobase contributors")
set(CPACK_PACKAGE_CONTACT "libkelobase contributors <contributors@libkelobase.invalid>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET kelo)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libkelobase${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# Programs that are packaged learn from shlibs which version they need; dpkg's trigger tells the
# dynamic linker of the library without a script of ours.
file(WRITE "${PROJECT_BINARY_DIR}/debian/shlibs"
     "libkelobase ${PROJECT_VERSION_MAJOR} libkelobase${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n")
file(WRITE "${PROJECT_BINARY_DIR}/debian/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/debian/shlibs;${PROJECT_BINARY_DIR}/debian/triggers")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"Finds cameras on every IPv4 interface, keeps a control session to each of
them, receives their images over UDP or TCP and programs their firmware.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelobase-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"Headers, and what CMake and pkg-config need to build programs that use
cameras through libkelobase.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src/KELOAPI")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"kelo lists cameras, reads and writes their registers, grabs images, shows
statistics, programs firmware and tells what is wrong with a host.
kelo-sim is a simulated camera for trying it all out.")

# kelo_install_package_documents(COMPONENT PACKAGE): what Debian wants of every package.
function(kelo_install_package_documents component package)
    install(FILES "${PROJECT_BINARY_DIR}/debian/copyright" "${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}" COMPONENT ${component})
endfunction()

file(READ "${PROJECT_SOURCE_DIR}/LICENSE" KELO_LICENSE_TEXT)
string(REGEX REPLACE "\n+$" "" KELO_LICENSE_TEXT "${KELO_LICENSE_TEXT}")
# Continuation lines of the copyright file begin with a space, empty ones are a dot.
string(REGEX REPLACE "^MIT License\n\n" "" KELO_LICENSE_TEXT "${KELO_LICENSE_TEXT}")
string(REPLACE "\n\n" "\n.\n" KELO_LICENSE_TEXT "${KELO_LICENSE_TEXT}")
string(REPLACE "\n" "\n " KELO_LICENSE_TEXT "${KELO_LICENSE_TEXT}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/copyright.in" "${PROJECT_BINARY_DIR}/debian/copyright" @ONLY)

string(TIMESTAMP KELO_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in" "${PROJECT_BINARY_DIR}/debian/changelog.Debian" @ONLY)
execute_process(COMMAND "${KELO_GZIP}" -9nfk "${PROJECT_BINARY_DIR}/debian/changelog.Debian"
                COMMAND_ERROR_IS_FATAL ANY)

kelo_install_package_documents(runtime ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME})
kelo_install_package_documents(development ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME})
kelo_install_package_documents(tools ${CPACK_DEBIAN_TOOLS_PACKAGE_NAME})

include(CPack)
