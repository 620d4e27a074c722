# The library target, its installation and its packages.

find_package(OpenSSL REQUIRED COMPONENTS Crypto)

add_library(KorvoAPI
  src/assertion.cpp
  src/korvo_types.cpp
  src/baseRow.cpp
  src/Scheduler.cpp
  src/KorvoApi.cpp
  src/KoStrUtils.cpp)
add_library(Korvo::KorvoAPI ALIAS KorvoAPI)

set_target_properties(KorvoAPI PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_compile_features(KorvoAPI PUBLIC cxx_std_20)
# A host's own framework comes before the stand-in of the same name.
target_include_directories(KorvoAPI PUBLIC
  $<BUILD_INTERFACE:${KORVO_VELTO_INCLUDE_DIR}>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src-includes/api>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# File sizes and offsets are 64 bits wide on 32-bit systems too.
target_compile_definitions(KorvoAPI PRIVATE _FILE_OFFSET_BITS=64)
target_link_libraries(KorvoAPI PRIVATE $<BUILD_INTERFACE:korvo_build_flags> OpenSSL::Crypto)
