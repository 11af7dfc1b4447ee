# cmake -DPROGRAM=<wakeword> -DFILE=<wav> -DMESSAGE=<text> -P expect_refusal.cmake
# Passes when the program ends with status 1 and its standard error holds
# MESSAGE (plain text, not a pattern) and nothing on standard output.
execute_process(COMMAND "${PROGRAM}" "${FILE}" RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(FIND "${err}" "${MESSAGE}" at)
if(NOT status STREQUAL "1" OR at EQUAL -1 OR NOT out STREQUAL "")
  message(FATAL_ERROR "${FILE}: expected status 1 and \"${MESSAGE}\" on stderr; got status ${status}, "
                      "stderr: ${err}stdout: ${out}")
endif()
