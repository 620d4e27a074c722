# PROGRAM prints what is in EXPECTED.

execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
file(READ ${EXPECTED} expected)
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "shown:\n${expected}\nprinted:\n${output}")
endif()
