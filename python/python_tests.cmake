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
  else()
    message(STATUS "Exporter tests skipped: ${DL_LIB_PYTHON} cannot import numpy and torch")
  endif()
endif()
