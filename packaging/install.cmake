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

add_executable(tbx-man-page packaging/man_page.cpp)
target_link_libraries(tbx-man-page PRIVATE tellbox_tbx)
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

# ---- Installing and uninstalling ------------------------------------------------------------

install(SCRIPT packaging/folders.cmake)
install(TARGETS tbx RUNTIME DESTINATION bin)
install(FILES "${PACKAGING_OUT}/User Manual.html" DESTINATION share/doc/tellbox)
install(FILES ${PACKAGING_OUT}/tbx.1 DESTINATION share/man/man1)
install(FILES packaging/completions/tbx.bash RENAME tbx
  DESTINATION share/bash-completion/completions)
install(FILES packaging/completions/_tbx DESTINATION share/zsh/site-functions)
install(FILES packaging/completions/tbx.fish DESTINATION share/fish/vendor_completions.d)
install(CODE "set(TELLBOX_CONFIGURATION \"${PACKAGING}/tellbox.conf\")")
install(SCRIPT packaging/outside_prefix.cmake)

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D MANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt
          -D TELLBOX_CONFIGURATION=${PACKAGING}/tellbox.conf -P ${PACKAGING}/uninstall.cmake
  COMMENT "Uninstalling" VERBATIM)

include(packaging/packages.cmake)
