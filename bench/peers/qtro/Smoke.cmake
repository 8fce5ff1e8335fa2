# Runs each workload of qtro-bench briefly; fails on the first non-zero exit status.
foreach(run "updates;--seconds;0.5" "latency;--trips;200" "initial;--attributes;2000")
  execute_process(COMMAND ${QTRO_BENCH} ${run} --json
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err
                  TIMEOUT 120)
  message(STATUS "qtro-bench ${run}:\n${out}${err}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "qtro-bench ${run} --json exited with ${status}")
  endif()
endforeach()
