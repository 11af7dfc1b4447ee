# cmake -DRUN=<command;args> -DHOST=<program> -DWORK_DIR=<dir> -DTIMEOUT=<s> -P compare_outputs.cmake
#
# Runs the firmware (RUN: under QEMU, or any other runner) and the same
# program built for the host, and fails unless both end with status 0 and
# their standard outputs are identical, byte for byte. Both outputs and the
# firmware's standard error (its cost lines) are kept in WORK_DIR.
file(MAKE_DIRECTORY "${WORK_DIR}")

execute_process(COMMAND ${RUN} OUTPUT_FILE "${WORK_DIR}/device.out" ERROR_FILE "${WORK_DIR}/device.err"
                RESULT_VARIABLE device_status TIMEOUT ${TIMEOUT})
execute_process(COMMAND "${HOST}" OUTPUT_FILE "${WORK_DIR}/host.out" RESULT_VARIABLE host_status)

file(READ "${WORK_DIR}/device.err" device_err)
if(NOT device_status STREQUAL "0")
  message(FATAL_ERROR "firmware: status ${device_status}\n${device_err}")
endif()
if(NOT host_status STREQUAL "0")
  message(FATAL_ERROR "${HOST}: status ${host_status}")
endif()

file(STRINGS "${WORK_DIR}/device.out" device_lines)
file(STRINGS "${WORK_DIR}/host.out" host_lines)
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${WORK_DIR}/device.out" "${WORK_DIR}/host.out"
                RESULT_VARIABLE differ)
if(differ)
  # Name the first line that differs; the whole files stay in WORK_DIR.
  list(LENGTH device_lines n_device)
  list(LENGTH host_lines n_host)
  set(line 0)
  while(line LESS n_device AND line LESS n_host)
    list(GET device_lines ${line} d)
    list(GET host_lines ${line} h)
    if(NOT d STREQUAL h)
      break()
    endif()
    math(EXPR line "${line} + 1")
  endwhile()
  foreach(side device host)
    if(line LESS n_${side})
      list(GET ${side}_lines ${line} ${side}_line)
    else()
      set(${side}_line "(end of output)")
    endif()
  endforeach()
  math(EXPR shown "${line} + 1")
  message(FATAL_ERROR "firmware and host differ at line ${shown} (device ${n_device} lines, host ${n_host}):\n"
                      "  device: ${device_line}\n  host:   ${host_line}\nsee ${WORK_DIR}/device.out and host.out")
endif()
list(LENGTH device_lines n)
message(STATUS "firmware and host agree on all ${n} lines")
