# Debian packages, built with "cpack -G DEB" in a build folder (scripts/package does it all):
#   libtessel     the shared library, its headers, the CMake package and pkg-config files
#   tessel-tools  tessel-host with its systemd unit, tessel-reg
# Each install() of the project names its component, lib or tools.

set(TESSEL_DEB_RELEASE 1)
set(TESSEL_DEB_VERSION "${PROJECT_VERSION}-${TESSEL_DEB_RELEASE}")

# Each package carries its copyright and a compressed Debian changelog, as Debian's policy asks.
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog
               ${PROJECT_BINARY_DIR}/packaging/changelog.Debian @ONLY)
find_program(TESSEL_GZIP gzip)
if(TESSEL_GZIP)
    execute_process(COMMAND ${TESSEL_GZIP} -9nf ${PROJECT_BINARY_DIR}/packaging/changelog.Debian)
    foreach(component lib tools)
        if(component STREQUAL "lib")
            set(package libtessel)
        else()
            set(package tessel-tools)
        endif()
        install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
                      ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
                DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
    endforeach()
endif()

set(CPACK_GENERATOR DEB)
# Each package's description begins with its own summary line: no common summary is put
# before it (CPack leaves out the one that it would make up itself).
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_NAME tessel)
set(CPACK_PACKAGE_VENDOR "Tessel developers")
set(CPACK_PACKAGE_CONTACT "Tessel developers <tessel@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TESSEL_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# tessel-tools links libtessel of this build: dpkg-shlibdeps finds it here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libtessel)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig runs through dpkg's trigger rather than from maintainer scripts.
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/lib/triggers)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What the headers and the CMake and pkg-config files need to build against the library.
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS
    "libboost-dev, libboost-thread-dev, libboost-chrono-dev, libboost-filesystem-dev, libboost-regex-dev, libboost-stacktrace-dev, libspdlog-dev, libfmt-dev, liblz4-dev, libsqlite3-dev, libsystemd-dev, libssl-dev")
set(CPACK_COMPONENT_LIB_DESCRIPTION
    "Foundation library for GNSS reference station servers
Worker threads with a bounded stop, locks, timers, a worker pool, daily
size-limited log files with live reconfiguration, a lock-free metrics table
served over Telnet and HTTP, flat binary persistence with LZ4, satellite
identifiers, coordinates and geodesy, a watchdog client, crash dumps, host
services and communication clients.

This package holds the shared library, its headers and the CMake and
pkg-config files to build against it.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tessel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtessel (= ${TESSEL_DEB_VERSION}), adduser")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/tools/postinst ${PROJECT_SOURCE_DIR}/packaging/tools/prerm
    ${PROJECT_SOURCE_DIR}/packaging/tools/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Sample station server and registry tool of the Tessel library
tessel-host serves a simulated reference station feed to operators over Telnet
and to monitoring tools over HTTP, as a systemd service of type notify with a
watchdog (tessel-host.service). tessel-reg reads and changes the registry of
the Tessel processes of the host, and exports and imports registry files.")

include(CPack)
