# Destinations for cmake --install. Included last, when all targets are known.
include(GNUInstallDirs)
set(ORVEX_UNIT_DIR lib/systemd/system CACHE STRING "Where units of systemd go")
set(ORVEX_UDEV_DIR lib/udev/rules.d CACHE STRING "Where rules of udev go")
set(ORVEX_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
    "Where completion of zsh goes")
set(ORVEX_BASH_DIR ${CMAKE_INSTALL_DATADIR}/bash-completion/completions CACHE STRING
    "Where completion of bash goes")
set(ORVEX_WIRESHARK_DIR ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins CACHE STRING
    "Where plug-ins of Wireshark go")

install(TARGETS orvex RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES docs/man/orvex.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES docs/man/orvex-protocol.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
install(FILES docs/protocol.md docs/vectors.json docs/wireshark.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/nftables/orvex.nft DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY wireshark/ DESTINATION ${ORVEX_WIRESHARK_DIR} OPTIONAL
        FILES_MATCHING PATTERN "*.lua")

set(ORVEX_UNITS orvex)
foreach(service board mqtt gpio tsl)
  if(TARGET orvex-${service})
    list(APPEND ORVEX_UNITS orvex-${service})
    install(FILES docs/${service}.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvex-${service})
    if(NOT service STREQUAL board)  # which has no configuration file
      install(FILES docs/man/orvex-${service}.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
    endif()
  endif()
endforeach()
if(TARGET orvex-board)
  install(FILES packaging/prometheus/orvex-board.rules.yml packaging/grafana/orvex-board.json
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvex-board/examples)
  install(FILES docs/runbook.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvex-board)
  install(FILES docs/openapi.json DESTINATION ${CMAKE_INSTALL_DATADIR}/orvex/schemas
          RENAME orvex-board.openapi.json)
endif()
if(TARGET orvex-mqtt)
  install(FILES docs/schemas/orvex-mqtt.json DESTINATION ${CMAKE_INSTALL_DATADIR}/orvex/schemas)
endif()
if(TARGET orvex-gpio)
  install(FILES packaging/systemd/orvex-gpio.sysusers DESTINATION lib/sysusers.d
          RENAME orvex-gpio.conf)
  install(FILES packaging/systemd/60-orvex-gpio.rules DESTINATION ${ORVEX_UDEV_DIR})
endif()
string(REPLACE ";" " " ORVEX_UNITS "${ORVEX_UNITS}")
configure_file(cmake/unit.cmake.in unit.cmake @ONLY)
install(SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/unit.cmake)

foreach(tool orvexctl orvex-sim orvex-gpio orvex-tsl orvex-board orvex-mqtt)
  if(TARGET ${tool})
    file(GLOB manual docs/man/${tool}.[18])
    string(REGEX REPLACE ".*[.]" "" section ${manual})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/completion/${tool}.bash
            DESTINATION ${ORVEX_BASH_DIR} RENAME ${tool})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/completion/_${tool} DESTINATION ${ORVEX_ZSH_DIR})
  endif()
endforeach()
if(TARGET orvexctl)
  install(FILES docs/json.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(FILES docs/schemas/orvexctl.json DESTINATION ${CMAKE_INSTALL_DATADIR}/orvex/schemas)
  install(FILES docs/man/orvex-names.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
  install(FILES packaging/systemd/orvex-on@.service packaging/systemd/orvex-doctor.service
                packaging/systemd/orvex-doctor.timer
          DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
endif()
if(TARGET orvex-sim)
  install(FILES tools/sim/example.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
          RENAME orvex-sim.conf)
endif()
