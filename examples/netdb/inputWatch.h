#pragma once

// Tells when files have changed, whether they were written where they are, replaced by others,
// removed or put back.

#include <Korvo/EventLoop.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace netdb {

/// Watches the folders that the files are in, so that a file may come and go.
class InputWatch : private Velto::Platform::FdEventHandler,
                   private Velto::Platform::TimeoutHandler {
 public:
  struct Told {
    /// A file is being changed: what is read of it now may be half of it.
    std::function<void()> changing;
    /// The files that have changed, once nobody has written them for a moment.
    std::function<void(const std::vector<std::string>& paths)> changed;
  };

  /// Throws std::system_error if a folder cannot be watched.
  InputWatch(const Korvo::KoPtr<Korvo::EventLoop>& loop, const std::vector<std::string>& paths,
             Told told);
  InputWatch(const InputWatch&) = delete;
  InputWatch& operator=(const InputWatch&) = delete;
  ~InputWatch() override;

 private:
  struct File {
    std::string path;
    std::string name;
    int folder;              ///< its watch
    bool isChanged = false;  ///< not told yet
    bool isWritten = false;  ///< somebody writes it, and has not closed it
  };

  void onReadable() override;
  void onWritable() override {}
  void onTimeout() override;
  void note(File& file, unsigned int what);

  Told told_;
  std::vector<File> files_;
  int inotify_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
  std::unique_ptr<Velto::Platform::TimerControl> timer_;
};

}  // namespace netdb
