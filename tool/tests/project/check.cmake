# Builds a project whose definition changes, in ways that may be and in one that may not.

cmake_policy(VERSION 3.25)

file(MAKE_DIRECTORY ${WORK}/source)
file(COPY ${SOURCE}/CMakeLists.txt DESTINATION ${WORK}/source)

function(define columns)
  # A definition that is newer than what was made of the last one.
  execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 1.1)
  file(WRITE ${WORK}/source/ports.korvo "namespace net\n\nrow Port 7 {\n${columns}}\n")
endfunction()

# The build ends as `expected` says (good or bad), and its output has `pattern`.
function(build allow expected pattern)
  execute_process(COMMAND ${CMAKE_COMMAND} -G ${GENERATOR} -S ${WORK}/source -B ${WORK}/build
                          -DMODULES=${MODULES} -DKORVO_EXECUTABLE=${KORVO} -DALLOW=${allow}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build
                  OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
  if((status EQUAL 0 AND expected STREQUAL "bad") OR (NOT status EQUAL 0 AND expected STREQUAL "good"))
    message(SEND_ERROR "expected ${expected}, and it ended with ${status}:\n${output}")
  endif()
  if(NOT output MATCHES "${pattern}")
    message(SEND_ERROR "not found: ${pattern}\n${output}")
  endif()
  execute_process(COMMAND ${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/build -R "^layouts$"
                  OUTPUT_VARIABLE output RESULT_VARIABLE status)
  if((status EQUAL 0 AND expected STREQUAL "bad") OR (NOT status EQUAL 0 AND expected STREQUAL "good"))
    message(SEND_ERROR "the test ended with ${status}:\n${output}")
  endif()
endfunction()

function(header_has text)
  file(READ ${WORK}/build/korvo/ports/ports.h header)
  string(FIND "${header}" "${text}" position)
  if(position EQUAL -1)
    message(SEND_ERROR "the header does not have ${text}:\n${header}")
  endif()
endfunction()

define("  speed uint32_t\n")
execute_process(COMMAND ${KORVO} layout print --named ${WORK}/source/ports.korvo
                OUTPUT_FILE ${WORK}/source/ports.layouts COMMAND_ERROR_IS_FATAL ANY)
build(same good "Generating ports.h")
header_has("namespace kept {")
header_has("Korvo::Column<\"speed\", std::uint32_t>")

define("  speed uint64_t\n")
build(lossless good "Generating ports.h")
header_has("Korvo::Column<\"speed\", std::uint64_t>")
build(same bad "widened  speed uint32_t -> uint64_t")

define("  speed uint64_t\n  name string_t\n")
build(lossy good "Generating ports.h")
header_has("Korvo::Column<\"name\", std::string>")
build(lossless bad "missing  name string_t")

define("  speed string_t\n")
build(lossy bad "refused  speed: uint32_t, here string_t")
