#include <Korvo/assertion.h>

// The C library declares its reporting function only while assertions are on.
#undef NDEBUG
#include <cassert>

namespace Korvo::detail {

void assertionFailed(const char* condition, const char* file, unsigned int line,
                     const char* signature) noexcept {
  __assert_fail(condition, file, line, signature);
}

}  // namespace Korvo::detail
