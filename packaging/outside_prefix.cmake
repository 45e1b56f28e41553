# Part of the installation, after folders.cmake: what stands outside /usr/local.
#
#   TELLBOX_CONFIGURATION   the configuration file to install
#
# Under another prefix, to try an installation out, everything stays below the prefix.

set(system "$ENV{DESTDIR}")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  string(APPEND system "${CMAKE_INSTALL_PREFIX}")
endif()

# Left alone when there is one: it is the administrator's.
set(configuration "${system}/etc/tellbox/tellbox.conf")
if(EXISTS "${configuration}")
  message(STATUS "Kept: ${configuration}")
else()
  message(STATUS "Installing: ${configuration}")
  make_folders("${system}" etc/tellbox)
  file(COPY "${TELLBOX_CONFIGURATION}" DESTINATION "${system}/etc/tellbox"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()

# Debian's fish looks for completions below /usr/share only.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  set(folder "${system}/usr/share/fish/vendor_completions.d")
  message(STATUS "Installing: ${folder}/tbx.fish")
  make_folders("${system}" usr/share/fish/vendor_completions.d)
  file(CREATE_LINK ../../../local/share/fish/vendor_completions.d/tbx.fish "${folder}/tbx.fish"
    SYMBOLIC)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES /usr/share/fish/vendor_completions.d/tbx.fish)
endif()
