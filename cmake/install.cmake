# What is installed, in three components: runtime, development, programs.

set(programs msgsvr notifyserver mlogserver)
if(TARGET msgbridge)
  list(APPEND programs msgbridge)
endif()
set(tools mlog cfmctl msgctl msginspect)

# What is installed finds its libraries wherever it is put. An image whose libraries are all in a
# place that its loader knows does without: CMAKE_SKIP_INSTALL_RPATH.
file(RELATIVE_PATH libraries_from_programs
  ${CMAKE_INSTALL_FULL_SBINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(msgapi orputil cfmapi PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(${programs} ${tools} PROPERTIES
  INSTALL_RPATH "$ORIGIN/${libraries_from_programs}")

install(TARGETS msgapi orputil cfmapi EXPORT msgapi-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS msgapi_kit EXPORT msgapi-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT programs)
install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)

install(DIRECTORY include/ platform/orputil/include/ platform/cfmapi/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
# Below /usr the loader finds the library by itself; elsewhere a program is told where it is.
file(RELATIVE_PATH library_directory ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH prefix_from_pc /${library_directory}/pkgconfig /)
set(run_path)
configure_file(cmake/libmsgapi.pc.in pkgconfig/system/libmsgapi.pc @ONLY)
set(run_path "-Wl,-rpath,\${libdir} ")
configure_file(cmake/libmsgapi.pc.in pkgconfig/elsewhere/libmsgapi.pc @ONLY)
configure_file(cmake/libmsgapi-kit.pc.in pkgconfig/libmsgapi-kit.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/libmsgapi-kit.pc
  DESTINATION ${library_directory}/pkgconfig COMPONENT development)
install(CODE "
  set(kind elsewhere)
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$|/_CPack_Packages/\")
    set(kind system)
  endif()
  file(INSTALL \"${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/\${kind}/libmsgapi.pc\"
    DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${library_directory}/pkgconfig\")
" COMPONENT development)

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/msgapi)
install(EXPORT msgapi-targets NAMESPACE msgapi:: FILE msgapi-config.cmake
  DESTINATION ${package_dir} COMPONENT development)
write_basic_package_version_file(msgapi-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/msgapi-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

set(MSGAPI_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
  "Where systemd's units go; below the prefix, or an absolute path")
foreach(program ${programs})
  install(FILES packaging/systemd/${program}.service
    DESTINATION ${MSGAPI_SYSTEMD_UNIT_DIR} COMPONENT programs)
endforeach()
install(FILES packaging/systemd/var-run.mount
  DESTINATION ${MSGAPI_SYSTEMD_UNIT_DIR} COMPONENT programs)
foreach(kind sysusers tmpfiles)
  install(FILES packaging/systemd/msgapi.${kind} RENAME msgapi.conf
    DESTINATION lib/${kind}.d COMPONENT programs)
endforeach()
# Where Wireshark looks for what brings it interfaces.
install(PROGRAMS tools/msgctl/msgapi-extcap
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/extcap COMPONENT programs)
foreach(chapter 1 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${chapter})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${chapter} COMPONENT programs)
endforeach()
install(FILES tools/msgctl/completion/msgctl.bash RENAME msgctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT programs)
install(FILES tools/msgctl/completion/_msgctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT programs)
install(FILES tools/msgctl/completion/msgctl.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT programs)
install(FILES tools/cfmctl/defaults.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/cfmctl COMPONENT programs)
# An example: tools read what is in share/msgapi/messages.d.
install(FILES examples/demo/demo_types.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/msgapi/examples COMPONENT programs)
# Packages copy it to /etc unless there is a policy.
install(FILES packaging/policy.json DESTINATION ${CMAKE_INSTALL_DATADIR}/msgapi COMPONENT programs)
# A sample: the server reads it from /etc, wherever all this goes.
install(FILES servers/mlogserver/mlogserver.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/mlogserver COMPONENT programs)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libmsgapi)
set(CPACK_PACKAGE_VENDOR libmsgapi)
set(CPACK_PACKAGE_CONTACT "libmsgapi maintainers <maintainers@libmsgapi.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Runtime library of home gateway daemons")
set(CPACK_COMPONENTS_ALL runtime development programs)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libmsgapi1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmsgapi-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libmsgapi1 (= ${PROJECT_VERSION}), libcjson-dev")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME msgapi-servers)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION net)
# passwd: the group and the user are made when it is installed.
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS "libmsgapi1 (= ${PROJECT_VERSION}), passwd")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm)
include(CPack)
