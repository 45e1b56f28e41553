# Puts the user manual together: one file that needs no other.
#
#   SOURCE    folder with the style sheet and the chapters, in the order of their names
#   VERSION   of the program
#   DATE      of this version
#   OUTPUT    the file to write
#
# In a chapter, a line "<!-- screen NAME -->" stands for the picture in screen-NAME.html.

file(READ ${SOURCE}/style.css style)
file(READ ${SOURCE}/page.html page)
file(GLOB chapters ${SOURCE}/[0-9]*.html)
list(SORT chapters)
set(body "")
foreach(chapter IN LISTS chapters)
  file(READ ${chapter} text)
  string(APPEND body "${text}")
endforeach()
file(GLOB screens ${SOURCE}/screen-*.html)
foreach(screen IN LISTS screens)
  string(REGEX REPLACE ".*/screen-(.*)\\.html$" "\\1" name ${screen})
  file(READ ${screen} picture)
  string(REPLACE "<!-- screen ${name} -->\n" "${picture}" body "${body}")
endforeach()
if(body MATCHES "<!-- screen [^>]*-->")
  message(FATAL_ERROR "There is no picture for ${CMAKE_MATCH_0}")
endif()
foreach(part body style VERSION DATE)
  string(REPLACE "@${part}@" "${${part}}" page "${page}")
endforeach()
file(WRITE "${OUTPUT}" "${page}")
