# kestrun_start_early(TARGET SOURCE): the kernel enters this static program in SOURCE, ahead of the C library
# (platform/early_start.h). Only where src/platform/linux/early knows the processor; elsewhere nothing is done. The
# sanitizers have to start before anything else, so they go without.
set(KESTRUN_EARLY_START OFF)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64" AND KESTRUN_HAS_STATIC_LIBC
   AND NOT KESTRUN_SANITIZE)
  set(KESTRUN_EARLY_START ON)
endif()

# Code that runs without the C library: no call of it, neither by name nor by what the compiler makes of a loop or of a
# buffer.
set(KESTRUN_EARLY_FLAGS -O2 -fno-builtin -fno-stack-protector -fno-exceptions -fno-asynchronous-unwind-tables
    $<$<CXX_COMPILER_ID:GNU>:-fno-tree-loop-distribute-patterns>)

# Its object files stand side by side in the program, so that they are few pages.
function(kestrun_start_early target source)
  if(NOT KESTRUN_EARLY_START)
    return()
  endif()
  add_library(${target}_early OBJECT "${source}")
  target_compile_options(${target}_early PRIVATE ${KESTRUN_EARLY_FLAGS})
  target_link_libraries(${target}_early PRIVATE kestrun_frontend kestrun_warnings)
  target_link_libraries(${target} PRIVATE ${target}_early kestrun_platform_linux_early)
  target_link_options(${target} PRIVATE -Wl,--require-defined=kestrun_early_entry,-e,kestrun_early_entry)
endfunction()
