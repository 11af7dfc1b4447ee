# kelvane_add_model(<target> DIRECTORY <model dir> NAME <name>
#                   [FORMAT FIXED|FLOAT|QUANTISED_WEIGHT] [CLASSIC] [NO_RECORD]
#                   [OPTIONS <kelvane options>...])
#
# Converts a model directory at build time and compiles the generated
# <name>.c into <target>, which also gets the directory of <name>.h on its
# include path and links dl_lib::dl_lib. The converter runs with -strict,
# so a file it cannot convert exactly stops the build with its reason;
# CLASSIC converts as kelvane does without options. Every build compares a
# digest of the directory's contents with the last one, and the conversion
# runs again whenever they differ, whatever the files' timestamps say.
#
# The record. A directory written by kelvane_export holds .kelvane_options
# (hidden, so kelvane itself never converts it), which says what converting
# it needs; kelvane_add_model() reads it at configure time, and again
# whenever it changes, and passes:
#   -3d                  for a tensor model (TensorModelWriter)
#   -bnmatrices <names>  the batch-norm variances the exporter wrote
# so a forgotten or misspelt -bnmatrices cannot happen. NO_RECORD ignores it.
#
# FORMAT picks the number format: FIXED (the default) quantises every table,
# FLOAT passes -no-quantized, and QUANTISED_WEIGHT converts to floats but
# quantises the weight tables that the record names (-no-quantized -exclude
# "(...)"), for the layers with fixed-point weights and float data; it needs
# a record of a matrix model. OPTIONS come last on the command line, after
# the record's options and FORMAT's, and kelvane takes the last -bnmatrices
# or -exclude it is given: what OPTIONS say wins.
#
#   kelvane_add_model(firmware DIRECTORY ${CMAKE_SOURCE_DIR}/model NAME kws)
#   kelvane_add_model(firmware DIRECTORY model NAME kws_f FORMAT FLOAT)
#   kelvane_add_model(firmware DIRECTORY cnn NAME cnn_q)          # -3d from the record
#   kelvane_add_model(firmware DIRECTORY other NAME m OPTIONS -no-quantized -bnmatrices bn_var)
include_guard(GLOBAL)
set(_kelvane_model_dir "${CMAKE_CURRENT_LIST_DIR}")

function(kelvane_add_model target)
  cmake_parse_arguments(PARSE_ARGV 1 KM "CLASSIC;NO_RECORD" "DIRECTORY;NAME;FORMAT" "OPTIONS")
  if(NOT KM_DIRECTORY OR NOT KM_NAME)
    message(FATAL_ERROR "kelvane_add_model: DIRECTORY and NAME are required")
  endif()
  if(NOT KM_FORMAT)
    set(KM_FORMAT FIXED)
  endif()
  if(NOT KM_FORMAT MATCHES "^(FIXED|FLOAT|QUANTISED_WEIGHT)$")
    message(FATAL_ERROR "kelvane_add_model: FORMAT ${KM_FORMAT}: give FIXED, FLOAT or QUANTISED_WEIGHT")
  endif()
  if(TARGET kelvane)
    set(converter kelvane)
  elseif(TARGET dl_lib::kelvane)
    set(converter dl_lib::kelvane)
  else()
    message(FATAL_ERROR "kelvane_add_model: no kelvane target; build dl_lib with DL_LIB_BUILD_TOOL")
  endif()
  if(TARGET dl_lib::dl_lib)
    set(library dl_lib::dl_lib)
  else()
    set(library dl_lib)
  endif()

  get_filename_component(model_dir "${KM_DIRECTORY}" ABSOLUTE)
  _kelvane_recorded_options(recorded "${model_dir}" ${KM_FORMAT} ${KM_NO_RECORD})
  set(out_dir "${CMAKE_CURRENT_BINARY_DIR}/kelvane/${target}/${KM_NAME}")
  set(c_file "${out_dir}/${KM_NAME}.c")
  set(h_file "${out_dir}/${KM_NAME}.h")
  set(stamp "${out_dir}/contents.sha256")
  set(strict -strict)
  if(KM_CLASSIC)
    set(strict "")
  endif()
  add_custom_target(${target}_${KM_NAME}_contents
    COMMAND ${CMAKE_COMMAND} -DMODEL_DIR=${model_dir} -DSTAMP=${stamp} -P ${_kelvane_model_dir}/KelvaneModelStamp.cmake
    BYPRODUCTS "${stamp}"
    COMMENT "kelvane: checking the contents of ${KM_DIRECTORY}"
    VERBATIM)
  add_dependencies(${target} ${target}_${KM_NAME}_contents)
  add_custom_command(
    OUTPUT "${c_file}" "${h_file}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${out_dir}"
    COMMAND ${converter} "${model_dir}" "${c_file}" "${h_file}" ${KM_NAME} ${strict} ${recorded} ${KM_OPTIONS}
    DEPENDS ${converter} "${stamp}"
    COMMENT "kelvane: converting ${KM_DIRECTORY} to ${KM_NAME}.c"
    VERBATIM)
  target_sources(${target} PRIVATE "${c_file}" "${h_file}")
  target_include_directories(${target} PRIVATE "${out_dir}")
  target_link_libraries(${target} PRIVATE ${library})
  # The generated text declares "const static" tables and lookups that do
  # not use all their parameters; quiet those two -Wextra warnings for the
  # generated source alone. It also uses two extensions of GCC and Clang that
  # only -Wpedantic objects to: a lookup's address stored in the void *
  # member getter_3d (tensor modes), and an empty table (a shape with a zero
  # entry), which GCC's -Wpedantic even makes an error.
  set_property(SOURCE "${c_file}" TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS
               -Wno-unused-parameter $<$<C_COMPILER_ID:GNU>:-Wno-old-style-declaration> -Wno-pedantic)
