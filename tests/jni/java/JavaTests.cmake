# Finds the JVMs to test with, and adds tests that run on one of them.

# vex_find_jvms(<variable>): the JVMs of Java 17 or newer below /usr/lib/jvm, and that of the JDK that builds the jars,
# each as <version>:<java program>.
function(vex_find_jvms variable)
  file(GLOB candidates CONFIGURE_DEPENDS /usr/lib/jvm/*/bin/java)
  list(APPEND candidates ${Java_JAVA_EXECUTABLE})
  set(programs)
  foreach(candidate IN LISTS candidates)
    file(REAL_PATH ${candidate} program)
    list(APPEND programs ${program})
  endforeach()
  list(REMOVE_DUPLICATES programs)
  set(found)
  foreach(program IN LISTS programs)
    execute_process(COMMAND ${program} -XshowSettings:properties -version
                    OUTPUT_QUIET ERROR_VARIABLE settings RESULT_VARIABLE failed)
    string(REGEX MATCH "java\\.specification\\.version = ([0-9]+)\n" line "${settings}")
    if(failed OR NOT line OR CMAKE_MATCH_1 LESS 17)
      message(STATUS "Java tests: not on ${program} (older than Java 17, or it does not start)")
    else()
      message(STATUS "Java tests: on Java ${CMAKE_MATCH_1}, ${program}")
      list(APPEND found ${CMAKE_MATCH_1}:${program})
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "No JVM of Java 17 or newer was found to run the Java tests on")
  endif()
  set(${variable} ${found} PARENT_SCOPE)
endfunction()

# vex_java_test(<name> <java> [SOAK_ONLY] [CHECK_JNI <kind>] [STATUS <status>] [LOCALE <locale> | ENCODING <encoding>]
#               [TAG <tag>] <argument of java>...)
#   SOAK_ONLY  ctest runs it only with -C soak
#   CHECK_JNI  the JVM checks every JNI call; the kinds of programs are in run-java
#   STATUS     the exit status that the program has to end with; 0 if not given
#   LOCALE     the locale to run in; C.UTF-8 if not given
#   ENCODING   a locale with this encoding, created for the test
#   TAG        runs the JUnit tests with this tag; without it, the arguments name the program
# Uses the caller's java_preload, java_properties and java_class_path.
function(vex_java_test name java)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "SOAK_ONLY" "CHECK_JNI;STATUS;LOCALE;ENCODING;TAG" "")
  set(command ${CMAKE_CURRENT_SOURCE_DIR}/run-java)
  set(locale C.UTF-8)
  if(ARG_ENCODING)
    list(PREPEND command ${CMAKE_CURRENT_SOURCE_DIR}/with-locale ${ARG_ENCODING})
    set(locale test.${ARG_ENCODING})
  elseif(ARG_LOCALE)
    set(locale ${ARG_LOCALE})
  endif()
  if(ARG_CHECK_JNI)
    list(APPEND command --check-jni=${ARG_CHECK_JNI})
  endif()
  if(DEFINED ARG_STATUS)
    list(APPEND command --status ${ARG_STATUS})
  endif()
  if(ARG_TAG)
    list(APPEND command ${locale} ${ARG_UNPARSED_ARGUMENTS} ${java_properties} -cp ${java_class_path}
      vex.jni.RunTests ${ARG_TAG})
  else()
    list(APPEND command ${locale} ${java_properties} ${ARG_UNPARSED_ARGUMENTS})
  endif()

  set(configurations)
  if(ARG_SOAK_ONLY)
    set(configurations CONFIGURATIONS soak)
  endif()
  set(timeout 600)
  if(ARG_TAG MATCHES "^(random-texts|third-parties|names)$")
    set(timeout 14400)  # a soak runs the same tests for hours
  endif()
  # One JVM keeps two processors busy. They would only get both when all other tests have ended, so they start first.
  set(processors 2)
  set(cost 200)
  # These mostly wait: they start one JVM after the other, and the log delays the end of each by up to a second.
  if(name MATCHES "^java\\.(demo|interop|loading|log|platform|tools)")
    set(processors 1)
    set(cost 50)
  endif()
  add_test(NAME ${name} ${configurations} COMMAND ${command})
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${timeout}
    PROCESSORS ${processors}
    COST ${cost}
    ENVIRONMENT "VEX_TEST_JAVA=${java};VEX_TEST_PRELOAD=${java_preload}")
  if(ARG_CHECK_JNI)
    set_tests_properties(${name} PROPERTIES LABELS check-jni)
  endif()
endfunction()
