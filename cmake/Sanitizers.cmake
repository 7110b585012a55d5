if(VEX_SANITIZE)
  add_compile_options(-fsanitize=${VEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VEX_SANITIZE})
  # This check opens a pipe to inspect memory. When descriptors run out, it reports every object as invalid.
  add_compile_options(-fno-sanitize=vptr)
  # Eight sources compiled as one take a third of the time. The shipped build compiles each source of the product by
  # itself, which shows that it includes what it needs; the debug build does the same for the tests.
  set(CMAKE_UNITY_BUILD ON)
endif()
if(VEX_COVERAGE)
  # Threads share the counters.
  add_compile_options(--coverage -O0 -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
if(VEX_FUZZ)
  # All targets give coverage feedback. Only the fuzz programs get libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