endfunction()

# The options that the record of <model_dir> and FORMAT call for, into <out>.
function(_kelvane_recorded_options out model_dir format no_record)
  set(record "${model_dir}/.kelvane_options")
  set(mode "")
  set(bnmatrices "")
  set(weights "")
  if(NOT no_record AND EXISTS "${record}")
    # Configure again when the exporter rewrites the record.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${record}")
    file(STRINGS "${record}" lines REGEX "^[a-z_]+( |$)")
    foreach(line IN LISTS lines)
      string(REGEX MATCH "^([a-z_]+) *(.*)$" _ "${line}")
      separate_arguments(words UNIX_COMMAND "${CMAKE_MATCH_2}")
      if(CMAKE_MATCH_1 STREQUAL "mode")
        set(mode "${words}")
      elseif(CMAKE_MATCH_1 STREQUAL "bnmatrices")
        set(bnmatrices "${words}")
      elseif(CMAKE_MATCH_1 STREQUAL "quantised_weights")
        set(weights "${words}")
      endif()
    endforeach()
    if(NOT mode MATCHES "^(matrices|tensors)$")
      message(FATAL_ERROR "kelvane_add_model: ${record} names no mode (matrices or tensors); "
                          "export the directory again with kelvane_export")
    endif()
  elseif(NOT no_record AND IS_DIRECTORY "${model_dir}")
    # An export may add a record later; it replaces the directory, whose
    # time then changes.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${model_dir}")
  endif()
  set(options "")
  if(mode STREQUAL "tensors")
    list(APPEND options -3d)
  elseif(bnmatrices)
    list(APPEND options -bnmatrices "${bnmatrices}")
  endif()
  if(format STREQUAL "FLOAT")
    list(APPEND options -no-quantized)
  elseif(format STREQUAL "QUANTISED_WEIGHT")
    if(NOT mode STREQUAL "matrices")
      message(FATAL_ERROR "kelvane_add_model: FORMAT QUANTISED_WEIGHT needs the record .kelvane_options "
                          "of a matrix model in ${model_dir}, which names the weight tables; "
                          "without one, pass OPTIONS -no-quantized -exclude \"(weight1,weight2)\"")
    endif()
    list(APPEND options -no-quantized)
    if(weights)
      list(JOIN weights "," excluded)
      list(APPEND options -exclude "(${excluded})")
    endif()
  endif()
  set(${out} "${options}" PARENT_SCOPE)
endfunction()
