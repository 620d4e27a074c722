# Runs gdb in batch mode and compares what it prints with expected.txt. CASE: running, core,
# installed (gdb finds the printers of an installed library) or garbage (objects of random bytes).

cmake_policy(VERSION 3.25)

set(here ${CMAKE_CURRENT_LIST_DIR})
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

set(options -nx -batch)
cmake_path(GET LIBRARY PARENT_PATH library_dir)
if(NOT SHARED)
  list(APPEND options -ex "source ${PRINTERS}")
elseif(CASE STREQUAL "installed")
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE installed ${WORK}/lib*/libKorvoAPI.so)
  cmake_path(GET installed PARENT_PATH library_dir)
  cmake_path(GET CRYPTO PARENT_PATH crypto_dir)  # an installed library finds it by itself or not
  list(APPEND options -ex "set environment LD_LIBRARY_PATH ${library_dir}:${crypto_dir}"
       -iex "add-auto-load-scripts-directory ${WORK}/share/gdb/auto-load"
       -iex "add-auto-load-safe-path ${WORK}/share/gdb/auto-load")
else()
  list(APPEND options -iex "add-auto-load-safe-path ${library_dir}")
endif()

# Sets `printed` to the standard output of gdb with these arguments.
function(run_gdb)
  execute_process(COMMAND ${GDB} ${options} ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE errors
                  COMMAND_ERROR_IS_FATAL ANY)
  if(errors MATCHES "Python Exception|Traceback|Error in sourced")
    message(FATAL_ERROR "gdb says:\n${errors}")
  endif()
  set(printed "${output}" PARENT_SCOPE)
endfunction()

set(stopped -ex "break stopHere" -ex run)
if(CASE STREQUAL "garbage")
  run_gdb(${stopped} -x ${here}/print_garbage.py ${PROGRAM})
  if(NOT printed MATCHES "[1-9][0-9]+ values, nothing thrown")
    message(FATAL_ERROR "gdb printed:\n${printed}")
  endif()
  return()
endif()

if(CASE STREQUAL "core")
  run_gdb(${stopped} -ex "generate-core-file ${WORK}/core" ${PROGRAM})
  run_gdb(-x ${here}/print.gdb ${PROGRAM} ${WORK}/core)
  file(REMOVE ${WORK}/core)
else()
  run_gdb(${stopped} -x ${here}/print.gdb ${PROGRAM})
endif()

# From the first printed value on, without what differs from run to run.
string(FIND "${printed}" "\n$1 = " begin)
string(SUBSTRING "${printed}" ${begin} -1 printed)
string(REGEX REPLACE "at 0x[0-9a-f]+" "at ADDRESS" printed "${printed}")
string(REGEX REPLACE "[-+.0-9e]+ s([^a-z])" "SECONDS s\\1" printed "${printed}")
string(STRIP "${printed}" printed)

file(READ ${here}/expected.txt expected)
string(STRIP "${expected}" expected)
if(COMPILER_ID STREQUAL "Clang")  # names the first ten characters of a column only
  string(REPLACE "a \"b\", <c> = " "a \"b\", <c>... = " expected "${expected}")
  string(REPLACE "longer than others = " "longer tha... = " expected "${expected}")
endif()
if(NOT printed STREQUAL expected)
  file(WRITE ${WORK}/printed.txt "${printed}\n")
  file(WRITE ${WORK}/expected.txt "${expected}\n")
  execute_process(COMMAND diff ${WORK}/expected.txt ${WORK}/printed.txt)
  message(FATAL_ERROR "gdb prints something else")
endif()
