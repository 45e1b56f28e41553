# The recipients' side on the desktop. The agent's unit and its autostart entry belong to the
# package tellbox-user; the window, which needs a toolkit, is tellbox-desktop:
#   cmake --install TREE --component tellbox-desktop

set(AGENT_FILES COMPONENT tellbox-user EXCLUDE_FROM_ALL)
install(FILES packaging/desktop/tellbox-agent.service DESTINATION lib/systemd/user ${AGENT_FILES})
install(CODE "
  set(wants \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/user/graphical-session.target.wants\")
  file(MAKE_DIRECTORY \"\${wants}\")
  file(CREATE_LINK ../tellbox-agent.service \"\${wants}/tellbox-agent.service\" SYMBOLIC)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES
    \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/user/graphical-session.target.wants/tellbox-agent.service\")"
  ${AGENT_FILES})
# Under another prefix, to try an installation out, everything stays below the prefix.
install(CODE "
  set(system \"\$ENV{DESTDIR}\")
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL /usr/local)
    string(APPEND system \"\${CMAKE_INSTALL_PREFIX}\")
  endif()
  message(STATUS \"Installing: \${system}/etc/xdg/autostart/tellbox-agent.desktop\")
  file(COPY \"${CMAKE_CURRENT_SOURCE_DIR}/packaging/desktop/tellbox-agent.desktop\"
    DESTINATION \"\${system}/etc/xdg/autostart\"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES /etc/xdg/autostart/tellbox-agent.desktop)"
  ${AGENT_FILES})

if(TARGET tellbox-window)
  foreach(target tellbox_window tellbox-window)
    target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:
      -ffile-prefix-map=${CMAKE_SOURCE_DIR}=/usr/src/tellbox
      -ffile-prefix-map=${CMAKE_BINARY_DIR}=/usr/src/tellbox/build>)
  endforeach()
  install(TARGETS tellbox-window RUNTIME DESTINATION lib/tellbox
    COMPONENT tellbox-desktop EXCLUDE_FROM_ALL)
endif()
