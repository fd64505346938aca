# `cmake --install`: the two libraries, the programs, the public headers, the CMake package, the pkg-config files, the
# documents and the systemd unit.
include(CMakePackageConfigHelpers)

install(TARGETS natclient EXPORT natagent_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS natagent EXPORT natagent_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS natagentd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS natctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES client/natclient.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natclient)
install(FILES agent/natagent.h agent/host.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/agent)
install(FILES nat/host_config.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/nat)
install(FILES platform/types.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/platform)
target_include_directories(natagent INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/natagent>)

install(FILES examples/natagentd.toml examples/epoll_client.c DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES docs/architecture.md docs/protocol.md docs/integrators.md docs/natagentd.8.md docs/natctl.1.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The unit names paths, and the prefix may be chosen as late as at the installation.
install(CODE "
  set(unit_source \"${PROJECT_SOURCE_DIR}/examples/natagentd.service\")
  set(sbin_dir \"${CMAKE_INSTALL_SBINDIR}\")
  set(doc_dir \"${CMAKE_INSTALL_DOCDIR}\")")
install(CODE [[
  file(READ "${unit_source}" unit)
  string(REPLACE "/usr/sbin/" "${CMAKE_INSTALL_PREFIX}/${sbin_dir}/" unit "${unit}")
  string(REPLACE "/usr/share/doc/natagent/" "${CMAKE_INSTALL_PREFIX}/${doc_dir}/" unit "${unit}")
  set(unit_path "${CMAKE_INSTALL_PREFIX}/lib/systemd/system/natagentd.service")
  file(WRITE "$ENV{DESTDIR}${unit_path}" "${unit}")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${unit_path}")
  message(STATUS "Installed: $ENV{DESTDIR}${unit_path}")
]])

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/natagent)
install(EXPORT natagent_targets NAMESPACE natagent:: DESTINATION ${package_dir})
file(WRITE ${PROJECT_BINARY_DIR}/natagent-config.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/natagent_targets.cmake\")\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/natagent-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/natagent-config.cmake ${PROJECT_BINARY_DIR}/natagent-config-version.cmake
  DESTINATION ${package_dir})

# Relative to where the .pc file lies, so that `cmake --install --prefix` may put it anywhere.
file(RELATIVE_PATH NATAGENT_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
foreach(library natagent natclient)
  configure_file(cmake/${library}.pc.in ${PROJECT_BINARY_DIR}/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
