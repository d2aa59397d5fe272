if(KESTRUN_SANITIZE)
  add_compile_options(-fsanitize=${KESTRUN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  # A report needs lines and frames, not more; with -O2 the instrumented tests compile four times as long.
  add_compile_options(-O1 -g1)
  add_link_options(-fsanitize=${KESTRUN_SANITIZE})
  # The instrumentation hides from GCC what is initialised, and std::regex warns.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
