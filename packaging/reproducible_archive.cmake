# Run by CPack when the packages are made: writes the outer archive of a .deb anew, in which CPack
# has recorded modes that depend on the mask of whoever runs it.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(package MATCHES "\\.deb$")
    set(members ${CPACK_TEMPORARY_DIRECTORY}-members)
    file(REMOVE_RECURSE ${members})
    file(MAKE_DIRECTORY ${members})
    execute_process(COMMAND ar x ${package} WORKING_DIRECTORY ${members}
      COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${package})
    execute_process(COMMAND ar rcD ${package} debian-binary control.tar.gz data.tar.xz
      WORKING_DIRECTORY ${members} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
