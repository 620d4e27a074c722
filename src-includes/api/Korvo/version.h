#pragma once

// The library's version. CMake and the packages take theirs from here.

/// Grows with changes that programs have to be adapted to or built anew for.
#define KORVO_VERSION_MAJOR 1
/// Grows with what is added.
#define KORVO_VERSION_MINOR 0
/// Grows with what is mended.
#define KORVO_VERSION_PATCH 0

/// For comparisons: `#if KORVO_VERSION >= 10200` means version 1.2.0 or newer.
#define KORVO_VERSION \
  (KORVO_VERSION_MAJOR * 10000 + KORVO_VERSION_MINOR * 100 + KORVO_VERSION_PATCH)
