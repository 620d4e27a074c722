#include "defaultInput.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace netdb {

namespace fs = std::filesystem;

std::string programFolder() {
  return fs::read_symlink("/proc/self/exe").parent_path().string();
}

std::vector<std::string> defaultInput(const std::string& programFolder) {
  const fs::path program = programFolder;
  // The program lies in build/NAME/examples/netdb, the demo's data in build/demo-data.
  const fs::path folders[] = {program / "../../../demo-data/usr/share/tor", "/usr/share/tor",
                              program / "sample"};
  for (const fs::path& folder : folders) {
    std::error_code error;
    const fs::path ipv4 = folder / "geoip";
    const fs::path ipv6 = folder / "geoip6";
    if (!fs::exists(ipv4, error) || !fs::exists(ipv6, error)) continue;
    return {ipv4.lexically_normal().string(), ipv6.lexically_normal().string()};
  }
  return {};
}

std::string defaultServer() {
  const char* const named = std::getenv("XDG_RUNTIME_DIR");
  const fs::path folder = named != nullptr && *named != 0
                              ? fs::path(named)
                              : fs::path("/run/user") / std::to_string(::getuid());
  std::error_code error;
  return fs::is_directory(folder, error) ? "unix:" + (folder / "netdb").string() : "";
}

}  // namespace netdb
