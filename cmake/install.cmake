# `cmake --install`: the two libraries, the programs, the public headers, the CMake package, the pkg-config files, the
# manual pages and documents, completion, the systemd unit and the user it runs as.
include(CMakePackageConfigHelpers)

install(TARGETS natagent natclient natclient_static EXPORT natagent_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS natagentd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS natctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES client/natclient.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natclient)
# <natagent/host.h> is C; what a host in C++ may use beside it lies under natagent/ as it does here.
install(FILES agent/host.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent)
install(FILES agent/natagent.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/agent)
install(FILES nat/host_config.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/nat)
install(FILES platform/types.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/natagent/platform)
target_include_directories(natagent INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/natagent>)
# What the public headers need.
target_compile_features(natagent INTERFACE c_std_11 cxx_std_11)

install(FILES examples/natagentd.toml examples/epoll_client.c DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES docs/architecture.md docs/integrators.md docs/one-way-audio.md docs/protocol.md docs/status.md docs/which-parties.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES tools/completion/natctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME natctl)
install(FILES tools/completion/natctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME natagentd)
install(FILES tools/completion/natctl.zsh DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions RENAME _natctl)

# docs/NAME.SECTION.md are the manual pages. Without lowdown they are installed as they are.
file(GLOB manual_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.[1-9].md")
find_program(LOWDOWN lowdown)
if(LOWDOWN)
  string(TIMESTAMP today "%Y-%m-%d" UTC)
  set(manual_pages "")
  foreach(source IN LISTS manual_sources)
    cmake_path(GET source STEM LAST_ONLY page)
    string(REGEX MATCH "[1-9]$" section ${page})
    set(manual_page ${PROJECT_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${manual_page} DEPENDS ${source} cmake/man_page VERBATIM
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${PROJECT_SOURCE_DIR}/cmake/man_page ${source} ${today} ${PROJECT_VERSION} > ${manual_page})
    list(APPEND manual_pages ${manual_page})
    install(FILES ${manual_page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(manual_pages ALL DEPENDS ${manual_pages})
else()
  install(FILES ${manual_sources} DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# Not in CMAKE_INSTALL_LIBDIR: systemd looks here.
install(FILES examples/natagent.sysusers DESTINATION lib/sysusers.d RENAME natagent.conf)
# The unit names paths, and the prefix may be chosen as late as at the installation.
install(CODE "
  set(unit_source \"${PROJECT_SOURCE_DIR}/examples/natagentd.service\")
  set(sbin_dir \"${CMAKE_INSTALL_SBINDIR}\")")
install(CODE [[
  file(READ "${unit_source}" unit)
  string(REPLACE "/usr/sbin/" "${CMAKE_INSTALL_PREFIX}/${sbin_dir}/" unit "${unit}")
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
