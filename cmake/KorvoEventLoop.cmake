# Korvo::EventLoop, the scheduler on libuv: a library of its own, so that KorvoAPI needs no libuv.
# Built by default where libuv is found.

set(korvo_event_loop_default OFF)
if(PROJECT_IS_TOP_LEVEL AND KORVO_VELTO_IS_STAND_IN)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(libuv QUIET libuv)
    set(korvo_event_loop_default ${libuv_FOUND})
  endif()
endif()
option(KORVO_EVENT_LOOP "Build Korvo::EventLoop, a scheduler on libuv" ${korvo_event_loop_default})

if(NOT KORVO_EVENT_LOOP)
  if(PROJECT_IS_TOP_LEVEL)
    message(STATUS "Without Korvo::EventLoop")
  endif()
  return()
endif()
if(NOT KORVO_VELTO_IS_STAND_IN)
  message(FATAL_ERROR "KORVO_EVENT_LOOP implements the controls of the stand-in's Velto/Platform.h, "
                      "and KORVO_VELTO_INCLUDE_DIR names another framework")
endif()

korvo_add_component(EventLoop
  DESCRIPTION "its scheduler on libuv"
  SOURCES src/EventLoop.cpp src/stopSignals.cpp
  HEADERS src-includes/api/Korvo/EventLoop.h
  MODULES libuv)
