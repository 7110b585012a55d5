# Finds the jars of Debian packages, and makes jars that are the same in each build.
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

# vex_dated_jar(<target> <target of add_jar> <main class>): makes java/<target>.jar, the other target's jar with the
# same date in all entries. add_jar cannot pass the date to jar, but an update sets the dates of all entries.
function(vex_dated_jar target from main_class)
  set(jar ${PROJECT_BINARY_DIR}/java/${target}.jar)
  get_target_property(undated ${from} JAR_FILE)
  add_custom_command(OUTPUT ${jar}
    COMMAND ${CMAKE_COMMAND} -E copy ${undated} ${jar}
    COMMAND ${Java_JAR_EXECUTABLE} --update ${VEX_JAR_DATE} --file ${jar} --main-class ${main_class}
    DEPENDS ${from} ${undated}
    COMMENT "Creating Java archive ${target}.jar"
    VERBATIM)
  add_custom_target(${target} ALL DEPENDS ${jar})
  set_target_properties(${target} PROPERTIES JAR_FILE ${jar})
endfunction()
