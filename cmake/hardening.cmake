# The release programs check buffers and stack frames at run time where the compiler can, and relocate nothing once they
# run. kestrun stays at fixed addresses: relocating itself would be a part of each invocation that can be measured.
if(NOT WIN32)
  # Some distributions' compilers set a level of their own, which would be a warning.
  add_compile_options($<$<CONFIG:Release>:-fstack-protector-strong> $<$<CONFIG:Release>:-U_FORTIFY_SOURCE>
                      $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
  add_link_options($<$<CONFIG:Release>:-Wl,-z,relro,-z,now,-z,noexecstack>)
endif()

# What is built for packages is the same in whichever folder, at whichever time.
option(KESTRUN_REPRODUCIBLE "Keep the folder and the time of the build out of the programs" OFF)
if(KESTRUN_REPRODUCIBLE)
  add_compile_options("-ffile-prefix-map=${CMAKE_BINARY_DIR}=build" "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
  if(WIN32)
    add_link_options(-Wl,--no-insert-timestamp)
  endif()
endif()
