# Korvo::EventLoop, the scheduler on libuv: a library of its own, so that KorvoAPI needs no libuv.

find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(LIBUV QUIET IMPORTED_TARGET libuv)
endif()
if(NOT TARGET PkgConfig::LIBUV)
  message(WARNING "libuv was not found: Korvo::EventLoop is not built")
  return()
endif()

add_library(KorvoEventLoop src/EventLoop.cpp)
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
