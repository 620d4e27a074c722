#pragma once

#include <string>
#include <vector>

namespace netdb {

/// The folder that this program lies in.
std::string programFolder();

/// The two files that are read when the user names none: those that the demo unpacked beside the
/// program's build, those of an installed data package, or the small sample. Empty if there are
/// none.
std::vector<std::string> defaultInput(const std::string& programFolder);

/// Where this user's server listens if no place is named: in the folder that the system keeps for
/// the user's sockets. Empty if it keeps none.
std::string defaultServer();

}  // namespace netdb
