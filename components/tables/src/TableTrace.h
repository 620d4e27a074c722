#pragma once

// What publishers and subscribers tell debug channels.

#include <Velto/DebugSupport.h>

#include <locale>
#include <new>
#include <string>

namespace Korvo::detail {

// Levels.
inline constexpr unsigned int linkLevel = 4;     ///< connections and tables
inline constexpr unsigned int refusalLevel = 5;  ///< rows that were refused

/// Sends the text if the level is on. `file` and `function` stay valid until the process ends. A
/// trace for which there is no memory is left out; what the channel throws comes out.
template <typename Print>
void trace(const Velto::DebugSupport& debug, unsigned int level, const char* file,
           const char* function, Print print, unsigned int line = __builtin_LINE()) {
  Velto::DebugChannel* const channel = debug.channel();
  if (channel == nullptr || (channel->levelMask() >> level & 1U) == 0) return;
  std::ostringstream text;
  try {
    text.imbue(std::locale::classic());
    print(text);
  } catch (const std::bad_alloc&) {
    return;
  }
  if (text.good()) channel->trace(text, level, file, line, function);
}

}  // namespace Korvo::detail
