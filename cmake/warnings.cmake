# Warnings are errors in everything that is ours.
add_library(kestrun_warnings INTERFACE)
target_compile_options(kestrun_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
# GCC 12 sees overlapping copies in std::string's operator+ (its bug 105651) where there are none.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(kestrun_warnings INTERFACE -Wno-restrict)
endif()
