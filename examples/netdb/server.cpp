#include "server.h"

#include <filesystem>

#include "progress.h"

namespace netdb {
namespace {

/// "geoip", "geoip and geoip6", "a, b and c".
std::string listed(const std::vector<std::string>& paths) {
  std::string text;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (i != 0) text += i + 1 == paths.size() ? " and " : ", ";
    text += std::filesystem::path(paths[i]).filename().string();
  }
  return text;
}

}  // namespace

Server::Server(Agent& agent, std::vector<std::string> paths, std::string address, std::ostream& out)
    : agent_(agent),
      paths_(std::move(paths)),
      address_(std::move(address)),
      out_(out),
      publisher_("netdb", agent.loop()),
      watch_(agent.loop(), paths_,
             {.changing = [this] { loader_.reset(); },
              .changed = [this](const std::vector<std::string>& changed) { load(changed); }}) {
  publisher_.completeIs(false);
  publisher_.add(table_);
  publisher_.listen(address_);
  load({});
}

void Server::load(const std::vector<std::string>& changed) {
  loader_.reset();
  for (const std::string& path : paths_) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) return refuse(path + ": " + error.message());
    if (size == 0) return refuse(path + ": is empty");
  }
  loader_.emplace(
      agent_, table_, paths_,
      Loader::Told{
          .malformed =
              [](const std::string& file, std::uint32_t line, const std::string& reason) {
                throw InputError(file + ':' + std::to_string(line) + ": " + reason);
              },
          .read = [](double, std::uint64_t) {},
          .ended = [this, changed](const Loader::Result& result) { loaded(changed, result); }});
}

void Server::loaded(const std::vector<std::string>& changed, const Loader::Result& result) {
  loader_.reset();
  if (!result.fault.empty()) return refuse(result.fault);
  if (!publisher_.complete()) {
    out_ << "serving " << grouped(table_.size()) << " rows of " << listed(paths_) << " at "
         << address_ << std::endl;
    publisher_.completeIs(true);
  } else {
    out_ << listed(changed) << " changed: " << grouped(result.added) << " added, "
         << grouped(result.changed) << " changed, " << grouped(result.removed) << " removed, "
         << grouped(result.rows - result.added - result.changed) << " as before" << std::endl;
  }
}

void Server::refuse(const std::string& reason) {
  complain("netdb: " + reason +
           (publisher_.complete() ? "; the rows stay as they are"
                                  : "; nothing is served until it is mended"));
}

}  // namespace netdb
