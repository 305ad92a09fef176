# Writes the ctest file of the per-scenario tests: one test per scenario of
# the radio program (PROGRAM), which passes when the scenario passed in the
# run's report (RESULTS). Run after each build of the program.
execute_process(COMMAND ${PROGRAM} --gtest_list_tests OUTPUT_VARIABLE listing RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} --gtest_list_tests failed")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(text "")
set(suite "")
foreach(line IN LISTS lines)
  if(line MATCHES "^([A-Za-z0-9_]+)\\.$")
    set(suite ${CMAKE_MATCH_1})
  elseif(line MATCHES "^  ([A-Za-z0-9_]+)")
    set(name Radio.${suite}.${CMAKE_MATCH_1})
    string(APPEND text
      "add_test(${name} \"${CMAKE_COMMAND}\" -DRESULTS=${RESULTS} -DSUITE=${suite} "
      "-DSCENARIO=${CMAKE_MATCH_1} -P \"${CHECK}\")\n"
      "set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED radio LABELS radio)\n")
  endif()
endforeach()
file(WRITE ${OUTPUT} "${text}")
