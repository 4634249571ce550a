# What an installation holds, by component: "programs" is the package korvel, "development" korvel-dev.

install(TARGETS korvel korvel-forwarder RUNTIME COMPONENT programs)
file(RELATIVE_PATH from_programs /${CMAKE_INSTALL_BINDIR} /${KORVEL_LIBRARY_DIR})
set_target_properties(korvel korvel-forwarder PROPERTIES INSTALL_RPATH "$ORIGIN/${from_programs}")
foreach(library korvel_proto korvel_proto_grpc)
  korvel_install_library(${library})
endforeach()
install(TARGETS table_use LIBRARY DESTINATION ${KORVEL_LIBRARY_DIR}/plugins COMPONENT programs)

# Manual pages and completion, from the programs' own --help.
set(manual ${CMAKE_CURRENT_BINARY_DIR}/manual)
add_custom_command(
  OUTPUT ${manual}/stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual}
  COMMAND /usr/bin/python3 -B ${PROJECT_SOURCE_DIR}/packaging/manual.py $<TARGET_FILE:korvel>
          $<TARGET_FILE:korvel-forwarder> --output ${manual} --version ${PROJECT_VERSION}
  COMMAND ${CMAKE_COMMAND} -E touch ${manual}/stamp
  DEPENDS korvel korvel-forwarder packaging/manual.py
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${manual}/stamp)
install(DIRECTORY ${manual}/man1 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT programs)
install(DIRECTORY ${manual}/completions/ COMPONENT programs
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

# Services, their user, and their configuration.
install(FILES
          packaging/systemd/korvel-agent.service
          packaging/systemd/korvel-forwarder.service
          packaging/systemd/korvel-switch.service
        DESTINATION lib/systemd/system COMPONENT programs)
install(FILES packaging/systemd/korvel.sysusers DESTINATION lib/sysusers.d RENAME korvel.conf
        COMPONENT programs)
install(FILES
          packaging/etc/agent.env
          packaging/etc/agent.json
          packaging/etc/forwarder.env
          packaging/etc/switch.env
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/korvel COMPONENT programs)

# Controllers, topologies and pipelines to try, in the folders that they have in the tree, since they
# look for each other there.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/proto ${PROJECT_SOURCE_DIR}/examples
        DESTINATION ${CMAKE_INSTALL_DATADIR}/korvel COMPONENT programs
        USE_SOURCE_PERMISSIONS
        PATTERN CMakeLists.txt EXCLUDE
        PATTERN __pycache__ EXCLUDE
        PATTERN .gitignore EXCLUDE
        PATTERN minimal-forwarder EXCLUDE
        PATTERN plugins EXCLUDE)
install(FILES ${PROJECT_BINARY_DIR}/examples/router/router.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/korvel/examples/router COMPONENT programs)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT programs
        FILES_MATCHING PATTERN *.md PATTERN *.svg)

# For forwarding agents: one archive, so that a forwarding agent needs nothing of this package when it
# runs. The agent and a forwarding agent understand each other by the version of their protocol.
add_library(korvel_forwarding STATIC
  $<TARGET_OBJECTS:scrivel> $<TARGET_OBJECTS:vela> $<TARGET_OBJECTS:brine> $<TARGET_OBJECTS:lattice>)
set_target_properties(korvel_forwarding PROPERTIES OUTPUT_NAME korvel-forwarding LINKER_LANGUAGE CXX)
install(TARGETS korvel_forwarding ARCHIVE COMPONENT development)

# For plugins and forwarding agents: the headers that docs/plugins.md and docs/forwarding-agents.md
# speak of, and those that they include.
foreach(header
    P4Runtime/companion/ErrorCode.h
    P4Runtime/plugin/korvel_plugin.h
    platform/brine/Store.h
    platform/lattice/Subscriber.h
    platform/lattice/counters/FlowCounters.h
    platform/lattice/doorbell/Question.h
    platform/lattice/types/DirectColumns.h
    platform/lattice/types/NamedColumns.h
    platform/lattice/types/TableType.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvel/${folder}
          COMPONENT development)
endforeach()
foreach(kind forwarding plugin)
  configure_file(packaging/korvel-${kind}.pc.in korvel-${kind}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/korvel-${kind}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/minimal-forwarder ${PROJECT_SOURCE_DIR}/examples/plugins
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/korvel-dev/examples COMPONENT development
        PATTERN CMakeLists.txt EXCLUDE)
