# The library target.

find_package(OpenSSL REQUIRED COMPONENTS Crypto)

add_library(KorvoAPI
  src/addressText.cpp
  src/assertion.cpp
  src/jsonText.cpp
  src/layoutText.cpp
  src/jsonReader.cpp
  src/AnyRow.cpp
  src/RowConverter.cpp
  src/korvo_types.cpp
  src/baseRow.cpp
  src/TableRow.cpp
  src/rowCheck.cpp
  src/Scheduler.cpp
  src/KorvoApi.cpp
  src/KoStrUtils.cpp
  src/fileUtils.cpp)
add_library(Korvo::KorvoAPI ALIAS KorvoAPI)
# Small functions around calls of the C library: a jump less on each of them shows.
set_source_files_properties(src/KoStrUtils.cpp PROPERTIES COMPILE_OPTIONS -fno-plt)

set_target_properties(KorvoAPI PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_compile_features(KorvoAPI PUBLIC cxx_std_20)

# A host's own framework comes before the stand-in of the same name, here and once installed.
set(KORVO_VELTO_STAND_IN_DIR "${PROJECT_SOURCE_DIR}/src-includes/api")
cmake_path(COMPARE "${KORVO_VELTO_INCLUDE_DIR}" EQUAL "${KORVO_VELTO_STAND_IN_DIR}"
           KORVO_VELTO_IS_STAND_IN)
if(NOT KORVO_VELTO_IS_STAND_IN)
  target_include_directories(KorvoAPI PUBLIC "${KORVO_VELTO_INCLUDE_DIR}")
endif()

file(GLOB korvo_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src-includes/api/Korvo/*.h")
list(REMOVE_ITEM korvo_headers "${PROJECT_SOURCE_DIR}/src-includes/api/Korvo/EventLoop.h")
if(KORVO_VELTO_IS_STAND_IN)
  file(GLOB velto_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src-includes/api/Velto/*.h")
endif()
target_sources(KorvoAPI PUBLIC FILE_SET HEADERS BASE_DIRS src-includes/api
               FILES ${korvo_headers} ${velto_headers})
set_target_properties(KorvoAPI PROPERTIES VERIFY_INTERFACE_HEADER_SETS ${PROJECT_IS_TOP_LEVEL})

# File sizes and offsets are 64 bits wide on 32-bit systems too.
target_compile_definitions(KorvoAPI PRIVATE _FILE_OFFSET_BITS=64)
# Calls inside the library go straight to their target: none of its functions is meant to be replaced
# by another of the same name.
target_compile_options(KorvoAPI PRIVATE -fno-semantic-interposition)
if(BUILD_SHARED_LIBS)
  target_link_options(KorvoAPI PRIVATE -Wl,-Bsymbolic-functions)
endif()
target_link_libraries(KorvoAPI PRIVATE $<BUILD_INTERFACE:korvo_build_flags> OpenSSL::Crypto)

# Times are computed in exact double precision, so that a limit is reached at the same moment on
# every word size and processor: no wider intermediate results, no fused operations.
set(KORVO_EXACT_DOUBLE -ffp-contract=off)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  list(APPEND KORVO_EXACT_DOUBLE -msse2 -mfpmath=sse)
  # With these registers, which the scheduler needs anyway, text takes a fraction of the time.
  set_source_files_properties(src/KoStrUtils.cpp PROPERTIES COMPILE_OPTIONS -msse2)
endif()
set_source_files_properties(src/Scheduler.cpp PROPERTIES COMPILE_OPTIONS "${KORVO_EXACT_DOUBLE}")
