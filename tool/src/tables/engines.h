#pragma once

// Addresses beyond sockets.

#include <string>

namespace korvotool {

/// Has to be called for each address before the library is given it. Throws Failure if its engine
/// is not in this build.
void makeKnown(const std::string& address);

}  // namespace korvotool
