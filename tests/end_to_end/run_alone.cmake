# What holds within a span of real time is tested without other tests beside it.
foreach(test ${end_to_end_tests_TESTS})
  if(test MATCHES "AtOnce|EveryByte|CostsNothing|WhenTheMasterIsKilled|LeavesNothingBehind")
    set_tests_properties("${test}" PROPERTIES RUN_SERIAL TRUE)
  endif()
  # As long as so many processes or bytes take: minutes under Wine or a sanitizer.
  if(test MATCHES "^Load|EveryByte")
    set_tests_properties("${test}" PROPERTIES TIMEOUT 600)
  endif()
endforeach()
