#include "rowLink.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace netdb {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

bool wouldBlock() {
  return errno == EAGAIN;
}

bool hungUp(int socket) {
  pollfd entry{socket, POLLRDHUP, 0};
  return ::poll(&entry, 1, 0) == 1;
}

}  // namespace

void Descriptor::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

RowSockets::RowSockets() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) fail("socketpair");
  publisher = Descriptor(pair[0]);
  subscriber = Descriptor(pair[1]);
}

bool RowSender::send(bool wait) {
  std::array<iovec, batch> parts;
  std::array<mmsghdr, batch> messages;
  while (sent_ < rows_.size()) {
    const std::size_t count = std::min(rows_.size() - sent_, batch);
    for (std::size_t i = 0; i < count; ++i) {
      const PrefixRow& row = rows_[sent_ + i];
      parts[i] = {row.rowBuf(), row.rowLength()};
      messages[i] = {};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = ::sendmmsg(socket_, messages.data(), static_cast<unsigned int>(count),
                                MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (!wait && wouldBlock()) return false;
      fail("the subscriber is gone");
    }
    sent_ += static_cast<std::size_t>(sent);
    if (!wait && static_cast<std::size_t>(sent) < count) return false;  // the next would block
  }
  rows_.clear();
  sent_ = 0;
  return true;
}

bool RowSender::sendEnd(bool wait) {
  std::array<Korvo::byte_t, Korvo::rowHeaderLength> end{};
  Korvo::storeField<Korvo::len_t>(end.data() + Korvo::rowLengthOffset, end.size());
  Korvo::storeField<std::uint16_t>(end.data() + Korvo::rowTypeOffset, endOfRowsType);
  for (;;) {
    const int flags = MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT);
    if (::send(socket_, end.data(), end.size(), flags) >= 0) return true;
    if (errno == EINTR) continue;
    if (!wait && wouldBlock()) return false;
    fail("the subscriber is gone");
  }
}

RowReceiver::RowReceiver(int socket)
    : socket_(socket), room_(batch * packetRoom), parts_(batch), messages_(batch) {
  for (std::size_t i = 0; i < batch; ++i) {
    parts_[i] = {room_.data() + i * packetRoom, packetRoom};
    messages_[i].msg_hdr.msg_iov = &parts_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
  }
}

RowReceiver::Result RowReceiver::receive(bool wait) {
  packets_.clear();
  int count;
  do {
    count =
        ::recvmmsg(socket_, messages_.data(), batch, wait ? MSG_WAITFORONE : MSG_DONTWAIT, nullptr);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    if (!wait && wouldBlock()) return Result::wouldBlock;
    if (errno == ECONNRESET) return Result::closed;
    fail("receiving rows");
  }
  auto end = static_cast<std::size_t>(count);
  if (messages_[end - 1].msg_len == 0 && hungUp(socket_)) {
    // A closed socket reads as empty packets without end; others are rows torn to nothing.
    while (end != 0 && messages_[end - 1].msg_len == 0) --end;
  }
  for (std::size_t i = 0; i < end; ++i) {
    packets_.push_back({room_.data() + i * packetRoom, messages_[i].msg_len});
  }
  return packets_.empty() ? Result::closed : Result::received;
}

}  // namespace netdb
