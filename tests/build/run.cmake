# run(command argument...): runs a command, and ends the test with its output if it fails. Else the
# output is in the variable `output`.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
                  ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()
