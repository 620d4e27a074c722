#pragma once

// The library is built with hidden visibility; this marks what it exports.
#define KORVO_API __attribute__((visibility("default")))

/// Behind a member function's qualifiers: what it returns refers to the object, so that clang warns
/// where the object is a temporary, or a local one that the function returns from.
#if defined(__clang__)
#define KORVO_LIFETIMEBOUND [[clang::lifetimebound]]
#else
#define KORVO_LIFETIMEBOUND
#endif
