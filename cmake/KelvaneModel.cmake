# kelvane_add_model(<target> DIRECTORY <model dir> NAME <name> [OPTIONS <kelvane options>...])
#
# Converts a model directory at build time and compiles the generated
# <name>.c into <target>, which also gets the directory of <name>.h on its
# include path and links dl_lib::dl_lib. The conversion runs again when a
# file of the directory changes, or when one is added or removed.
#
#   kelvane_add_model(firmware DIRECTORY ${CMAKE_SOURCE_DIR}/model NAME kws)
#   kelvane_add_model(firmware DIRECTORY model_f NAME kws_f OPTIONS -no-quantized)
include_guard(GLOBAL)

function(kelvane_add_model target)
  cmake_parse_arguments(PARSE_ARGV 1 KM "" "DIRECTORY;NAME" "OPTIONS")
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
  file(GLOB model_files CONFIGURE_DEPENDS "${model_dir}/*")
  set(out_dir "${CMAKE_CURRENT_BINARY_DIR}/kelvane/${target}/${KM_NAME}")
  set(c_file "${out_dir}/${KM_NAME}.c")
  set(h_file "${out_dir}/${KM_NAME}.h")
  # The listing changes (and so is rewritten) only when entries come or go;
  # depending on it converts again after a file is removed.
  set(listing "${out_dir}/model_files.txt")
  string(REPLACE ";" "\n" listing_text "${model_files}")
  file(CONFIGURE OUTPUT "${listing}" CONTENT "${listing_text}\n" @ONLY)
  add_custom_command(
    OUTPUT "${c_file}" "${h_file}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${out_dir}"
    COMMAND ${converter} "${model_dir}" "${c_file}" "${h_file}" ${KM_NAME} ${KM_OPTIONS}
    DEPENDS ${converter} ${model_files} "${listing}"
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
