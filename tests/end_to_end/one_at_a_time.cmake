foreach(test ${end_to_end_tests_TESTS})
  set_tests_properties("${test}" PROPERTIES RESOURCE_LOCK "the master of this machine")
endforeach()
