# The packages: `cpack -G DEB` and `cpack -G RPM` in the build folder. Both hold the same files,
# and are the same byte for byte whenever and wherever they are made from the same source.

set(CPACK_GENERATOR DEB RPM)
set(CPACK_PACKAGE_NAME tellbox)
set(CPACK_PACKAGE_VENDOR Tellbox)
set(CPACK_PACKAGE_CONTACT "The Tellbox developers <tellbox@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "Tellbox lets administrators send text messages to the users of the machine\n\
and know who has read them. Messages appear in terminals and on the desktop,\n\
and are asked about until they are confirmed. This package holds tbx, the\n\
administrator's command, and the manual.")
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
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "sudo, less")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PACKAGING}/debian/conffiles ${PACKAGING}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# ---- RPM ------------------------------------------------------------------------------------

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE Unspecified)
set(CPACK_RPM_PACKAGE_GROUP System/Base)
set(CPACK_RPM_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_COMPRESSION_TYPE xz)
set(CPACK_RPM_USER_FILELIST "%config(noreplace) /etc/tellbox/tellbox.conf")
# Folders that every system has, or that belong to other packages.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /etc /usr/local /usr/local/bin /usr/local/lib /usr/local/share /usr/local/share/bash-completion
  /usr/local/share/bash-completion/completions /usr/local/share/doc /usr/local/share/fish
  /usr/local/share/fish/vendor_completions.d /usr/local/share/man /usr/local/share/man/man1
  /usr/local/share/zsh /usr/local/share/zsh/site-functions /usr/share /usr/share/fish
  /usr/share/fish/vendor_completions.d)
set(CPACK_RPM_SPEC_MORE_DEFINE
  "%define _buildhost localhost
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define __os_install_post %{nil}
%define _build_id_links none")

include(CPack)
