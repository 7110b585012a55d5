# Settings of both shipped libraries: hardened links, an export list, never unloaded.
#
# vex_shared_library(<target> EXPORTS <version script> [EXACT_LIBRARIES <item>...])
#   EXACT_LIBRARIES  the NEEDED entries, in this order, instead of those that the compiler driver adds. Ignored for
#                    sanitizers and coverage, because the driver has to add their run-time libraries.
function(vex_shared_library target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "EXPORTS" "EXACT_LIBRARIES")
  if(VEX_COVERAGE)
    # See tests/support/ToolkitCoverage.cpp and BridgeCoverage.cpp.
    file(READ ${ARG_EXPORTS} exports)
    string(REPLACE "global:" "global:\n    VexTestDump*Coverage;" exports "${exports}")
    set(ARG_EXPORTS ${CMAKE_CURRENT_BINARY_DIR}/exports-coverage.map)
    file(CONFIGURE OUTPUT ${ARG_EXPORTS} CONTENT "${exports}" @ONLY)
  endif()
  target_compile_options(${target} PRIVATE -fvisibility-inlines-hidden)
  target_link_options(${target} PRIVATE
    ${VEX_HARDENED_LINK} -Wl,-z,nodelete -Wl,--version-script=${ARG_EXPORTS})
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${ARG_EXPORTS} BUILD_WITH_INSTALL_RPATH ON)
  if(NOT VEX_SANITIZE AND NOT VEX_COVERAGE)
    target_link_options(${target} PRIVATE -Wl,-z,defs)
    if(ARG_EXACT_LIBRARIES)
      target_link_options(${target} PRIVATE -nodefaultlibs -Wl,--no-as-needed)
      target_link_libraries(${target} PRIVATE ${ARG_EXACT_LIBRARIES})
    endif()
  endif()
endfunction()
