# Korvo::EventLoop, the scheduler on libuv: a library of its own, so that KorvoAPI needs no libuv.
# Built by default where libuv is found.

if(PROJECT_IS_TOP_LEVEL OR KORVO_EVENT_LOOP)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(LIBUV QUIET IMPORTED_TARGET libuv)
  endif()
endif()
if(PROJECT_IS_TOP_LEVEL AND LIBUV_FOUND AND KORVO_VELTO_IS_STAND_IN)
  set(korvo_event_loop_default ON)
else()
  set(korvo_event_loop_default OFF)
endif()
option(KORVO_EVENT_LOOP "Build Korvo::EventLoop, a scheduler on libuv" ${korvo_event_loop_default})

if(NOT KORVO_EVENT_LOOP)
  if(PROJECT_IS_TOP_LEVEL)
    message(STATUS "Without Korvo::EventLoop")
  endif()
  return()
endif()
if(NOT LIBUV_FOUND)
  message(FATAL_ERROR "KORVO_EVENT_LOOP needs libuv (package libuv1-dev) and pkg-config")
endif()
if(NOT KORVO_VELTO_IS_STAND_IN)
  message(FATAL_ERROR "KORVO_EVENT_LOOP implements the controls of the stand-in's Velto/Platform.h, "
                      "and KORVO_VELTO_INCLUDE_DIR names another framework")
endif()

add_library(KorvoEventLoop src/EventLoop.cpp src/stopSignals.cpp)
add_library(Korvo::EventLoop ALIAS KorvoEventLoop)
set_target_properties(KorvoEventLoop PROPERTIES
  EXPORT_NAME EventLoop
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON
  VERIFY_INTERFACE_HEADER_SETS ${PROJECT_IS_TOP_LEVEL})
target_sources(KorvoEventLoop PUBLIC FILE_SET HEADERS BASE_DIRS src-includes/api
               FILES src-includes/api/Korvo/EventLoop.h)
target_link_libraries(KorvoEventLoop
  PUBLIC Korvo::KorvoAPI
  PRIVATE $<BUILD_INTERFACE:korvo_build_flags> PkgConfig::LIBUV)
