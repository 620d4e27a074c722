#pragma once

// Rows over a Unix-domain socket, byte for byte: each packet is one row as it stands in its buffer.
// Packets keep the rows apart, so a bad row costs nothing but itself.

#include <sys/socket.h>

#include <cstddef>
#include <vector>

#include "prefixRow.h"

namespace netdb {

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

  /// Whether a batch is complete and should be sent before more rows are added.
  bool full() const { return rows_.size() >= batch; }
  void add(const PrefixRow& row) { rows_.push_back(row); }
  /// Sends what has been added. Without `wait` it may send only a part; true when nothing is left.
  /// Throws std::system_error when the subscriber is gone.
  bool send(bool wait);
  /// Tells the subscriber that all rows have been sent; true unless that would block without
  /// `wait`.
  bool sendEnd(bool wait);

 private:
  static constexpr std::size_t batch = 128;

  int socket_;
  std::vector<PrefixRow> rows_;
  std::size_t sent_ = 0;
};

/// Receives rows in batches.
class RowReceiver {
 public:
  enum class Result { received, wouldBlock, closed };

  explicit RowReceiver(int socket);

  /// Receives some packets; throws std::system_error.
  Result receive(bool wait);

  /// The packets that the last call received; valid until the next call. A packet longer than any
  /// row is cut to maxRowLength + 1 bytes.
  struct Packet {
    const Korvo::byte_t* bytes;
    std::size_t length;
  };
  const std::vector<Packet>& packets() const { return packets_; }
  /// Whether the last call received as much as it can: there may be more at once.
  bool full() const { return packets_.size() == batch; }

 private:
  static constexpr std::size_t batch = 64;
  static constexpr std::size_t packetRoom = Korvo::maxRowLength + 1;

  int socket_;
  std::vector<Korvo::byte_t> room_;
  std::vector<iovec> parts_;
  std::vector<mmsghdr> messages_;
  std::vector<Packet> packets_;
};

}  // namespace netdb
