#pragma once

// Which engine serves an address.

#include <Korvo/TableEngine.h>

#include <memory>
#include <string>
#include <string_view>

namespace Korvo::detail {

inline constexpr std::string_view socketScheme = "unix";

/// Whether the address is a socket's, which no engine is needed for.
bool isSocketAddress(const std::string& address);

/// Throws KoInvalidArgument if no engine of the program serves it.
std::shared_ptr<TableEngine> engineFor(const std::string& address);

}  // namespace Korvo::detail
