# Where everything is installed: the programs look for each other, and for their files, at these places alone.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME run)

install(TARGETS tessardd keywarden RUNTIME DESTINATION sbin)
install(TARGETS tessardctl RUNTIME DESTINATION bin)
install(TARGETS change_accounts jabberd_launcher jabberd_authenticator RUNTIME DESTINATION libexec/tessardd)
install(PROGRAMS programs/netstat programs/prepare-instance programs/pubsub_launcher DESTINATION libexec/tessardd)
install(DIRECTORY programs/pubsub DESTINATION libexec/tessardd FILES_MATCHING PATTERN "*.py")

# The bundle has machine code in it, which /usr/share is no place for, though the bundle is known by that path.
install(DIRECTORY ${CMAKE_BINARY_DIR}/bundles/tessard_notification.bundle DESTINATION lib/tessardd/bundles
  USE_SOURCE_PERMISSIONS)
install(CODE [[
  set(shared "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/share/tessardd")
  file(MAKE_DIRECTORY "${shared}")
  file(CREATE_LINK ../../lib/tessardd/bundles "${shared}/bundles" SYMBOLIC)
]])

install(DIRECTORY share/templates DESTINATION share/tessardd)
install(DIRECTORY share/Beaconry share/bash-completion DESTINATION share)
install(PROGRAMS share/certbot-deploy-hook DESTINATION share/tessardctl)
install(DIRECTORY share/man/ DESTINATION share/man)
install(DIRECTORY share/systemd/ DESTINATION lib/systemd/system)
install(DIRECTORY share/sysusers.d share/tmpfiles.d DESTINATION lib)
install(DIRECTORY share/pam.d DESTINATION /etc)
install(FILES share/tessardd.conf DESTINATION /etc/tessardd)

# What another plug-in is made with.
file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/common/*.h)
install(FILES ${headers} DESTINATION include/tessardd/common COMPONENT dev)
install(TARGETS tessard_common tessard_documents ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
configure_file(cmake/tessardd-plugin.pc.in tessardd-plugin.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tessardd-plugin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
