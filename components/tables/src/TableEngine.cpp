#include <Korvo/TableEngine.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

#include "TableEngines.h"
#include "UnixSocket.h"

namespace Korvo {

TableReceiver::~TableReceiver() = default;
TableLink::~TableLink() = default;
TableSource::~TableSource() = default;
TableSender::~TableSender() = default;
TableOutlet::~TableOutlet() = default;
TableQuestion::~TableQuestion() = default;
TableEngine::~TableEngine() = default;

std::unique_ptr<TableQuestion> TableEngine::ask(const std::string& address,
                                                const KoPtr<Scheduler>& /*scheduler*/,
                                                TableQuestion::User& /*user*/) {
  throw KoInvalidArgument("Not told what is published there - (" + address + ")");
}

void TableEngine::check(const std::string& /*address*/) const {}

// ---------------------------------------------------------------------------------------------
// Engines by scheme

namespace {

struct Engines {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<TableEngine>, std::less<>> byScheme;
};

Engines& engines() {
  static Engines all;
  return all;
}

/// Components whose engines a program may have forgotten.
constexpr std::array<std::pair<std::string_view, std::string_view>, 1> knownComponents = {
    {{"etcd", "Korvo::EtcdTables"}}};

std::string_view schemeOf(std::string_view address) {
  return address.substr(0, std::min(address.find(':'), address.size()));
}

}  // namespace

void TableEngine::add(const std::string& scheme, std::shared_ptr<TableEngine> engine) {
  const bool isWord = !scheme.empty() && std::ranges::all_of(scheme, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  });
  if (!isWord || engine == nullptr) throw KoInvalidArgument("Not a scheme - (" + scheme + ")");
  if (scheme == detail::socketScheme) {
    throw KoInvalidArgument("The scheme is built in - (" + scheme + ")");
  }
  Engines& all = engines();
  const std::lock_guard lock(all.mutex);
  const auto [place, isNew] = all.byScheme.emplace(scheme, engine);
  if (!isNew && place->second != engine) {
    throw KoInvalidArgument("The scheme is another engine's - (" + scheme + ")");
  }
}

void TableEngine::checkAddress(const std::string& address) {
  if (detail::isSocketAddress(address)) {
    static_cast<void>(detail::socketPath(address));
  } else {
    detail::engineFor(address)->check(address);
  }
}

namespace detail {

bool isSocketAddress(const std::string& address) {
  return schemeOf(address) == socketScheme && address.size() > socketScheme.size();
}

std::shared_ptr<TableEngine> engineFor(const std::string& address) {
  const std::string_view scheme = schemeOf(address);
  if (scheme.size() == address.size()) {
    throw KoInvalidArgument("Unknown address - (" + address + ")");
  }
  {
    Engines& all = engines();
    const std::lock_guard lock(all.mutex);
    const auto found = all.byScheme.find(scheme);
    if (found != all.byScheme.end()) return found->second;
  }
  for (const auto& [known, component] : knownComponents) {
    if (known != scheme) continue;
    throw KoInvalidArgument("The program does not register the engine of " +
                            std::string(component) + " - (" + address + ")");
  }
  throw KoInvalidArgument("Unknown address - (" + address + ")");
}

}  // namespace detail

// ---------------------------------------------------------------------------------------------
// Signals of threads

class ThreadSignal::Impl final : private Velto::Platform::FdEventHandler {
 public:
  Impl(const KoPtr<Scheduler>& scheduler, std::function<void()> told)
      : told_(std::make_shared<std::function<void()>>(std::move(told))),
        fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd_ == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
    try {
      watch_.reset(scheduler->getFdControl(this));
      watch_->fdIs(fd_);
      watch_->readableWantedIs(true);
    } catch (...) {
      watch_.reset();
      close(fd_);
      throw;
    }
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() override {
    watch_.reset();
    close(fd_);
  }

  /// A counter that is full has told it already.
  void give() const noexcept { static_cast<void>(eventfd_write(fd_, 1)); }

 private:
  void onReadable() override {
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(fd_, &count));
    const std::shared_ptr<std::function<void()>> told = told_;  // it may end this
    (*told)();
  }
  void onWritable() override {}

  std::shared_ptr<std::function<void()>> told_;
  int fd_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
};

ThreadSignal::ThreadSignal(const KoPtr<Scheduler>& scheduler, std::function<void()> told)
    : impl_(std::make_unique<Impl>(scheduler, std::move(told))) {}

ThreadSignal::~ThreadSignal() = default;

void ThreadSignal::give() noexcept {
  impl_->give();
}

}  // namespace Korvo
