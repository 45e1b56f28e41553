# What goes where on a machine, and the packages. The guide's texts name these places.

set(PACKAGING ${CMAKE_CURRENT_SOURCE_DIR}/packaging)
set(PACKAGING_OUT ${CMAKE_CURRENT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${PACKAGING_OUT})

# The date of this version, for the manual page and the files in the packages.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md)
file(READ CHANGELOG.md changelog)
if(NOT changelog MATCHES "\n## ${PROJECT_VERSION} - ([0-9-]+)\n")
  message(FATAL_ERROR "CHANGELOG.md has no dated heading for version ${PROJECT_VERSION}")
endif()
set(RELEASE_DATE ${CMAKE_MATCH_1})

# The names of folders here would else be in what is built, and so in its build identifier.
foreach(target tellbox_common tellbox_tbx tellbox_user tbx tellbox-user)
  target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=/usr/src/tellbox
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=/usr/src/tellbox/build>)
endforeach()

# ---- Made from other files ------------------------------------------------------------------

add_library(roff STATIC packaging/roff.cpp)
target_link_libraries(roff PUBLIC tellbox_common)
target_include_directories(roff PUBLIC packaging)
add_executable(tbx-man-page packaging/man_page.cpp)
target_link_libraries(tbx-man-page PRIVATE tellbox_tbx roff)
add_custom_command(OUTPUT ${PACKAGING_OUT}/tbx.1
  COMMAND tbx-man-page ${RELEASE_DATE} > ${PACKAGING_OUT}/tbx.1
  DEPENDS tbx-man-page # or it would only be built before, and an old page would stay
  COMMENT "Writing the manual page" VERBATIM)

