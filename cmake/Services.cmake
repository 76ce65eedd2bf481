# systemd units, shell completions and manual pages of the tool.

# systemd finds a command in these two by itself, also when a package puts it into the other one.
set(QXV_COMMAND qxvrtp)
if(NOT CMAKE_INSTALL_FULL_BINDIR MATCHES "^/usr(/local)?/bin$")
    set(QXV_COMMAND ${CMAKE_INSTALL_FULL_BINDIR}/qxvrtp)
endif()
foreach(QXV_SERVICE send receive relay monitor serve)
    set(QXV_ENTRIES ${QXV_SERVICE})
    if(QXV_SERVICE STREQUAL "serve")
        set(QXV_ENTRIES monitor)
    endif()
    set(unit ${PROJECT_BINARY_DIR}/services/qxvrtp-${QXV_SERVICE}@.service)
    configure_file(${PROJECT_SOURCE_DIR}/services/qxvrtp@.service.in ${unit} @ONLY)
    # Not CMAKE_INSTALL_LIBDIR: systemd looks for units below lib, whatever the architecture.
    install(FILES ${unit} DESTINATION lib/systemd/system COMPONENT tools)
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/services/qxvrtp.toml.5
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/services/prometheus
    DESTINATION ${CMAKE_INSTALL_DATADIR}/qxvrtp COMPONENT tools)

# The rest is made by the tool itself. A sanitizer may not let it run outside of the tests.
if(QXV_SANITIZE)
    return()
endif()
set(made ${PROJECT_BINARY_DIR}/services)
add_custom_command(
    OUTPUT ${made}/qxvrtp.bash ${made}/_qxvrtp ${made}/qxvrtp.fish ${made}/man1/qxvrtp.1
    COMMAND qxvrtp completion bash > ${made}/qxvrtp.bash
    COMMAND qxvrtp completion zsh > ${made}/_qxvrtp
    COMMAND qxvrtp completion fish > ${made}/qxvrtp.fish
    COMMAND ${CMAKE_COMMAND} -E make_directory ${made}/man1
    COMMAND qxvrtp manual --directory ${made}/man1
    DEPENDS qxvrtp
    COMMENT "Completions and manual pages of qxvrtp"
    VERBATIM)
add_custom_target(qxvrtp_texts ALL DEPENDS ${made}/man1/qxvrtp.1)
install(DIRECTORY ${made}/man1 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
install(FILES ${made}/qxvrtp.bash RENAME qxvrtp
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES ${made}/_qxvrtp
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT tools)
install(FILES ${made}/qxvrtp.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
