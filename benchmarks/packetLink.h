#pragma once

// The least that rows can be sent with: a Unix-domain socket on which each packet is one row as it
// stands in its buffer, until the socket is closed. What tables are measured beside.

#include <sys/socket.h>

#include <cstddef>
#include <utility>
#include <vector>

#include "prefixRow.h"

namespace bench {

using netdb::PrefixRow;

/// Owner of a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { close(); }

  int get() const { return fd_; }
  void close();

 private:
  int fd_;
};

/// Two connected sockets for rows; throws std::system_error.
struct RowSockets {
  RowSockets();
  Descriptor publisher;
  Descriptor subscriber;
};

/// Sends rows in batches. Holds on to the rows, whose buffers are sent as they stand.
class RowSender {
 public:
  explicit RowSender(int socket) : socket_(socket) {}
  void add(const PrefixRow& row);
  /// Sends what has been added. Throws std::system_error when the receiver is gone.
  void send();

 private:
  static constexpr std::size_t batch = 128;

  int socket_;
  std::vector<PrefixRow> rows_;
};

/// Receives rows in batches.
class RowReceiver {
 public:
  explicit RowReceiver(int socket);

  /// Waits for some packets; false at the end of them. Throws std::system_error.
  bool receive();

  /// The packets that the last call received; valid until the next call. A packet longer than any
  /// row is cut to maxRowLength + 1 bytes.
  struct Packet {
    const Korvo::byte_t* bytes;
    std::size_t length;
  };
  const std::vector<Packet>& packets() const { return packets_; }

 private:
  static constexpr std::size_t batch = 64;
  static constexpr std::size_t packetRoom = Korvo::maxRowLength + 1;

  int socket_;
  std::vector<Korvo::byte_t> room_;
  std::vector<iovec> parts_;
  std::vector<mmsghdr> messages_;
  std::vector<Packet> packets_;
};

}  // namespace bench
