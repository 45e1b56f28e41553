# Part of the installation: makes the folders that are missing, for everybody to read. CMake would
# make them as private as the mask of whoever installs says.
#
#   TELLBOX_FOLDERS   list of folders below the prefix

function(make_folders root path)
  string(REPLACE "/" ";" names "${path}")
  foreach(name IN LISTS names)
    string(APPEND root "/${name}")
    if(NOT IS_DIRECTORY "${root}")
      file(MAKE_DIRECTORY "${root}")
      file(CHMOD "${root}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
        GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    endif()
  endforeach()
endfunction()

foreach(path IN LISTS TELLBOX_FOLDERS)
  string(REGEX REPLACE "^/" "" prefix "${CMAKE_INSTALL_PREFIX}")
  make_folders("$ENV{DESTDIR}" "${prefix}/${path}")
endforeach()
