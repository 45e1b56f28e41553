# Part of the installation of the recipients' side, after folders.cmake: links, and what stands
# outside /usr/local.
#
#   TELLBOX_USER_FILES   folder with the files that were made for it
#   TELLBOX_AUTOSTART    the autostart entry of the agent
#
# Under another prefix, to try an installation out, everything stays below the prefix.

function(install_link target place)
  message(STATUS "Installing: $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${place}")
  file(CREATE_LINK ${target} "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${place}" SYMBOLIC)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_PREFIX}/${place}")
  set(CMAKE_INSTALL_MANIFEST_FILES ${CMAKE_INSTALL_MANIFEST_FILES} PARENT_SCOPE)
endfunction()

install_link(../lib/tellbox/tellbox-user bin/tellbox)
# Enables the unit for every user.
install_link(../tellbox-agent.service
  lib/systemd/user/graphical-session.target.wants/tellbox-agent.service)

set(outside "")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  set(outside "${CMAKE_INSTALL_PREFIX}")
endif()

function(install_outside file folder name)
  message(STATUS "Installing: $ENV{DESTDIR}${outside}/${folder}/${name}")
  make_folders("$ENV{DESTDIR}${outside}" ${folder})
  file(COPY_FILE "${file}" "$ENV{DESTDIR}${outside}/${folder}/${name}")
  file(CHMOD "$ENV{DESTDIR}${outside}/${folder}/${name}" PERMISSIONS
    OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${outside}/${folder}/${name}")
  set(CMAKE_INSTALL_MANIFEST_FILES ${CMAKE_INSTALL_MANIFEST_FILES} PARENT_SCOPE)
endfunction()

install_outside("${TELLBOX_USER_FILES}/tellbox.sh" etc/profile.d tellbox.sh)
install_outside("${TELLBOX_AUTOSTART}" etc/xdg/autostart tellbox-agent.desktop)
# Debian's fish looks for its vendor folders below /usr/share only.
install_outside("${TELLBOX_USER_FILES}/hook.fish" usr/share/fish/vendor_conf.d tellbox.fish)
install_outside("${TELLBOX_USER_FILES}/tellbox.fish" usr/share/fish/vendor_completions.d
  tellbox.fish)
