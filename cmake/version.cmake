# kestrun_version_note(TARGET): puts the project's version into a program, where GetFileVersionInfoA finds it: a
# version resource on Windows, a note of the ELF file elsewhere.
function(kestrun_version_note target)
  set(KESTRUN_VERSION_TARGET ${target})
  if(WIN32)
    set(template version.rc.in)
    set(file "${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc")
  else()
    set(template version_note.cc.in)
    set(file "${CMAKE_CURRENT_BINARY_DIR}/${target}_version.cc")
  endif()
  configure_file("${CMAKE_SOURCE_DIR}/cmake/${template}" "${file}" @ONLY)
  target_sources(${target} PRIVATE "${file}")
endfunction()
