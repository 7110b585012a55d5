# Two builds of the same sources, with the same tools, give the same files: in any directory and on any day.
# scripts/reproducible compares them.
#
#   VEX_DATE_EPOCH   the date of what is built, in seconds since 1970: SOURCE_DATE_EPOCH when cmake configures, else the
#                    date of the newest entry in packaging/changelog
#   VEX_JAR_DATE     the option of jar that gives all entries this date

# Debug information and __FILE__ name files relative to the project. The last option that matches counts, and the build
# may be inside the sources. With link-time optimisation the linker's step writes debug information, too.
if(NOT VEX_SANITIZE AND NOT VEX_COVERAGE)
  set(maps -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
  add_compile_options(${maps})
  add_link_options(${maps})
endif()

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(VEX_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
else()
  set(changelog ${PROJECT_SOURCE_DIR}/packaging/changelog)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
  file(STRINGS ${changelog} newest REGEX "^ -- .*>  " LIMIT_COUNT 1)
  string(REGEX REPLACE "^ -- .*>  " "" newest "${newest}")
  execute_process(COMMAND date --date=${newest} +%s
    OUTPUT_VARIABLE VEX_DATE_EPOCH OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  # string(TIMESTAMP) reads it.
  set(ENV{SOURCE_DATE_EPOCH} ${VEX_DATE_EPOCH})
endif()
string(TIMESTAMP date "%Y-%m-%dT%H:%M:%SZ" UTC)
set(VEX_JAR_DATE --date=${date})
