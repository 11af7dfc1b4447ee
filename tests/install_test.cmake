# Installs the build tree into a scratch prefix, then configures, builds and
# runs tests/install_consumer against it, as another project would; then
# changes the model as users do and builds again:
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
set(model "${WORK_DIR}/model")
file(COPY "${SOURCE_DIR}/tests/data/fetch_model_noinfo/" DESTINATION "${model}")
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install_consumer" -B "${WORK_DIR}/consumer"
    -DCMAKE_PREFIX_PATH=${prefix} -DMODEL_DIR=${model}
    # A sanitizer build's library needs the same flags in the consumer.
    "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
run("${WORK_DIR}/consumer/consumer")

# A table replaced by another whose timestamp is older (cp -p, an unpacked
# archive) is converted again: w[1][0] is now 3, which the consumer reports
# and refuses.
file(COPY_FILE "${SOURCE_DIR}/tests/cli/bad_files/model/good.npy" "${model}/w.npy")
run(touch -d @946684800 "${model}/w.npy")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
execute_process(COMMAND "${WORK_DIR}/consumer/consumer" RESULT_VARIABLE status OUTPUT_VARIABLE out)
if(NOT status EQUAL 1 OR NOT out MATCHES "w\\[1\\]\\[0\\] = 3\\.0")
  message(FATAL_ERROR "the older table was not converted again: ${status} ${out}")
endif()

# A name with ';' reaches the converter, which refuses it in strict mode,
# instead of breaking the build's rules.
file(COPY_FILE "${SOURCE_DIR}/tests/cli/bad_files/model/good.npy" "${model}/a;b.npy")
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}/consumer" RESULT_VARIABLE status OUTPUT_VARIABLE out
                ERROR_VARIABLE out)
if(NOT status OR NOT out MATCHES "ERROR: a;b.npy: its name a;b is not a C identifier")
  message(FATAL_ERROR "a name with ';' did not reach the converter: ${out}")
endif()
