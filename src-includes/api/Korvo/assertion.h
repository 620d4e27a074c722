#pragma once

// Assertions that hold in every build type, NDEBUG or not.
//
// Condition and signature are given as text, because they are part of the system's contract and a
// compiler's own rendering differs between compilers and word sizes. The file is given relative to
// the repository's root for the same reason.

#include <Korvo/export.h>

namespace Korvo::detail {

/// Writes "program: file:line: signature: Assertion `condition' failed." to the standard error
/// stream, in the C library's own form, and calls abort().
[[noreturn]] KORVO_API void assertionFailed(const char* condition, const char* file,
                                            unsigned int line, const char* signature) noexcept;

}  // namespace Korvo::detail

/// Stops the process unless `condition` holds. An expression, so it is safe before an `else`.
#define KORVO_ASSERT(condition, conditionText, file, signature) \
  (__builtin_expect(static_cast<bool>(condition), 1)            \
       ? static_cast<void>(0)                                   \
       : ::Korvo::detail::assertionFailed(conditionText, file, __LINE__, signature))
