# kelvane_add_model(<target> DIRECTORY <model dir> NAME <name> [CLASSIC] [OPTIONS <kelvane options>...])
#
# Converts a model directory at build time and compiles the generated
# <name>.c into <target>, which also gets the directory of <name>.h on its
# include path and links dl_lib::dl_lib. The converter runs with -strict,
# so a file it cannot convert exactly stops the build with its reason;
# CLASSIC converts as kelvane does without options. Every build compares a
# digest of the directory's contents with the last one, and the conversion
# runs again whenever they differ, whatever the files' timestamps say.
#
#   kelvane_add_model(firmware DIRECTORY ${CMAKE_SOURCE_DIR}/model NAME kws)
#   kelvane_add_model(firmware DIRECTORY model_f NAME kws_f OPTIONS -no-quantized)
include_guard(GLOBAL)
set(_kelvane_model_dir "${CMAKE_CURRENT_LIST_DIR}")

function(kelvane_add_model target)
  cmake_parse_arguments(PARSE_ARGV 1 KM "CLASSIC" "DIRECTORY;NAME" "OPTIONS")
  if(NOT KM_DIRECTORY OR NOT KM_NAME)
    message(FATAL_ERROR "kelvane_add_model: DIRECTORY and NAME are required")
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
    COMMAND ${converter} "${model_dir}" "${c_file}" "${h_file}" ${KM_NAME} ${strict} ${KM_OPTIONS}
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
