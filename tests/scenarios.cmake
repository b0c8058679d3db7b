# Scenario tests: every example and every regression (behaviour once broken, most found by
# fuzzing, under scenarios/regressions) runs and passes; every one that declares
# `order_independent: true` also passes under 50 seeded delivery orders; every malformed file is
# refused with exit status 2 and exactly its expected message.
#
# This file is also the script the malformed checks run (cmake -P with VELTA_SIM and
# VELTA_MALFORMED set): a malformed file NAME.yaml sits beside NAME.expected, which holds the one
# message expected on standard error without its leading "FILE:" (so "LINE:COLUMN: text").

if(CMAKE_SCRIPT_MODE_FILE AND DEFINED VELTA_MALFORMED)
  execute_process(COMMAND ${VELTA_SIM} run ${VELTA_MALFORMED}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  get_filename_component(dir ${VELTA_MALFORMED} DIRECTORY)
  get_filename_component(name ${VELTA_MALFORMED} NAME_WE)
  file(READ ${dir}/${name}.expected expected)
  string(STRIP "${expected}" expected)
  string(STRIP "${err}" err)
  if(NOT status EQUAL 2)
    message(FATAL_ERROR "exit status ${status}, expected 2\nstdout:\n${out}\nstderr:\n${err}")
  endif()
  if(NOT err STREQUAL "${VELTA_MALFORMED}:${expected}")
    message(FATAL_ERROR "standard error differs\nexpected: ${VELTA_MALFORMED}:${expected}\nfound:    ${err}")
  endif()
  if(NOT out MATCHES "^0 passed, 0 failed\n$")
    message(FATAL_ERROR "something of the file ran:\n${out}")
  endif()
  return()
endif()

# The runner's tests link its core library.
if(TARGET velta_sim_test)
  target_link_libraries(velta_sim_test PRIVATE VeltaSimCore)
endif()

if(NOT TARGET velta-sim)
  return()
endif()

file(GLOB velta_examples CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.yaml
  ${CMAKE_CURRENT_SOURCE_DIR}/scenarios/regressions/*.yaml)
foreach(example ${velta_examples})
  get_filename_component(velta_scenario ${example} NAME_WE)
  add_test(NAME scenario.${velta_scenario} COMMAND velta-sim run ${example})
  set_tests_properties(scenario.${velta_scenario} PROPERTIES TIMEOUT 60 LABELS scenario)
  file(STRINGS ${example} velta_declared REGEX "^order_independent:[ ]*true")
  if(velta_declared)
    add_test(NAME scenario.shuffled.${velta_scenario} COMMAND velta-sim run --shuffle 50 ${example})
    set_tests_properties(scenario.shuffled.${velta_scenario} PROPERTIES TIMEOUT 120 LABELS scenario)
  endif()
endforeach()

# A seed past the 64-bit range is a wrong command line, not a seed clamped to the largest.
add_test(NAME velta-sim.seed-out-of-range
  COMMAND velta-sim run --seed 18446744073709551616 ${PROJECT_SOURCE_DIR}/examples/aggregation.yaml)
set_tests_properties(velta-sim.seed-out-of-range PROPERTIES LABELS scenario
  PASS_REGULAR_EXPRESSION "--seed: Value 18446744073709551616 is not a seed")

file(GLOB velta_malformed CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/scenarios/malformed/*.yaml)
foreach(malformed ${velta_malformed})
  get_filename_component(velta_scenario ${malformed} NAME_WE)
  add_test(NAME scenario.malformed.${velta_scenario}
    COMMAND ${CMAKE_COMMAND} -DVELTA_SIM=$<TARGET_FILE:velta-sim> -DVELTA_MALFORMED=${malformed}
            -P ${CMAKE_CURRENT_LIST_FILE})
  set_tests_properties(scenario.malformed.${velta_scenario} PROPERTIES TIMEOUT 30 LABELS scenario)
endforeach()
