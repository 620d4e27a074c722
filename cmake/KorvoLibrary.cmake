# Korvo::KorvoAPI, the library itself.

find_package(OpenSSL REQUIRED COMPONENTS Crypto)

# A host's own framework comes before the stand-in of the same name, here and once installed.
set(KORVO_VELTO_STAND_IN_DIR "${PROJECT_SOURCE_DIR}/src-includes/api")
cmake_path(COMPARE "${KORVO_VELTO_INCLUDE_DIR}" EQUAL "${KORVO_VELTO_STAND_IN_DIR}"
           KORVO_VELTO_IS_STAND_IN)

file(GLOB korvo_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src-includes/api/Korvo/*.h")
list(REMOVE_ITEM korvo_headers "${PROJECT_SOURCE_DIR}/src-includes/api/Korvo/EventLoop.h")
if(KORVO_VELTO_IS_STAND_IN)
  file(GLOB velto_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src-includes/api/Velto/*.h")
endif()
korvo_add_library(KorvoAPI KorvoAPI
  SOURCES
    src/addressText.cpp
    src/assertion.cpp
    src/jsonReader.cpp
    src/jsonText.cpp
    src/layoutText.cpp
    src/AnyRow.cpp
    src/RowConverter.cpp
    src/korvo_types.cpp
    src/baseRow.cpp
    src/TableRow.cpp
    src/rowCheck.cpp
    src/rowSpace.cpp
    src/rowWriter.cpp
    src/socketAddress.cpp
    src/Scheduler.cpp
    src/KorvoApi.cpp
    src/KoStrUtils.cpp
    src/fileUtils.cpp
  HEADERS ${korvo_headers} ${velto_headers})
if(NOT KORVO_VELTO_IS_STAND_IN)
  target_include_directories(KorvoAPI BEFORE PUBLIC "${KORVO_VELTO_INCLUDE_DIR}")
endif()

# File sizes and offsets are 64 bits wide on 32-bit systems too.
target_compile_definitions(KorvoAPI PRIVATE _FILE_OFFSET_BITS=64)
# Calls inside the library go straight to their target: none of its functions is meant to be replaced
# by another of the same name.
target_compile_options(KorvoAPI PRIVATE -fno-semantic-interposition)
if(BUILD_SHARED_LIBS)
  target_link_options(KorvoAPI PRIVATE -Wl,-Bsymbolic-functions)
endif()
target_link_libraries(KorvoAPI PRIVATE OpenSSL::Crypto)

# Times are computed in exact double precision, so that a limit is reached at the same moment on
# every word size and processor: no wider intermediate results, no fused operations. On x86 this is
# said for 64 bits as well, where it changes nothing: CMake does not know which word size the flags
# of a host choose.
set(KORVO_EXACT_DOUBLE -ffp-contract=off)
# Small functions around calls of the C library: a jump less on each of them shows.
set(KORVO_TEXT_OPTIONS -fno-plt)
check_cxx_compiler_flag("-msse2 -mfpmath=sse" KORVO_HAS_SSE)
if(KORVO_HAS_SSE)
  list(APPEND KORVO_EXACT_DOUBLE -msse2 -mfpmath=sse)
  # With these registers, which the scheduler needs anyway, text takes a fraction of the time.
  list(APPEND KORVO_TEXT_OPTIONS -msse2)
endif()
set_source_files_properties(src/Scheduler.cpp PROPERTIES COMPILE_OPTIONS "${KORVO_EXACT_DOUBLE}")
set_source_files_properties(src/KoStrUtils.cpp PROPERTIES COMPILE_OPTIONS "${KORVO_TEXT_OPTIONS}")

if(KORVO_INSTALL)
  korvo_install(KorvoAPI "${PROJECT_DESCRIPTION}" "" libcrypto)
endif()