file(GLOB manual_sources CONFIGURE_DEPENDS docs/manual/*.html docs/manual/*.css)
add_custom_command(OUTPUT "${PACKAGING_OUT}/User Manual.html"
  COMMAND ${CMAKE_COMMAND} -D SOURCE=${CMAKE_CURRENT_SOURCE_DIR}/docs/manual
          -D VERSION=${PROJECT_VERSION} -D DATE=${RELEASE_DATE}
          -D "OUTPUT=${PACKAGING_OUT}/User Manual.html" -P ${PACKAGING}/manual.cmake
  DEPENDS ${manual_sources} ${PACKAGING}/manual.cmake
  COMMENT "Putting the user manual together" VERBATIM)

add_custom_target(documentation ALL
  DEPENDS ${PACKAGING_OUT}/tbx.1 "${PACKAGING_OUT}/User Manual.html")

# What stands beside the recipients' program, from its own tables.
add_executable(tellbox-user-files packaging/user_files.cpp)
target_link_libraries(tellbox-user-files PRIVATE tellbox_user roff)
set(USER_FILES ${PACKAGING_OUT}/user)
file(MAKE_DIRECTORY ${USER_FILES})
set(user_files_made)
function(make_user_file file)
  add_custom_command(OUTPUT ${USER_FILES}/${file}
    COMMAND tellbox-user-files ${ARGN} > ${USER_FILES}/${file}
    DEPENDS tellbox-user-files
    COMMENT "Writing ${file}" VERBATIM)
  set(user_files_made ${user_files_made} ${USER_FILES}/${file} PARENT_SCOPE)
endfunction()
make_user_file(tellbox.1 man ${RELEASE_DATE})
make_user_file(tellbox.bash bash)
make_user_file(_tellbox zsh)
make_user_file(tellbox.fish fish)
make_user_file(tellbox.sh profile)
make_user_file(hook.fish fish-hook)

# The words of the recipients' programs in other languages: a catalogue and a manual page for each
# po/LANGUAGE.po. They lie as they are installed, so that the manual page is made with them.
find_program(MSGFMT msgfmt REQUIRED)
set(CATALOGUES ${PACKAGING_OUT}/catalogues)
file(GLOB translations CONFIGURE_DEPENDS po/*.po)
set(languages)
foreach(translation IN LISTS translations)
  get_filename_component(language ${translation} NAME_WE)
  list(APPEND languages ${language})
  set(catalogue ${CATALOGUES}/share/locale/${language}/LC_MESSAGES/tellbox-user.mo)
  set(page ${CATALOGUES}/share/man/${language}/man1/tellbox.1)
  get_filename_component(catalogue_folder ${catalogue} DIRECTORY)
  get_filename_component(page_folder ${page} DIRECTORY)
  file(MAKE_DIRECTORY ${catalogue_folder} ${page_folder})
  add_custom_command(OUTPUT ${catalogue}
    COMMAND ${MSGFMT} --check --output-file=${catalogue} ${translation}
    DEPENDS ${translation}
    COMMENT "Writing the catalogue of ${language}" VERBATIM)
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E env TBX_TEST=1 TBX_LIB=${CATALOGUES}/lib/tellbox LC_ALL=C.UTF-8
            LANGUAGE=${language} $<TARGET_FILE:tellbox-user-files> man ${RELEASE_DATE} > ${page}
    DEPENDS tellbox-user-files ${catalogue}
    COMMENT "Writing the manual page in ${language}" VERBATIM)
  list(APPEND user_files_made ${catalogue} ${page})
endforeach()

add_custom_target(user_files ALL DEPENDS ${user_files_made})

# ---- Installing and uninstalling ------------------------------------------------------------

# Three parts, which are installed together, or each by itself, and are packages of their own:
#   cmake --install TREE [--component tellbox|tellbox-user|tellbox-desktop]
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tellbox)

# Makes the folders below the prefix that are missing, before anything is put into them.
function(install_folders component)
  install(CODE "set(TELLBOX_FOLDERS ${ARGN})" COMPONENT ${component})
  install(SCRIPT packaging/folders.cmake COMPONENT ${component})
endfunction()

install_folders(tellbox bin lib/tellbox share/doc/tellbox share/man/man1
  share/bash-completion/completions share/zsh/site-functions share/fish/vendor_completions.d)
install(TARGETS tbx RUNTIME DESTINATION bin)
install(FILES "${PACKAGING_OUT}/User Manual.html" DESTINATION share/doc/tellbox)
install(FILES ${PACKAGING_OUT}/tbx.1 DESTINATION share/man/man1)
install(FILES packaging/completions/tbx.bash RENAME tbx
  DESTINATION share/bash-completion/completions)
install(FILES packaging/completions/_tbx DESTINATION share/zsh/site-functions)
install(FILES packaging/completions/tbx.fish DESTINATION share/fish/vendor_completions.d)
install(CODE "set(TELLBOX_CONFIGURATION \"${PACKAGING}/tellbox.conf\")")
install(SCRIPT packaging/outside_prefix.cmake)

# The recipients' side.
set(USER_SIDE COMPONENT tellbox-user)
install_folders(tellbox-user bin lib/tellbox lib/systemd/user/graphical-session.target.wants
  share/man/man1 share/bash-completion/completions share/zsh/site-functions)
install(TARGETS tellbox-user RUNTIME DESTINATION lib/tellbox ${USER_SIDE})
install(FILES ${USER_FILES}/tellbox.1 DESTINATION share/man/man1 ${USER_SIDE})
foreach(language IN LISTS languages)
  install_folders(tellbox-user share/locale/${language}/LC_MESSAGES share/man/${language}/man1)
  install(FILES ${CATALOGUES}/share/locale/${language}/LC_MESSAGES/tellbox-user.mo
    DESTINATION share/locale/${language}/LC_MESSAGES ${USER_SIDE})
  install(FILES ${CATALOGUES}/share/man/${language}/man1/tellbox.1
    DESTINATION share/man/${language}/man1 ${USER_SIDE})
endforeach()
install(FILES ${USER_FILES}/tellbox.bash RENAME tellbox
  DESTINATION share/bash-completion/completions ${USER_SIDE})
install(FILES ${USER_FILES}/_tellbox DESTINATION share/zsh/site-functions ${USER_SIDE})
install(FILES packaging/desktop/tellbox-agent.service DESTINATION lib/systemd/user ${USER_SIDE})
install(CODE "set(TELLBOX_USER_FILES \"${USER_FILES}\")" ${USER_SIDE})
install(CODE "set(TELLBOX_AUTOSTART \"${PACKAGING}/desktop/tellbox-agent.desktop\")" ${USER_SIDE})
install(SCRIPT packaging/user_outside_prefix.cmake ${USER_SIDE})

# The window, which alone needs a toolkit.
if(TARGET tellbox-window)
  foreach(target tellbox_window tellbox-window)
    target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:
      -ffile-prefix-map=${CMAKE_SOURCE_DIR}=/usr/src/tellbox
      -ffile-prefix-map=${CMAKE_BINARY_DIR}=/usr/src/tellbox/build>)
  endforeach()
  install_folders(tellbox-desktop lib/tellbox)
  install(TARGETS tellbox-window RUNTIME DESTINATION lib/tellbox COMPONENT tellbox-desktop)
endif()

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D TREE=${CMAKE_BINARY_DIR}
          -D TELLBOX_CONFIGURATION=${PACKAGING}/tellbox.conf -P ${PACKAGING}/uninstall.cmake
  COMMENT "Uninstalling" VERBATIM)

include(packaging/packages.cmake)
