# The warnings that every target of ours is built with; all of them are errors.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic   # the usual ground
  -Werror                    # a warning that may stay is soon not read
  -Wshadow                   # a hidden name is a misread name
  -Wconversion               # sizes and byte counts change width only on purpose
  -Wsign-conversion          # the contract mixes signed and unsigned words
  -Wold-style-cast           # casts say what they do
  -Wcast-align               # the target is a 32-bit ARM
  -Wnon-virtual-dtor         # objects are deleted through their interfaces
  -Woverloaded-virtual       # slots are overridden, not hidden
  -Wnull-dereference         # children and pipes may be missing
  -Wformat=2                 # command lines are formatted
  -Wundef                    # a misspelt macro is not silently 0
  # GoogleTest's macros are called without their optional last argument.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
)
