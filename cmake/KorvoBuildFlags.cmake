# Flags of this project's own targets, never handed on to those who link the library. A project that
# includes this one brings its own flags and gets none from here.

add_library(korvo_build_flags INTERFACE)
target_compile_features(korvo_build_flags INTERFACE cxx_std_20)

if(PROJECT_IS_TOP_LEVEL)
  option(KORVO_COVERAGE "Count which lines run (g++)" OFF)
  if(KORVO_COVERAGE)
    # Threads count in the same counters.
    target_compile_options(korvo_build_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(korvo_build_flags INTERFACE --coverage)
  else()
    # No absolute path of the build machine ends up in the binaries, so that two builds are equal.
    target_compile_options(korvo_build_flags INTERFACE
      "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=" "-ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
  endif()

  target_compile_options(korvo_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor
    -Wold-style-cast -Wcast-align -Wcast-qual -Woverloaded-virtual -Wformat=2
    -Wimplicit-fallthrough -Wundef)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(korvo_build_flags INTERFACE -Wduplicated-cond -Wlogical-op)
    # g++ 12 sees overlaps in the standard library's own string operators.
    target_compile_options(korvo_build_flags INTERFACE -Wno-restrict)
  endif()

  # Errors with the compilers that every change is built with; a newer one may know new warnings,
  # which must not stop a user's build.
  set(tested_compiler OFF)
  if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION MATCHES "^12\\.")
     OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION MATCHES "^14\\."))
    set(tested_compiler ON)
  endif()
  option(KORVO_WARNINGS_AS_ERRORS "Stop the build on a warning" ${tested_compiler})
  if(KORVO_WARNINGS_AS_ERRORS)
    target_compile_options(korvo_build_flags INTERFACE -Werror)
  endif()
endif()
