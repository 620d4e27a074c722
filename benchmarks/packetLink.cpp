#include "packetLink.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace bench {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
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

void RowSender::add(const PrefixRow& row) {
  rows_.push_back(row);
  if (rows_.size() == batch) send();
}

void RowSender::send() {
  std::array<iovec, batch> parts;
  std::array<mmsghdr, batch> messages{};
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    parts[i] = {rows_[i].rowBuf(), rows_[i].rowLength()};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (std::size_t sent = 0; sent < rows_.size();) {
    const int now = ::sendmmsg(socket_, &messages[sent],
                               static_cast<unsigned int>(rows_.size() - sent), MSG_NOSIGNAL);
    if (now < 0) fail("the receiver is gone");
    sent += static_cast<std::size_t>(now);
  }
  rows_.clear();
}

RowReceiver::RowReceiver(int socket)
    : socket_(socket), room_(batch * packetRoom), parts_(batch), messages_(batch) {
  for (std::size_t i = 0; i < batch; ++i) {
    parts_[i] = {room_.data() + i * packetRoom, packetRoom};
    messages_[i].msg_hdr.msg_iov = &parts_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
  }
}

bool RowReceiver::receive() {
  packets_.clear();
  const int count = ::recvmmsg(socket_, messages_.data(), batch, MSG_WAITFORONE, nullptr);
  if (count < 0) fail("receiving rows");
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    if (messages_[i].msg_len == 0) break;  // a closed socket reads so
    packets_.push_back({room_.data() + i * packetRoom, messages_[i].msg_len});
  }
  return !packets_.empty();
}

}  // namespace bench
