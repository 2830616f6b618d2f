# The agent as a service: its unit, its user, the groups of its devices, and an empty system file.
set(KORU_UNIT_DIR lib/systemd/system CACHE STRING "Where units of systemd go")
set(KORU_SYSUSERS_DIR lib/sysusers.d CACHE STRING "Where users of the system are described")
set(KORU_TMPFILES_DIR lib/tmpfiles.d CACHE STRING "Where directories that are made at the start are described")
set(KORU_UDEV_DIR lib/udev/rules.d CACHE STRING "Where rules for device nodes go")

# Where the program and the system file are is known when the prefix is.
install(CODE "
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE)
  set(KORU_BIN_DIR [==[${CMAKE_INSTALL_BINDIR}]==])
  set(KORU_CONFIG_DIR [==[${CMAKE_INSTALL_SYSCONFDIR}/koru]==])
  cmake_path(ABSOLUTE_PATH KORU_BIN_DIR BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
  cmake_path(ABSOLUTE_PATH KORU_CONFIG_DIR BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file([==[${PROJECT_SOURCE_DIR}/agent/service/korud.service.in]==]
                 [==[${PROJECT_BINARY_DIR}/korud.service]==] @ONLY)
" COMPONENT agent)
install(FILES ${PROJECT_BINARY_DIR}/korud.service DESTINATION ${KORU_UNIT_DIR} COMPONENT agent)
install(FILES agent/service/sysusers.conf DESTINATION ${KORU_SYSUSERS_DIR} RENAME korud.conf COMPONENT agent)
install(FILES agent/service/tmpfiles.conf DESTINATION ${KORU_TMPFILES_DIR} RENAME korud.conf COMPONENT agent)
install(FILES agent/service/udev.rules DESTINATION ${KORU_UDEV_DIR} RENAME 70-korud.rules COMPONENT agent)
install(FILES agent/service/korud.toml DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/koru COMPONENT agent)
install(FILES agent/service/widen.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/korud/examples COMPONENT agent)
