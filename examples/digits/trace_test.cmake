# cmake -DPROGRAM=<fixed_trace> -DARGS=<its arguments> -DEXPECTED=<committed> -DACTUAL=<output>
#       -P trace_test.cmake
# (PROGRAM may be a list: an emulator and its arguments first, in a cross build.)
#
# Runs fixed_trace and fails unless its output equals the committed file
# byte for byte. With the environment variable KELVANE_UPDATE_GOLDEN=1 the
# committed file is rewritten instead (review its diff, then run the
# exporter's tests, which read it).
execute_process(COMMAND ${PROGRAM} ${ARGS} OUTPUT_FILE "${ACTUAL}" RESULT_VARIABLE status)
if(NOT status STREQUAL "0")
  message(FATAL_ERROR "${PROGRAM}: status ${status}")
endif()
if("$ENV{KELVANE_UPDATE_GOLDEN}" STREQUAL "1")
  file(COPY_FILE "${ACTUAL}" "${EXPECTED}")
  message(STATUS "rewrote ${EXPECTED}")
  return()
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${EXPECTED}" "${ACTUAL}" RESULT_VARIABLE differ)
if(differ)
  message(FATAL_ERROR "the library's fixed-point results differ from ${EXPECTED} (now in ${ACTUAL}); "
                      "if the change is meant, refresh it with KELVANE_UPDATE_GOLDEN=1 and rerun the exporter's tests")
endif()
