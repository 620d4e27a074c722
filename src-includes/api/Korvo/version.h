#pragma once

// The library's version. CMake and the packages take theirs from here.

#define KORVO_VERSION_MAJOR 1
#define KORVO_VERSION_MINOR 0
#define KORVO_VERSION_PATCH 0

/// For comparisons: `#if KORVO_VERSION >= 10200` means version 1.2.0 or newer.
#define KORVO_VERSION \
  (KORVO_VERSION_MAJOR * 10000 + KORVO_VERSION_MINOR * 100 + KORVO_VERSION_PATCH)
