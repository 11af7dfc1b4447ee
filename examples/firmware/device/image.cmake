# What every firmware image of the examples shares (examples/firmware and
# examples/wakeword/firmware include this file).
include_guard(GLOBAL)

# An image for the board: our start-up code and linker script, semihosting
# system calls from newlib-nano's librdimon, and a link map beside the ELF.
# dl_lib is C++ without exceptions or RTTI and needs nothing of the C++
# runtime, so the link is a C link.
function(firmware_image target)
  set(linker_script ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/mps2_an386.ld)
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/startup.c)
  target_link_options(${target} PRIVATE -T${linker_script} -nostartfiles --specs=nano.specs --specs=rdimon.specs
                      -Wl,-Map=$<TARGET_FILE:${target}>.map)
  set_target_properties(${target} PROPERTIES SUFFIX .elf LINKER_LANGUAGE C LINK_DEPENDS ${linker_script})
endfunction()

# The command that runs target: on QEMU's mps2-an386 for a bare-metal build,
# else through the cross build's emulator (nothing for a native build).
function(firmware_run_command target out_var)
  if(CMAKE_SYSTEM_NAME STREQUAL "Generic")
    set(run qemu-system-arm -M mps2-an386 -cpu cortex-m4 -nographic -monitor none -serial none
            -semihosting-config enable=on,target=native -kernel $<TARGET_FILE:${target}>)
  else()
    set(run ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${target}>)
  endif()
  set(${out_var} "${run}" PARENT_SCOPE)
endfunction()

# Test <name>: target's standard output equals that of host, the same
# program built for the build machine, byte for byte (compare_outputs.cmake).
function(firmware_matches_host name target host timeout)
  firmware_run_command(${target} run)
  add_test(NAME ${name}
           COMMAND ${CMAKE_COMMAND} "-DRUN=${run}" -DHOST=${host} -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/matches_host
                   -DTIMEOUT=${timeout} -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../compare_outputs.cmake)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${timeout})
endfunction()
