# korvo, the tool that shows, checks, compares and converts rows and generates row classes. Built by
# default where CLI11 is found; with libarchive it reads gzip and zstd files as they are.

if(PROJECT_IS_TOP_LEVEL)
  find_package(CLI11 QUIET)
endif()
if(PROJECT_IS_TOP_LEVEL AND CLI11_FOUND)
  set(korvo_tool_default ON)
else()
  set(korvo_tool_default OFF)
endif()
option(KORVO_TOOL "Build korvo, the tool for rows and layouts" ${korvo_tool_default})

if(NOT KORVO_TOOL)
  if(PROJECT_IS_TOP_LEVEL)
    message(STATUS "Without the tool korvo")
  endif()
  return()
endif()
find_package(CLI11 QUIET)
if(NOT CLI11_FOUND)
  message(FATAL_ERROR "KORVO_TOOL needs CLI11 (package libcli11-dev)")
endif()

add_subdirectory(tool)
