#pragma once

// What a program and the library that it links have to agree on.

#include <version>  // tells the settings of the standard library

#include <Korvo/version.h>

#ifndef __cpp_exceptions
#error "The headers of KorvoAPI need exceptions: compile without -fno-exceptions"
#endif

// Settings that give types of the standard library another layout are part of the names of all that
// the library exports. A program with such a setting and a library without it do not link, instead
// of taking each other's objects for something else, and the linker's message tells the setting.
#if defined(_LIBCPP_VERSION)
#define KORVO_SETTINGS_TAG , abi_tag("built_with_libcxx")
#elif defined(_GLIBCXX_DEBUG) && !_GLIBCXX_USE_CXX11_ABI
#define KORVO_SETTINGS_TAG , abi_tag("built_with_GLIBCXX_DEBUG_and_USE_CXX11_ABI_0")
#elif defined(_GLIBCXX_DEBUG)
#define KORVO_SETTINGS_TAG , abi_tag("built_with_GLIBCXX_DEBUG")
#elif !_GLIBCXX_USE_CXX11_ABI
#define KORVO_SETTINGS_TAG , abi_tag("built_with_GLIBCXX_USE_CXX11_ABI_0")
#else
#define KORVO_SETTINGS_TAG
#endif

/// The library is built with hidden visibility; this marks what it exports. A class that is
/// declared before its definition has it there, too.
#define KORVO_API __attribute__((visibility("default") KORVO_SETTINGS_TAG))

/// Behind a member function's qualifiers: what it returns refers to the object, so that clang warns
/// where the object is a temporary, or a local one that the function returns from.
#if defined(__clang__)
#define KORVO_LIFETIMEBOUND [[clang::lifetimebound]]
#else
#define KORVO_LIFETIMEBOUND
#endif
