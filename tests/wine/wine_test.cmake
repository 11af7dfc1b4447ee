# What a new user does with a model of their own (examples/wine/): train and export it in
# Python, calibrate its shifts, install dl_lib, and build firmware-like code
# against the installed package; the three number formats must agree with
# PyTorch (the consumer's bounds).
# cmake -DPYTHON=... -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... [-DFLAGS=...] -P wine_test.cmake
cmake_minimum_required(VERSION 3.21)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  message("${out}")
  if(status)
    message(FATAL_ERROR "failed: ${ARGN}")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
set(data "${WORK_DIR}/data")
file(MAKE_DIRECTORY "${data}")
run(${CMAKE_COMMAND} -E env "PYTHONDONTWRITEBYTECODE=1" "${PYTHON}" "${SOURCE_DIR}/examples/wine/make_model.py" "${data}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/wine/consumer" -B "${WORK_DIR}/consumer"
    -DCMAKE_PREFIX_PATH=${prefix} -DWINE_DIR=${data}
    # A sanitizer build's library needs the same flags in the consumer.
    "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
run("${WORK_DIR}/consumer/wine" "${data}")
