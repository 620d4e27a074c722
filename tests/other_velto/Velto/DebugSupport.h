#pragma once

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

namespace Velto {

/// Hands its traces to a function, and asks another which levels are on.
class DebugChannel {
 public:
  using Sink = std::function<void(const std::string& text)>;

  DebugChannel(Sink sink, std::function<unsigned int()> levels)
      : sink_(std::move(sink)), levels_(std::move(levels)) {}
  virtual ~DebugChannel() = default;

  virtual unsigned int levelMask() const { return levels_(); }
  virtual void trace(const std::ostringstream& text, unsigned int level, const char* file,
                     unsigned int line, const char* function) {
    std::ostringstream all;
    all << level << ' ' << file << (line > 0 ? " " : "") << function << ':' << text.str();
    sink_(all.str());
  }

 private:
  Sink sink_;
  std::function<unsigned int()> levels_;
};

class DebugSupport {
 public:
  DebugSupport() : channel_(nullptr, [](DebugChannel*) {}) {}

  DebugChannel* channel() const { return channel_.get(); }
  void channelIs(DebugChannel* channel, bool owned) {
    channel_ = Channel(channel, [owned](DebugChannel* old) {
      if (owned) delete old;
    });
  }

 private:
  using Channel = std::unique_ptr<DebugChannel, std::function<void(DebugChannel*)>>;
  Channel channel_;
};

}  // namespace Velto
