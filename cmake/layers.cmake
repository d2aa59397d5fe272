# kestrun_layer(NAME DEPENDS layer...): one library a folder of src.
#
# A layer sees its own headers and those of the layers that it depends on, as "folder/file.h", and no others: the
# include path of each layer holds a link to its own folder alone. A header that points upward does not compile.
function(kestrun_layer name)
  cmake_parse_arguments(LAYER "" "" "DEPENDS;SOURCES" ${ARGN})
  set(sources ${LAYER_SOURCES})
  if(NOT sources)
    file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cc")
  endif()
  if(NOT sources)
    file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/empty.cc" "")
    set(sources "${CMAKE_CURRENT_BINARY_DIR}/empty.cc")
  endif()
  set(headers "${CMAKE_BINARY_DIR}/layers/${name}")
  file(MAKE_DIRECTORY "${headers}")
  file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}" "${headers}/${name}" SYMBOLIC)
  add_library(kestrun_${name} STATIC ${sources})
  target_include_directories(kestrun_${name} PUBLIC "${headers}")
  foreach(dependency ${LAYER_DEPENDS})
    target_link_libraries(kestrun_${name} PUBLIC kestrun_${dependency})
  endforeach()
  target_link_libraries(kestrun_${name} PRIVATE kestrun_warnings)
  kestrun_precompile(kestrun_${name} kestrun_platform <algorithm> <atomic> <cerrno> <cstdio> <cstring> <map> <memory>
                     <mutex> <string> <utility> <vector>)
endfunction()
