# The packages: `cpack -G DEB` and `cpack -G RPM` in the build folder make one of each part. Both
# kinds hold the same files, and are the same byte for byte whenever and wherever they are made from
# the same source.

set(CPACK_GENERATOR DEB RPM)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME tellbox)
set(CPACK_PACKAGE_VENDOR Tellbox)
set(CPACK_PACKAGE_CONTACT "The Tellbox developers <tellbox@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each part has its own
set(what_it_is
  "Tellbox lets administrators send text messages to the users of the machine\n\
and know who has read them. Messages appear in terminals and on the desktop,\n\
and are asked about until they are confirmed.")

set(CPACK_COMPONENTS_ALL tellbox tellbox-user)
if(TARGET tellbox-window)
  list(APPEND CPACK_COMPONENTS_ALL tellbox-desktop)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_RPM_COMPONENT_INSTALL ON)

# Says the same of a part to both kinds of package.
macro(describe_package part summary description)
  string(TOUPPER ${part} PART)
  set(CPACK_DEBIAN_${PART}_PACKAGE_NAME ${part})
  set(CPACK_RPM_${PART}_PACKAGE_NAME ${part})
  set(CPACK_COMPONENT_${PART}_DESCRIPTION "${what_it_is}\n\n${description}")
  set(CPACK_DEBIAN_${PART}_DESCRIPTION "${summary}\n${CPACK_COMPONENT_${PART}_DESCRIPTION}")
  set(CPACK_RPM_${PART}_PACKAGE_SUMMARY "${summary}")
  set(CPACK_RPM_${PART}_PACKAGE_DESCRIPTION "${CPACK_COMPONENT_${PART}_DESCRIPTION}")
endmacro()
describe_package(tellbox "${PROJECT_DESCRIPTION}"
  "This package holds tbx, the administrator's command, and the manual.")
describe_package(tellbox-user "Messages of the administrator at the prompt, and their confirmation"
  "This package holds what the users of the machine need: the command tellbox,\n\
the hooks of the shells, and the agent that watches for messages on a desktop.")
describe_package(tellbox-desktop "Messages of the administrator in a window on the desktop"
  "This package holds the window in which a user reads and confirms a message.")
set(CPACK_STRIP_FILES ON)

# /etc is outside the prefix, so the files are collected as by an installation with DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr/local)

# Every time in a package is the release's.
execute_process(COMMAND date -u -d ${RELEASE_DATE} +%s OUTPUT_VARIABLE release_time
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
file(WRITE ${PACKAGING_OUT}/release_time.cmake
  "if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})\n  set(ENV{SOURCE_DATE_EPOCH} ${release_time})\nendif()\n")
set(CPACK_PROJECT_CONFIG_FILE ${PACKAGING_OUT}/release_time.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${PACKAGING}/reproducible_content.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PACKAGING}/reproducible_archive.cmake)

# ---- Debian ---------------------------------------------------------------------------------

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_TELLBOX_PACKAGE_RECOMMENDS "tellbox-user, sudo, less")
set(CPACK_DEBIAN_TELLBOX_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_DEBIAN_TELLBOX-USER_PACKAGE_RECOMMENDS "less")
set(CPACK_DEBIAN_TELLBOX-USER_PACKAGE_SUGGESTS "tellbox, tellbox-desktop, bash-completion")
set(CPACK_DEBIAN_TELLBOX-DESKTOP_PACKAGE_DEPENDS "tellbox-user")
set(CPACK_DEBIAN_TELLBOX-DESKTOP_PACKAGE_SECTION x11)

# A script of a package: packaging/debian/PART.NAME, in which @BASE_FOLDERS@ stands for what each
# of them does about folders.
file(READ ${PACKAGING}/debian/base_folders.sh BASE_FOLDERS)
foreach(script tellbox.postrm tellbox-user.prerm tellbox-user.postrm tellbox-desktop.postrm)
  string(REPLACE "." ";" names ${script})
  list(GET names 0 part)
  list(GET names 1 name)
  string(TOUPPER ${part} PART)
  configure_file(${PACKAGING}/debian/${script} ${PACKAGING_OUT}/debian/${part}/${name} @ONLY)
  list(APPEND CPACK_DEBIAN_${PART}_PACKAGE_CONTROL_EXTRA ${PACKAGING_OUT}/debian/${part}/${name})
endforeach()
foreach(part tellbox tellbox-user)
  string(TOUPPER ${part} PART)
  configure_file(${PACKAGING}/debian/${part}.conffiles ${PACKAGING_OUT}/debian/${part}/conffiles
    COPYONLY)
  list(APPEND CPACK_DEBIAN_${PART}_PACKAGE_CONTROL_EXTRA ${PACKAGING_OUT}/debian/${part}/conffiles)
endforeach()

# ---- RPM ------------------------------------------------------------------------------------

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_MAIN_COMPONENT tellbox)
set(CPACK_RPM_PACKAGE_LICENSE Unspecified)
set(CPACK_RPM_PACKAGE_GROUP System/Base)
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_COMPRESSION_TYPE xz)
set(CPACK_RPM_TELLBOX_USER_FILELIST "%config(noreplace) /etc/tellbox/tellbox.conf")
set(CPACK_RPM_TELLBOX-USER_USER_FILELIST "%config(noreplace) /etc/profile.d/tellbox.sh"
  "%config(noreplace) /etc/xdg/autostart/tellbox-agent.desktop")
set(CPACK_RPM_TELLBOX-USER_PRE_UNINSTALL_SCRIPT_FILE ${PACKAGING}/rpm/tellbox-user.preun)
set(CPACK_RPM_TELLBOX-DESKTOP_PACKAGE_REQUIRES tellbox-user)
# Folders that every system has, or that belong to other packages.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /etc /etc/profile.d /etc/xdg /etc/xdg/autostart /usr/local /usr/local/bin /usr/local/lib
  /usr/local/lib/systemd /usr/local/lib/systemd/user /usr/local/share
  /usr/local/share/bash-completion /usr/local/share/bash-completion/completions
  /usr/local/share/doc /usr/local/share/locale /usr/local/share/fish /usr/local/share/fish/vendor_completions.d
  /usr/local/share/man /usr/local/share/man/man1 /usr/local/share/zsh
  /usr/local/share/zsh/site-functions /usr/share /usr/share/fish
  /usr/share/fish/vendor_completions.d /usr/share/fish/vendor_conf.d)
foreach(language IN LISTS languages)
  list(APPEND CPACK_RPM_TELLBOX-USER_USER_FILELIST
    "%lang(${language}) /usr/local/share/locale/${language}/LC_MESSAGES/tellbox-user.mo"
    "%lang(${language}) /usr/local/share/man/${language}/man1/tellbox.1")
  list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/local/share/locale/${language} /usr/local/share/locale/${language}/LC_MESSAGES
    /usr/local/share/man/${language} /usr/local/share/man/${language}/man1)
endforeach()
# CPack knows no weak dependency but "Suggests".
set(CPACK_RPM_SPEC_MORE_DEFINE
  "%define _buildhost localhost
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define __os_install_post %{nil}
%define _build_id_links none
%if \"%{name}\" == \"tellbox\"
Recommends: tellbox-user, sudo, less
%endif
%if \"%{name}\" == \"tellbox-user\"
Recommends: less
Suggests: tellbox-desktop
%endif")

include(CPack)
