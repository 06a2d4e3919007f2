# What `cmake --install` and the package hold. The programs look for their files below /usr, the prefix therefore.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where to install" FORCE)
endif()
set(CMAKE_INSTALL_DOCDIR share/doc/event-service CACHE PATH "Where documentation goes")
include(GNUInstallDirs)
set(platform ${PROJECT_SOURCE_DIR}/share/platform)

install(TARGETS EventService ResourceLoader DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${platform}/scripts/InitUriAndSubscriptionMap.lua DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${platform}/lua/RequestHttpHeaderValidator.lua DESTINATION local/nginx/lua)
install(FILES ${platform}/data/Subscriptions.json
        DESTINATION local/share/tarn_default_sdata/v1/EventService/Subscriptions
        RENAME index.json)
# For a board whose event delivery has none of its own.
install(FILES ${platform}/scripts/enqueueEvent.lua ${platform}/scripts/resourceChange.lua
        DESTINATION ${CMAKE_INSTALL_DATADIR}/event-service)

# The functions that the daemon exports to what is loaded into its process.
install(FILES src/foundation/redis_connection.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/event-service)
configure_file(packaging/event-service.pc.in ${CMAKE_BINARY_DIR}/event-service.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/event-service.pc DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig)

set(EVENT_SERVICE_UNIT_DIR lib/systemd/system CACHE STRING "Where the systemd unit goes")
install(FILES packaging/systemd/event-service.service DESTINATION ${EVENT_SERVICE_UNIT_DIR})
# As they lie in the tree, so that their links hold.
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME copyright)
# Without a configuration the service runs with its defaults, and its log goes to the journal.
set(ROOT "")
configure_file(${platform}/eventingMode.conf ${CMAKE_BINARY_DIR}/eventingMode.conf @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/eventingMode.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME event-service)
set(CPACK_PACKAGE_VENDOR EventService)
set(CPACK_PACKAGE_CONTACT "EventService developers <event-service@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "back end of the Redfish EventService for a board management controller")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "openssl, passwd")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS redis-server)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
foreach(script postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/${script})
endforeach()
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/folder_permissions.cmake)
include(CPack)
