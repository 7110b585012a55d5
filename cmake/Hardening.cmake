# Hardening of all objects: those of the libraries, of the object and static libraries inside them, and of the tools.
# The tests and benchmarks get the same, because they compile the same sources or are compared with them.
# tests/integration/CheckHardening.py looks for it in the files.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_compile_options(-fstack-protector-strong)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  add_compile_options(-fcf-protection=full)
endif()
add_compile_definitions(_GLIBCXX_ASSERTIONS)
# It needs an optimising compiler. A sanitizer checks the same functions itself. Some compilers define a level, which
# would be a redefinition.
if(NOT VEX_SANITIZE)
  set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  add_compile_options($<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
endif()

# For the shipped libraries and programs.
set(VEX_HARDENED_LINK -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
