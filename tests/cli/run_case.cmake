# Runs one golden case of the kelvane command line and compares its output
# byte for byte: cmake -DKELVANE=<exe> -DREPORT=<exe> -DCASE_DIR=<case> -DWORK_DIR=<scratch> -P run_case.cmake
#
# A case directory holds:
#   program   kelvane-report to run the report instead of kelvane (optional)
#   args      the arguments after the program name, one per line
#   model/    copied to the scratch directory as ./model (optional)
#   before/   files put in the scratch directory first, as outputs of an
#             earlier run (optional)
#   stdout, stderr, status   what the run must print and return
#   out/      <file>.expected for every .c and .h file the run must write in
#             the scratch directory (typically demo.c and demo.h); kept as
#             data, not sources, so no tool takes them for project code
# With the environment variable KELVANE_UPDATE_GOLDEN=1 the run rewrites the
# expectations instead; review the diff before committing it.
cmake_minimum_required(VERSION 3.21)

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
if(EXISTS "${CASE_DIR}/model")
  file(COPY "${CASE_DIR}/model" DESTINATION "${WORK_DIR}")
endif()
if(EXISTS "${CASE_DIR}/before")
  file(COPY "${CASE_DIR}/before/" DESTINATION "${WORK_DIR}")
endif()

set(program "${KELVANE}")
if(EXISTS "${CASE_DIR}/program")
  set(program "${REPORT}")
endif()
file(STRINGS "${CASE_DIR}/args" args ENCODING UTF-8)
execute_process(COMMAND "${program}" ${args}
                WORKING_DIRECTORY "${WORK_DIR}"
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE status)
# The usage text names the program as called; make it independent of the build tree.
string(REPLACE "${KELVANE}" "kelvane" out "${out}")
string(REPLACE "${REPORT}" "kelvane-report" err "${err}")

set(update "$ENV{KELVANE_UPDATE_GOLDEN}")
set(failures "")
macro(check name actual)
  if(update)
    file(WRITE "${CASE_DIR}/${name}" "${actual}")
  else()
    file(READ "${CASE_DIR}/${name}" expected)
    if(NOT "${actual}" STREQUAL "${expected}")
      string(APPEND failures "${name} differs.\n--- expected ---\n${expected}\n--- actual ---\n${actual}\n")
    endif()
  endif()
endmacro()

check(stdout "${out}")
check(stderr "${err}")
check(status "${status}\n")

if(update)
  file(GLOB produced RELATIVE "${WORK_DIR}" "${WORK_DIR}/*.c" "${WORK_DIR}/*.h")
  file(REMOVE_RECURSE "${CASE_DIR}/out")
  foreach(f IN LISTS produced)
    configure_file("${WORK_DIR}/${f}" "${CASE_DIR}/out/${f}.expected" COPYONLY)
  endforeach()
else()
  file(GLOB expected_files RELATIVE "${CASE_DIR}/out" "${CASE_DIR}/out/*.expected")
  list(TRANSFORM expected_files REPLACE "\\.expected$" "")
  # Anything else left in the scratch directory (a temporary file of a
  # failed run, say) is a failure too.
  file(GLOB produced RELATIVE "${WORK_DIR}" "${WORK_DIR}/*" "${WORK_DIR}/.*")
  list(REMOVE_ITEM produced model)
  foreach(f IN LISTS produced)
    if(NOT f IN_LIST expected_files)
      string(APPEND failures "${f} was written, but the case expects no such file.\n")
    endif()
  endforeach()
  foreach(f IN LISTS expected_files)
    if(NOT EXISTS "${WORK_DIR}/${f}")
      string(APPEND failures "${f} was not written.\n")
    else()
      execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${CASE_DIR}/out/${f}.expected" "${WORK_DIR}/${f}"
                      RESULT_VARIABLE differs)
      if(differs)
        file(READ "${WORK_DIR}/${f}" actual)
        string(APPEND failures "${f} differs from out/${f}.expected:\n${actual}\n")
      endif()
    endif()
  endforeach()
endif()

if(failures)
  message(FATAL_ERROR "${failures}")
endif()
