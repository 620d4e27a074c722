# Fails where rows of the layouts in KEPT do not become rows of those in DEFINITION as well as ALLOWED
# says: 0 same, 1 lossless, 2 lossy. KORVO is the tool. Run by korvo_check_layouts().

execute_process(COMMAND "${KORVO}" layout diff "${KEPT}" "${DEFINITION}"
                OUTPUT_VARIABLE output ERROR_VARIABLE error RESULT_VARIABLE status)
if(NOT status MATCHES "^[0-3]$")
  message(FATAL_ERROR "${error}${status}")
endif()
if(status GREATER ALLOWED)
  message(FATAL_ERROR "the layouts do not agree with those that are kept:\n${output}"
                      "If that is meant: korvo layout print --named ${DEFINITION} >${KEPT}")
endif()
