# What an installation consists of. It lies under /opt/velmora/lantrel, where the agent expects it, unless the packager
# names another prefix.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /opt/velmora/lantrel CACHE PATH "Where the agent's files are" FORCE)
endif()

# It finds the installation from its own place.
configure_file(${CMAKE_SOURCE_DIR}/cmake/libplatform.pc.in ${CMAKE_BINARY_DIR}/libplatform.pc @ONLY)

install(TARGETS platform LIBRARY DESTINATION lib)
install(TARGETS kvhost pxrtraced RUNTIME DESTINATION bin)
install(DIRECTORY ${CMAKE_BINARY_DIR}/lib/nls DESTINATION lib)
install(DIRECTORY ${CMAKE_BINARY_DIR}/share/scenarios DESTINATION share)
install(DIRECTORY data/maps DESTINATION .)
install(DIRECTORY include/libplatform DESTINATION include)
install(FILES ${CMAKE_BINARY_DIR}/libplatform.pc DESTINATION lib/pkgconfig)
install(FILES README.md CHANGELOG.md DESTINATION share/doc)
install(DIRECTORY docs DESTINATION share/doc)

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME libplatform)
set(CPACK_SYSTEM_NAME linux-i386)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)  # to be unpacked in /
include(CPack)
