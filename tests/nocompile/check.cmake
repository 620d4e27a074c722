# cmake -DCOMPILER=... -DFLAGS=... -DINCLUDE_DIRS=... -DSOURCE=... -P check.cmake

file(STRINGS "${SOURCE}" first_line LIMIT_COUNT 1)
if(NOT first_line MATCHES "^// Refused: (.+)$")
  message(FATAL_ERROR "${SOURCE}: the first line is not '// Refused: TEXT'")
endif()
set(expected "${CMAKE_MATCH_1}")

separate_arguments(command UNIX_COMMAND "${FLAGS}")
list(PREPEND command "${COMPILER}")
foreach(dir IN LISTS INCLUDE_DIRS)
  list(APPEND command "-I${dir}")
endforeach()
list(APPEND command -S -o /dev/null "${SOURCE}")

execute_process(COMMAND ${command} RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${SOURCE} does not compile without the bad line:\n${errors}")
endif()

execute_process(COMMAND ${command} -DBAD_LINE RESULT_VARIABLE result ERROR_VARIABLE errors)
if(result EQUAL 0)
  message(FATAL_ERROR "${SOURCE} compiles with the bad line")
endif()
string(FIND "${errors}" "${expected}" position)
if(position EQUAL -1)
  message(FATAL_ERROR "${SOURCE} is refused with another text than '${expected}':\n${errors}")
endif()

# One mistake is one error, and a person reads all that is said of it; but for a call that fits none
# of a class's constructors, which compilers list.
if(expected MATCHES "^no matching")
  return()
endif()
string(REGEX MATCHALL "error: " count "${errors}")
list(LENGTH count count)
string(REGEX REPLACE "[^\n]" "" lines "${errors}")
string(LENGTH "${lines}" lines)
if(NOT count EQUAL 1 OR lines GREATER_EQUAL 15)
  message(FATAL_ERROR "${SOURCE} is refused with ${count} errors in ${lines} lines:\n${errors}")
endif()
