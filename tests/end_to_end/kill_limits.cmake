# Tests with many kills take minutes on a slow machine.
foreach(test ${end_to_end_tests_TESTS})
  if(test MATCHES "^(RandomKills|KillMatrix|TransparentKillMatrix)")
    set_tests_properties("${test}" PROPERTIES TIMEOUT 900)
  endif()
endforeach()
