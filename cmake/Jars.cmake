# Finds the jars of Debian packages.
include(UseJava)

# vex_find_jars(<variable> <packages> <jar>...): sets the variable to the files of the jars. If one is missing, the
# error names the packages to install.
function(vex_find_jars variable packages)
  set(found)
  foreach(jar IN LISTS ARGN)
    find_jar(VEX_JAR_${jar} ${jar})
    if(NOT VEX_JAR_${jar})
      message(FATAL_ERROR "${jar}.jar not found; install the packages ${packages}")
    endif()
    list(APPEND found ${VEX_JAR_${jar}})
  endforeach()
  set(${variable} ${found} PARENT_SCOPE)
endfunction()
