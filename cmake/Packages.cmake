# Debian packages, by cpack; scripts/package.sh sets up the tree that they expect (prefix /usr).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqxv-rtp)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "QXV_RTP maintainers <qxv-rtp@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development python)
if(TARGET qxvrtp)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
# The tool and the Python package read the module's runtime table, and headers and library must match:
# one version for all.
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE libqxv-rtp)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqxv-rtp${QXV_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqxv-rtp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qxvrtp)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "libcurl4, libjs-dygraphs")
set(maintainer ${PROJECT_SOURCE_DIR}/services/debian)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${maintainer}/postinst ${maintainer}/prerm ${maintainer}/postrm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qxv-rtp)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11)")

set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "streaming module for MPEG transport streams - libraries
QXV_RTP carries MPEG transport streams over IP networks: 16 send and 16
receive channels, UDP raw or under RTP, unicast or multicast, IPv4 or IPv6,
loaded into the process of the program that uses it.
.
This package contains the module and its library of UDP sockets.")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "streaming module for MPEG transport streams - development files
QXV_RTP carries MPEG transport streams over IP networks: 16 send and 16
receive channels, UDP raw or under RTP, unicast or multicast, IPv4 or IPv6,
loaded into the process of the program that uses it.
.
This package contains the headers, the files for pkg-config and CMake,
examples and documents.")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "sends and receives MPEG transport streams over UDP and RTP
qxvrtp sends transport streams from files to UDP or RTP addresses, paced by
their own clock references, and receives them into files and pipes. It is a
host of the QXV_RTP streaming module.")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "streaming module for MPEG transport streams - Python package
QXV_RTP carries MPEG transport streams over IP networks, UDP raw or under
RTP. This package, qxv_rtp, has its channels and its table for scripts and
tests in Python.")

# What programs that link the module depend on, and who tells the linker's cache.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/shlibs
    CONTENT "libQXV_RTP @QXV_SOVERSION@ libqxv-rtp@QXV_SOVERSION@ (>= @PROJECT_VERSION@)\n" @ONLY)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/triggers)

include(CPack)
