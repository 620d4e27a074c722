#include "EtcdAddress.h"

#include <Korvo/korvo_types.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr std::string_view slashes = "//";
constexpr std::size_t longestName = 255;

std::vector<std::string> parts(const std::string& text, char separator) {
  std::vector<std::string> all;
  std::istringstream in(text + separator);
  for (std::string part; std::getline(in, part, separator);) all.push_back(part);
  return all;
}

/// Names are parts of keys, which are read by people.
bool isName(const std::string& text) {
  return !text.empty() && text.size() <= longestName &&
         std::ranges::all_of(text, [](char c) { return c > ' ' && c != 0x7F && c != '/'; });
}

bool isMember(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  const std::string port = text.substr(colon + 1);
  return !port.empty() && port.size() <= 5 &&
         std::ranges::all_of(port, [](char c) { return c >= '0' && c <= '9'; }) &&
         std::stoul(port) >= 1 && std::stoul(port) <= 65535;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

struct Setting {
  const char* name;
  const char* variable;
  std::string EtcdSettings::*value;
};
constexpr std::array settings = {
    Setting{"user", "KORVO_ETCD_USER", &EtcdSettings::user},
    Setting{"password", "KORVO_ETCD_PASSWORD", &EtcdSettings::password},
    Setting{"ca", "KORVO_ETCD_CA", &EtcdSettings::ca},
    Setting{"certificate", "KORVO_ETCD_CERTIFICATE", &EtcdSettings::certificate},
    Setting{"key", "KORVO_ETCD_KEY", &EtcdSettings::key},
};

/// Throws KoInvalidArgument if it cannot be read.
std::string fileContent(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  if (file) content << file.rdbuf();
  if (!file || !content) throw KoInvalidArgument("Cannot be read - (" + path + ")");
  return content.str();
}

/// Throws without the line's value, which may be a password.
void readLine(EtcdSettings& all, const std::string& path, const std::string& line) {
  if (line.empty() || line.front() == '#') return;
  const std::size_t equal = line.find('=');
  const std::string name = trimmed(line.substr(0, equal));
  const auto known = std::ranges::find(settings, std::string_view(name),
                                       [](const Setting& s) { return std::string_view(s.name); });
  if (equal == std::string::npos || known == settings.end()) {
    throw KoInvalidArgument("Not a setting of etcd - (" + path + ": " + name + ")");
  }
  all.*known->value = trimmed(line.substr(equal + 1));
}

}  // namespace

EtcdAddress::EtcdAddress(const std::string& text) {
  const auto refuse = [&](const std::string& why) {
    throw KoInvalidArgument(why + " - (" + text + ")");
  };
  const std::string head = std::string(scheme) + std::string(slashes);
  if (!text.starts_with(head)) refuse("Not an address of etcd");
  const std::vector<std::string> path = parts(text.substr(head.size()), '/');
  if (path.size() != 3) refuse("Not etcd://HOST:PORT[,...]/SYSTEM/PUBLISHER");
  if (path[0].find('@') != std::string::npos) {
    refuse("A user does not belong into an address: KORVO_ETCD_SETTINGS names a file for it");
  }
  members = parts(path[0], ',');
  for (const std::string& member : members) {
    if (!isMember(member)) refuse("Not HOST:PORT: " + member);
  }
  system = path[1];
  publisher = path[2];
  if (!isName(system)) refuse("Not a name of a system: " + system);
  if (!isName(publisher)) refuse("Not a name of a publisher: " + publisher);
}

EtcdSettings::Texts EtcdSettings::texts() const {
  const auto textOf = [](const std::string& path) {
    std::string text = path.empty() ? "" : fileContent(path);
    if (!path.empty() && text.find("-----BEGIN ") == std::string::npos) {
      throw KoInvalidArgument("No certificate or key, as PEM, is in it - (" + path + ")");
    }
    return text;
  };
  return {textOf(ca), textOf(certificate), textOf(key)};
}

EtcdSettings EtcdSettings::fromEnvironment() {
  EtcdSettings all;
  if (const char* const path = std::getenv("KORVO_ETCD_SETTINGS")) {
    struct stat status {};
    if (stat(path, &status) == 0 && (status.st_mode & S_IROTH) != 0) {
      throw KoInvalidArgument("Everybody may read it - (" + std::string(path) + ")");
    }
    std::istringstream lines(fileContent(path));
    for (std::string line; std::getline(lines, line);) readLine(all, path, trimmed(line));
  }
  for (const Setting& setting : settings) {
    if (const char* const value = std::getenv(setting.variable)) all.*setting.value = value;
  }
  return all;
}

}  // namespace Korvo::detail
