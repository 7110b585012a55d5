# Link to vex_warnings PRIVATE: warnings are ours to fix, never a consumer's.
add_library(vex_warnings INTERFACE)
target_compile_options(vex_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
  -Wformat=2 -Wundef -Werror)
