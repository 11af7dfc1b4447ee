# Tests of the wakeword program (included by CMakeLists.txt).
#
# examples.wakeword_recording_<network>: the network in every form on
# data/recording.wav, scored against data/recording.txt. A detection counts
# for a spoken command of its word when it comes between the word's start and
# half a second after its end (the detector fires once the averaged scores of
# the runs that heard most of the word reach the threshold); any other
# detection is a false alarm. Allowed per form: the trained network's missed
# commands and false alarms with one to spare. The fixed-point forms' exact
# lines are what kws_firmware.matches_host checks on the device.
set(recording_cases "cnn|6|5" "lstm|9|2")
foreach(case IN LISTS recording_cases)
  string(REPLACE "|" ";" case "${case}")
  list(GET case 0 network)
  list(GET case 1 misses)
  list(GET case 2 false_alarms)
  add_test(NAME examples.wakeword_recording_${network}
           COMMAND wakeword --network ${network} --check ${kws_dir}/data/recording.txt --max-misses ${misses}
                   --max-false-alarms ${false_alarms} ${kws_dir}/data/recording.wav)
endforeach()

# Refused inputs: one file wrong in one way each (data/refused/make_refused.py),
# status 1 and a message that says what is wrong.
set(refusals
    "rate8000.wav|sample rate 8000 Hz, not 16000 Hz"
    "stereo.wav|2 channels, not 1"
    "bits8.wav|samples are not 16-bit PCM"
    "float32.wav|samples are not 16-bit PCM"
    "missing.wav|missing.wav: ")
foreach(case IN LISTS refusals)
  string(REPLACE "|" ";" case "${case}")
  list(GET case 0 file)
  list(GET case 1 message)
  get_filename_component(name ${file} NAME_WE)
  add_test(NAME examples.wakeword_refuses_${name}
           COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:wakeword> -DFILE=${kws_dir}/data/refused/${file}
                   "-DMESSAGE=${message}" -P ${kws_dir}/expect_refusal.cmake)
endforeach()

# The device program built for the host runs to its end.
if(NOT DL_LIB_HOST_KWS_FIRMWARE)
  add_test(NAME kws_firmware.runs COMMAND kws_firmware)
endif()
