#include "defaultInput.h"

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

}  // namespace netdb
