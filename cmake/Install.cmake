# What is installed beside the programs. A platform that has no use for a part leaves it out of its own package.

# The callback interface, for owners of services who build a library.
install(FILES callbacks/ServiceCallbacks.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/keywarden")
configure_file(packaging/keywardd.pc.in keywardd.pc @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/keywardd.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
install(DIRECTORY examples/plugin DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/keywardd-dev/examples")

# The configuration: what every device needs goes to its place, what shows how a service is configured to the
# documentation. These paths are the daemon's own, whatever the prefix is.
set(KEYWARD_SYSCONFDIR /etc/keywarden)
install(FILES examples/etc/keywarden/config.daemon DESTINATION "${KEYWARD_SYSCONFDIR}")
install(DIRECTORY DESTINATION "${KEYWARD_SYSCONFDIR}/services")
install(PROGRAMS platform/network.sh DESTINATION "${KEYWARD_SYSCONFDIR}/scripts")
install(DIRECTORY examples/etc DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/keywardd/examples"
  USE_SOURCE_PERMISSIONS PATTERN config.daemon EXCLUDE)

# What starts the daemon, makes its accounts and folders, and tells it of changes: that script knows the places.
install(CODE "
  foreach(kind systemd init)
    execute_process(COMMAND \"${CMAKE_CURRENT_SOURCE_DIR}/platform/install.sh\" \"\$ENV{DESTDIR}\" \${kind}
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()")

foreach(section 1 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS "docs/man/*.${section}")
  install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
install(FILES packaging/completion/keywardctl.bash DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
  RENAME keywardctl)
