# Runs each workload of qtro-bench briefly: each must end with status 0 and print its
# figures as JSON lines.
foreach(run "updates;--seconds;0.5" "latency;--trips;200" "initial;--attributes;2000")
  list(GET run 0 workload)
  execute_process(COMMAND ${QTRO_BENCH} ${run} --json
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err
                  TIMEOUT 120)
  message(STATUS "qtro-bench ${run} --json:\n${out}${err}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "qtro-bench ${run} --json exited with ${status}")
  endif()
  if(NOT out MATCHES "\"workload\":\"${workload}\"")
    message(FATAL_ERROR "qtro-bench ${run} --json printed no figure")
  endif()
endforeach()
