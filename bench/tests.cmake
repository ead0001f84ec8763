# SPDX-License-Identifier: Apache-2.0
# Writes the test of each subject of PROGRAM to OUT: a small run gives a figure for ours, for the floor and for each peer.
execute_process(COMMAND ${PROGRAM} --benchmark_list_tests OUTPUT_VARIABLE names COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" names "${names}")
list(TRANSFORM names REPLACE "/.*" "")
list(REMOVE_DUPLICATES names)
set(tests "")
foreach(subject ${names})
  set(test "bench: ${subject} gives its figures")
  string(APPEND tests "add_test([=[${test}]=] [=[${SCRIPT}]=] --program [=[${PROGRAM}]=] --quick --only [=[^${subject}/]=]"
                      " --json [=[${FOLDER}/${subject}.json]=])\n"
                      "set_tests_properties([=[${test}]=] PROPERTIES TIMEOUT 120)\n")
endforeach()
file(WRITE ${OUT} "${tests}")
