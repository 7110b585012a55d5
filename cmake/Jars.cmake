# Jars of Debian packages.
include(UseJava)

# vex_find_jars(<variable> <packages> <jar>...): the files of the jars, without whose packages there is no build.
function(vex_find_jars variable packages)
  set(found)
  foreach(jar IN LISTS ARGN)
    find_jar(VEX_JAR_${jar} ${jar})
    if(NOT VEX_JAR_${jar})
      message(FATAL_ERROR "${jar}.jar not found; needed are the packages ${packages}")
    endif()
    list(APPEND found ${VEX_JAR_${jar}})
  endforeach()
  set(${variable} ${found} PARENT_SCOPE)
endfunction()
