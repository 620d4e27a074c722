#pragma once

// The frames of the protocol, written by hand from its description.

#include <Korvo/TableRow.h>
#include <Korvo/layoutText.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace wire {

inline constexpr std::uint64_t epoch = 0x1122334455667788;

/// The bytes of numbers and texts, as they stand in frames.
class Bytes {
 public:
  template <typename Number>
  Bytes& number(Number value) {
    char bytes[sizeof value];
    Korvo::storeField(bytes, value);
    text_.append(bytes, sizeof value);
    return *this;
  }
  Bytes& u8(unsigned value) { return number(static_cast<std::uint8_t>(value)); }
  Bytes& u16(unsigned value) { return number(static_cast<std::uint16_t>(value)); }
  Bytes& u32(std::uint32_t value) { return number(value); }
  Bytes& u64(std::uint64_t value) { return number(value); }
  Bytes& raw(std::string_view bytes) {
    text_ += bytes;
    return *this;
  }
  Bytes& text(std::string_view text) { return u8(static_cast<unsigned>(text.size())).raw(text); }
  const std::string& get() const { return text_; }

 private:
  std::string text_;
};

inline std::string frame(unsigned type, unsigned table, const std::string& body) {
  return Bytes()
      .u32(static_cast<std::uint32_t>(4 + body.size()))
      .u8(type)
      .u8(0)
      .u16(table)
      .raw(body)
      .get();
}

enum Type : unsigned { hello = 1, welcome, whole, row, del, mark, pulse, ack, note, refuse, bye };

inline std::string bytesOf(const Korvo::LayoutFingerprint& print) {
  return {reinterpret_cast<const char*>(print.bytes.data()), print.bytes.size()};
}

template <typename Layout>
std::string helloFrame(unsigned from = 1, unsigned to = 1, unsigned features = 0) {
  return frame(hello, 0,
               Bytes()
                   .raw("KORVOTAB")
                   .u16(from)
                   .u16(to)
                   .u32(features)
                   .u32(5000)
                   .text("raw")
                   .u16(1)
                   .u16(3)
                   .text("net/port")
                   .u16(Layout::info.rowType)
                   .raw(bytesOf(Korvo::fingerprint<Layout>()))
                   .u64(0)
                   .u64(0)
                   .get());
}

template <typename Layout>
std::string welcomeFrame(std::string layout = Korvo::layoutText(Layout::info)) {
  return frame(welcome, 0,
               Bytes()
                   .u16(1)
                   .u32(0)
                   .u32(5000)
                   .text("fake")
                   .u64(epoch)
                   .u64(100)
                   .u16(1)
                   .u16(0)
                   .u8(1)
                   .text("")
                   .raw(bytesOf(Korvo::fingerprint<Layout>()))
                   .u32(static_cast<std::uint32_t>(layout.size()))
                   .raw(layout)
                   .get());
}

inline std::string markFrame(std::uint64_t sequence, std::uint64_t frames, std::uint64_t rows,
                             std::uint64_t digest) {
  return frame(mark, 0,
               Bytes().u64(sequence).u64(frames).u64(0).u16(1).u16(0).u64(rows).u64(digest).get());
}

inline std::string rowFrame(const Korvo::BaseRow& sent) {
  return frame(row, 0, std::string(reinterpret_cast<const char*>(sent.rowBuf()), sent.rowLength()));
}

/// The digest of a table with this row alone.
inline std::uint64_t digestOf(const Korvo::BaseRow& sent) {
  constexpr std::uint64_t multiplier = 0x9FB21C651E98DF25U;
  std::string bytes(reinterpret_cast<const char*>(sent.rowBuf()), sent.rowLength());
  std::uint64_t hash = bytes.size() * multiplier;
  bytes.resize((bytes.size() / 8 + 1) * 8);
  for (std::size_t at = 0; at < bytes.size(); at += 8) {
    hash = (hash ^ Korvo::loadField<std::uint64_t>(bytes.data() + at)) * multiplier;
    hash ^= hash >> 32;
  }
  hash *= multiplier;
  return hash ^ hash >> 29;
}

}  // namespace wire
