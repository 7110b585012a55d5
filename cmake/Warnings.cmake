# Link to vex_warnings PRIVATE, so that users of our targets do not get our warning flags.
add_library(vex_warnings INTERFACE)
target_compile_options(vex_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
  -Wformat=2 -Wundef -Werror)
