# Row classes from definitions, for projects that use the library.
#
#   korvo_generate(my_agent port.korvo link.korvo [NAMESPACE net])
#
# makes port.h and link.h for the target my_agent, which includes them as "port.h" and "link.h". They
# are made again whenever the definitions change.
#
#   korvo_check_layouts(port_layouts port.korvo KEPT port.layouts [ALLOW same|lossless|lossy])
#
# holds the rows of a definition against those of a kept file: the build fails, and so does a test of
# that name, when rows of the kept layouts could not be converted any more. ALLOW says what may become
# of them: `same` is no change at all, `lossless` adds wider numbers, and `lossy` (if nothing is said)
# columns that are new or gone. A new file to keep is made with
#
#   korvo layout print --named port.korvo >port.layouts
#
# KORVO_EXECUTABLE may name another program than Korvo::korvo, as in a build for another machine.

set(_korvo_script_dir "${CMAKE_CURRENT_LIST_DIR}")

function(_korvo_executable result)
  if(KORVO_EXECUTABLE)
    set(${result} "${KORVO_EXECUTABLE}" PARENT_SCOPE)
  elseif(TARGET Korvo::korvo)
    set(${result} "$<TARGET_FILE:Korvo::korvo>" PARENT_SCOPE)
  else()
    message(FATAL_ERROR "the program korvo was not built: set KORVO_EXECUTABLE")
  endif()
endfunction()

function(korvo_generate target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAMESPACE" "")
  if(NOT TARGET ${target})
    message(FATAL_ERROR "korvo_generate: ${target} is no target")
  endif()
  if(NOT arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "korvo_generate: no definition for ${target}")
  endif()
  _korvo_executable(korvo)
  set(options "")
  if(arg_NAMESPACE)
    set(options --namespace ${arg_NAMESPACE})
  endif()
  set(folder "${CMAKE_CURRENT_BINARY_DIR}/korvo/${target}")
  file(MAKE_DIRECTORY "${folder}")
  set(headers "")
  foreach(definition IN LISTS arg_UNPARSED_ARGUMENTS)
    cmake_path(ABSOLUTE_PATH definition BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
    cmake_path(GET definition STEM LAST_ONLY name)
    set(header "${folder}/${name}.h")
    add_custom_command(OUTPUT "${header}"
      COMMAND "${korvo}" generate "${definition}" -o "${header}" ${options}
      DEPENDS "${definition}" "${korvo}"
      COMMENT "Generating ${name}.h"
      VERBATIM)
    list(APPEND headers "${header}")
  endforeach()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_sources(${target} INTERFACE ${headers})
    target_include_directories(${target} INTERFACE "$<BUILD_INTERFACE:${folder}>")
  else()
    target_sources(${target} PRIVATE ${headers})
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${folder}>")
  endif()
endfunction()

function(korvo_check_layouts name definition)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "KEPT;ALLOW" "")
  if(NOT arg_KEPT OR arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "korvo_check_layouts(NAME DEFINITION KEPT FILE [ALLOW same|lossless|lossy])")
  endif()
  if(NOT arg_ALLOW)
    set(arg_ALLOW lossy)
  endif()
  set(words same lossless lossy)
  list(FIND words "${arg_ALLOW}" allowed)
  if(allowed EQUAL -1)
    message(FATAL_ERROR "korvo_check_layouts: ALLOW is same, lossless or lossy, not ${arg_ALLOW}")
  endif()
  _korvo_executable(korvo)
  cmake_path(ABSOLUTE_PATH definition BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
  cmake_path(ABSOLUTE_PATH arg_KEPT BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
  set(command "${CMAKE_COMMAND}" "-DKORVO=${korvo}" "-DDEFINITION=${definition}"
              "-DKEPT=${arg_KEPT}" "-DALLOWED=${allowed}"
              -P "${_korvo_script_dir}/KorvoCheckLayouts.cmake")
  set(stamp "${CMAKE_CURRENT_BINARY_DIR}/korvo/${name}.checked")
  add_custom_command(OUTPUT "${stamp}"
    COMMAND ${command}
    COMMAND "${CMAKE_COMMAND}" -E touch "${stamp}"
    DEPENDS "${definition}" "${arg_KEPT}" "${korvo}" "${_korvo_script_dir}/KorvoCheckLayouts.cmake"
    COMMENT "Comparing layouts with those that are kept: ${name}"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS "${stamp}")
  add_test(NAME ${name} COMMAND ${command})
endfunction()
