# Part of the installation of the recipients' program: what stands outside /usr/local.
#
#   TELLBOX_USER_FILES   folder with the files that were made for it
#
# Under another prefix, to try an installation out, everything stays below the prefix.

set(system "$ENV{DESTDIR}")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  string(APPEND system "${CMAKE_INSTALL_PREFIX}")
endif()

function(install_outside file folder name)
  message(STATUS "Installing: ${system}/${folder}/${name}")
  make_folders("${system}" ${folder})
  file(COPY_FILE "${TELLBOX_USER_FILES}/${file}" "${system}/${folder}/${name}")
  file(CHMOD "${system}/${folder}/${name}" PERMISSIONS
    OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

install_outside(tellbox.sh etc/profile.d tellbox.sh)
# Debian's fish looks for its vendor folders below /usr/share only.
install_outside(hook.fish usr/share/fish/vendor_conf.d tellbox.fish)
install_outside(tellbox.fish usr/share/fish/vendor_completions.d tellbox.fish)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES /etc/profile.d/tellbox.sh
  /usr/share/fish/vendor_conf.d/tellbox.fish /usr/share/fish/vendor_completions.d/tellbox.fish)
