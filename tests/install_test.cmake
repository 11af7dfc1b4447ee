# Installs the build tree into a scratch prefix, then configures, builds and
# runs tests/install_consumer against it, as another project would:
# cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -P install_test.cmake
cmake_minimum_required(VERSION 3.21)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(status)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
foreach(f include/dl_lib.h include/dl_lib_coefgetter_if.h bin/kelvane bin/kelvane-report)
  if(NOT EXISTS "${prefix}/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install_consumer" -B "${WORK_DIR}/consumer"
    -DCMAKE_PREFIX_PATH=${prefix} -DMODEL_DIR=${SOURCE_DIR}/tests/data/fetch_model_noinfo
    # A sanitizer build's library needs the same flags in the consumer.
    "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
run("${WORK_DIR}/consumer/consumer")
