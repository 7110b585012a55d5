# Copies an artifact's files into a Maven repository and writes their checksums. The caller defines POM, JAR,
# BUNDLED_JAR (may be empty), SOURCES_JAR, JAVADOC_JAR, NAME (what the files' names begin with) and DIRECTORY (the
# artifact's).
foreach(file IN ITEMS POM:.pom JAR:.jar BUNDLED_JAR:-bundled.jar SOURCES_JAR:-sources.jar JAVADOC_JAR:-javadoc.jar)
  string(REGEX MATCH "(.*):(.*)" file ${file})
  if(NOT ${CMAKE_MATCH_1})
    continue()
  endif()
  set(copy ${DIRECTORY}/${NAME}${CMAKE_MATCH_2})
  configure_file(${${CMAKE_MATCH_1}} ${copy} COPYONLY)
  foreach(algorithm IN ITEMS md5 sha1 sha256)
    string(TOUPPER ${algorithm} function)
    file(${function} ${copy} checksum)
    file(WRITE ${copy}.${algorithm} ${checksum})
  endforeach()
endforeach()
