# The exporter's tests, run with Debian's Python where PyTorch is installed
# (.ci/run installs python3-torch); elsewhere they are left out with a note.
set(DL_LIB_PYTHON "/usr/bin/python3" CACHE FILEPATH "Python with numpy and torch, for the exporter's tests")
if(NOT CMAKE_CROSSCOMPILING AND EXISTS "${DL_LIB_PYTHON}")
  execute_process(COMMAND "${DL_LIB_PYTHON}" -c "import numpy, torch"
                  RESULT_VARIABLE dl_lib_python_status OUTPUT_QUIET ERROR_QUIET)
  if(dl_lib_python_status EQUAL 0)
    add_test(NAME python.exporter
             COMMAND "${DL_LIB_PYTHON}" -B -m unittest discover -s tests -t tests
             WORKING_DIRECTORY "${CMAKE_CURRENT_LIST_DIR}")
    # pip install ./python into a scratch virtual environment, then the import.
    add_test(NAME python.exporter_install
             COMMAND "${DL_LIB_PYTHON}" -B -m unittest install_test
             WORKING_DIRECTORY "${CMAKE_CURRENT_LIST_DIR}/tests")
  else()
    message(STATUS "Exporter tests skipped: ${DL_LIB_PYTHON} cannot import numpy and torch")
  endif()
endif()

# kelvane_add_model() converts a directory as its record .kelvane_options
# says: fixtures written by tests/record/make_model.py, converted in each
# format with no options but FORMAT, and checked by record.c.
if(TARGET kelvane)
  set(record_dir "${CMAKE_CURRENT_LIST_DIR}/tests/record")
  c_test(python.exporter_record exporter_record_test "${record_dir}/record.c" 99 OFF -Wextra)
  target_include_directories(exporter_record_test PRIVATE "${PROJECT_SOURCE_DIR}/tests")  # check.h
  kelvane_add_model(exporter_record_test DIRECTORY "${record_dir}/model" NAME rec_q)
  kelvane_add_model(exporter_record_test DIRECTORY "${record_dir}/model" NAME rec_f FORMAT FLOAT)
  kelvane_add_model(exporter_record_test DIRECTORY "${record_dir}/model" NAME rec_qw FORMAT QUANTISED_WEIGHT)
  kelvane_add_model(exporter_record_test DIRECTORY "${record_dir}/model" NAME rec_raw FORMAT FLOAT NO_RECORD)
  kelvane_add_model(exporter_record_test DIRECTORY "${record_dir}/cnn" NAME rec_cnn)
endif()
