#pragma once

// What tables travel on: streams of bytes in both directions. Sockets are one kind, TestLink
// another.

#include <Korvo/export.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Korvo {

/// One end of a connection. Nothing blocks. Belongs to one thread.
class KORVO_API ByteStream {
 public:
  /// Who uses the stream; outlives it or is taken away with userIs(nullptr).
  class KORVO_API User {
   public:
    /// There may be something to read, or room to write. Reads and writes later, not from here.
    virtual void streamIsReady() = 0;

   protected:
    ~User() = default;
  };

  /// What came of a read or a write.
  struct Result {
    std::size_t count = 0;  ///< bytes read or written
    bool isOpen = true;     ///< false: nothing will come or go any more
    std::string reason;     ///< why it is not open
  };

  ByteStream() = default;
  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;
  /// Ends the connection; what was written still reaches the other end if it can.
  virtual ~ByteStream();

  /// The user is told whenever there is something to read, and once there is room again after a
  /// write that took less than it was given.
  virtual void userIs(User* user) = 0;
  /// Reads `most` bytes or fewer; 0 while there is nothing.
  virtual Result read(void* to, std::size_t most) = 0;
  /// Writes as much as there is room for.
  virtual Result write(const iovec* parts, int count) = 0;
  /// The user whose process is at the other end; none where there are no users. Throws
  /// std::system_error if it cannot be found out.
  virtual std::optional<uid_t> peerUser() const { return std::nullopt; }
};

/// Where connections come in.
class KORVO_API ByteListener {
 public:
  /// Gets a connection, for good.
  using Taker = std::function<void(std::unique_ptr<ByteStream> stream)>;

  ByteListener() = default;
  ByteListener(const ByteListener&) = delete;
  ByteListener& operator=(const ByteListener&) = delete;
  virtual ~ByteListener();

  /// `taker` gets each connection; an empty one refuses them.
  virtual void takerIs(Taker taker) = 0;
};

/// What makes connections.
class KORVO_API ByteConnector {
 public:
  ByteConnector() = default;
  ByteConnector(const ByteConnector&) = delete;
  ByteConnector& operator=(const ByteConnector&) = delete;
  virtual ~ByteConnector();

  /// Throws std::system_error if nobody listens.
  virtual std::unique_ptr<ByteStream> connect() = 0;
};

}  // namespace Korvo
