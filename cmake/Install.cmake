# What is installed, and for whom. Components, each a Debian package (Packages.cmake):
#   runtime      the two libraries, under the names that hosts link and load
#   development  headers, CMake package, pkg-config files, examples, documents
#   tools        the tool, and what belongs to it: manual pages, completions, units
#   python       the package qxv_rtp (python/CMakeLists.txt)
# Every install rule names one of them.

include(CMakePackageConfigHelpers)

# The plain name of the module's library is part of the runtime, since hosts also load it by that name.
install(TARGETS QXV_RTP ZAQSockets EXPORT QXV_RTPTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET qxvrtp)
    install(TARGETS qxvrtp RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

install(FILES
    module/QXV_RTP.h
    module/QXV_RTP_table.h
    module/QXV_RTP_version.h
    sockets/ZAQSockets.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QXV_RTP)
install(EXPORT QXV_RTPTargets NAMESPACE QXV:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/QXV_RTPConfig.cmake.in ${PROJECT_BINARY_DIR}/QXV_RTPConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QXV_RTPConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QXV_RTPConfig.cmake ${PROJECT_BINARY_DIR}/QXV_RTPConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)

# A tree may be moved after the installation, so the files find it by their own place; but where the
# compiler looks by itself, that place is left out of the flags only if it is spelt as the compiler does.
set(pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT pc_prefix STREQUAL "/usr" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
function(qxv_pkgconfig file library)
    set(pc_description ${ARGN})
    configure_file(cmake/pkgconfig.pc.in ${PROJECT_BINARY_DIR}/${file}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${file}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
qxv_pkgconfig(qxv_rtp QXV_RTP ${PROJECT_DESCRIPTION})
qxv_pkgconfig(zaqsockets ZAQSockets "UDP sockets with a receive callback")

install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.[ch]" PATTERN "*.cpp" PATTERN "CMakeLists.txt")
# Headers and the Python package are installed elsewhere: their links become plain names.
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS *.md docs/*.md)
foreach(document ${documents})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${document})
    file(READ ${document} text)
    string(REGEX REPLACE "\\[([^]]*)\\]\\((\\.\\./)?(module|sockets|python)/[^)]*\\)" "\\1" text "${text}")
    file(WRITE ${PROJECT_BINARY_DIR}/documents/${document} "${text}")
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/documents/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT development)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.png")
