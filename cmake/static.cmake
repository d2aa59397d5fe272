# kestrun_link_statically(TARGET): links a program of Linux without shared libraries, so that it starts at once and runs
# on every distribution. Where the system's C library has no static form, only the compiler's own libraries are. On
# Windows cmake/mingw-w64.cmake does the same for all programs; the sanitizers need the shared libraries.
include(CheckCXXSourceCompiles)
if(NOT WIN32 AND NOT KESTRUN_SANITIZE)
  set(CMAKE_REQUIRED_LINK_OPTIONS -static)
  check_cxx_source_compiles("#include <string>\nint main() { return std::string().size(); }" KESTRUN_HAS_STATIC_LIBC)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
endif()

function(kestrun_link_statically target)
  if(WIN32 OR KESTRUN_SANITIZE)
    return()
  endif()
  if(KESTRUN_HAS_STATIC_LIBC)
    target_link_options(${target} PRIVATE -static)
  else()
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
