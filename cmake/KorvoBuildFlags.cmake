# Flags of this project's own targets, never handed on to those who link the library.

add_library(korvo_build_flags INTERFACE)
target_compile_features(korvo_build_flags INTERFACE cxx_std_20)
# No absolute path of the build machine ends up in the binaries.
target_compile_options(korvo_build_flags INTERFACE
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=" "-ffile-prefix-map=${PROJECT_BINARY_DIR}/=")

if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(korvo_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor
    -Wold-style-cast -Wcast-align -Wcast-qual -Woverloaded-virtual -Wformat=2 -Wnull-dereference
    -Wimplicit-fallthrough -Wundef -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(korvo_build_flags INTERFACE -Wduplicated-cond -Wlogical-op)
  endif()
endif()
