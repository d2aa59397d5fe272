# What most files include is parsed once a build and not once a file, which takes a quarter off a build that starts
# from nothing. ccache takes more off all later ones, and can't do it with this; so this is for where there is none.
# Each file includes what it uses all the same: linux-debug and linux-release do without this, and would tell.
option(KESTRUN_PRECOMPILE "Parse what most files include once" OFF)

# kestrun_precompile(TARGET FROM header...): TARGET shares what is precompiled for FROM, which itself has these headers.
function(kestrun_precompile target from)
  if(NOT KESTRUN_PRECOMPILE OR KESTRUN_CCACHE)
    return()
  endif()
  if(target STREQUAL from)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  else()
    target_precompile_headers(${target} REUSE_FROM ${from})
  endif()
endfunction()
