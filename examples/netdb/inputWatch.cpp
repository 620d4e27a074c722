#include "inputWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace netdb {
namespace {

/// Several writes and renames in a row are one change.
constexpr std::chrono::milliseconds quietTime{200};

constexpr unsigned int comesAndGoes =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

InputWatch::InputWatch(const Korvo::KoPtr<Korvo::EventLoop>& loop,
                       const std::vector<std::string>& paths, Told told)
    : told_(std::move(told)), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (inotify_ < 0) fail("inotify");
  try {
    for (const std::string& each : paths) {
      const std::filesystem::path path(each);
      const std::string folder = path.has_parent_path() ? path.parent_path().string() : ".";
      const int watch = ::inotify_add_watch(inotify_, folder.c_str(), comesAndGoes | IN_MODIFY);
      if (watch < 0) fail(folder);
      files_.push_back({each, path.filename().string(), watch});
    }
    watch_.reset(loop->getFdControl(this));
    timer_.reset(loop->getTimerControl(this));
    watch_->fdIs(inotify_);
    watch_->readableWantedIs(true);
  } catch (...) {
    watch_.reset();
    ::close(inotify_);
    throw;
  }
}

InputWatch::~InputWatch() {
  watch_.reset();
  ::close(inotify_);
}

void InputWatch::onReadable() {
  std::array<char, 4096> room;
  const ssize_t length = ::read(inotify_, room.data(), room.size());
  for (ssize_t at = 0; at < length;) {
    inotify_event event;
    std::memcpy(&event, room.data() + at, sizeof event);
    const char* const name = room.data() + at + sizeof event;
    for (File& file : files_) {
      // After an overflow, nobody knows what has happened.
      const bool isMeant = (event.mask & IN_Q_OVERFLOW) != 0 ||
                           (event.wd == file.folder && event.len != 0 && file.name == name);
      if (isMeant) note(file, event.mask);
    }
    at += static_cast<ssize_t>(sizeof event + event.len);
  }
}

void InputWatch::note(File& file, unsigned int what) {
  file.isChanged = true;
  file.isWritten = (what & IN_MODIFY) != 0;
  timer_->timeoutIs(quietTime);
  told_.changing();
}

void InputWatch::onTimeout() {
  std::vector<std::string> changed;
  for (const File& file : files_) {
    if (file.isWritten) return;  // its end will be told
    if (file.isChanged) changed.push_back(file.path);
  }
  for (File& file : files_) file.isChanged = false;
  told_.changed(changed);
}

}  // namespace netdb
