#pragma once

// Stand-in for the host framework's debug channels.
//
//   class Log : public Velto::DebugChannel {
//     void trace(std::ostringstream& text, unsigned int level, const char* file, unsigned int line,
//                const char* function) override {
//       std::clog << file << ':' << line << ' ' << function << text.str() << '\n';
//     }
//   };
//   Log log;
//   log.levelMaskIs(1u << 6 | 1u << 9);  // levels 6 and 9
//
// A host that brings its own framework builds against that one instead (CMake setting
// KORVO_VELTO_INCLUDE_DIR). What the library uses of this header: DebugChannel::levelMask() and
// trace(); DebugSupport's default constructor, channel() and channelIs().

#include <sstream>

namespace Velto {

/// Where debug traces go. Used from the thread of the objects that hold it.
class DebugChannel {
 public:
  DebugChannel() = default;
  DebugChannel(const DebugChannel&) = default;
  DebugChannel& operator=(const DebugChannel&) = default;
  virtual ~DebugChannel() = default;

  /// The levels that are on: bit n stands for level n. All are off at first.
  unsigned int levelMask() const { return levelMask_; }
  void levelMaskIs(unsigned int levelMask) { levelMask_ = levelMask; }

  /// Takes one trace, whose level is on. `file` and `function` (its bare name) stay valid until the
  /// process ends, `text` only during the call.
  virtual void trace(std::ostringstream& text, unsigned int level, const char* file,
                     unsigned int line, const char* function) = 0;

 private:
  unsigned int levelMask_ = 0;
};

/// An object's link to its debug channel, and whether it owns that channel.
class DebugSupport {
 public:
  DebugSupport() = default;
  DebugSupport(const DebugSupport&) = delete;
  DebugSupport& operator=(const DebugSupport&) = delete;
  ~DebugSupport() { release(); }

  /// The channel; null if there is none.
  DebugChannel* channel() const { return channel_; }
  /// Whether the channel is deleted with this object.
  bool owned() const { return owned_; }

  /// Replaces the channel, which may be null, and deletes the old one if it was owned. An owned
  /// channel is deleted with this object; any other has to outlive it.
  void channelIs(DebugChannel* channel, bool owned) {
    if (channel != channel_) release();
    channel_ = channel;
    owned_ = owned;
  }

 private:
  void release() {
    if (owned_) delete channel_;
  }

  DebugChannel* channel_ = nullptr;
  bool owned_ = false;
};

}  // namespace Velto
