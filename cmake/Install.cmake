# Headers, libraries, tool, CMake package and pkg-config file.

include(CMakePackageConfigHelpers)

install(TARGETS QXV_RTP ZAQSockets EXPORT QXV_RTPTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES module/QXV_RTP.h sockets/ZAQSockets.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET qxvrtp)
    install(TARGETS qxvrtp RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QXV_RTP)
install(EXPORT QXV_RTPTargets NAMESPACE QXV:: DESTINATION ${package_dir})
configure_package_config_file(cmake/QXV_RTPConfig.cmake.in ${PROJECT_BINARY_DIR}/QXV_RTPConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QXV_RTPConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QXV_RTPConfig.cmake ${PROJECT_BINARY_DIR}/QXV_RTPConfigVersion.cmake
    DESTINATION ${package_dir})

configure_file(cmake/qxv_rtp.pc.in ${PROJECT_BINARY_DIR}/qxv_rtp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxv_rtp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
