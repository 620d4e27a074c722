#pragma once

// What publishers and subscribers send each other.
//
//    0            4      5       6        8
//   +------------+------+-------+--------+--------
//   | length     | type | flags | table  | body       length: of all that follows it
//   | 4          | 1    | 1     | 2      |            table: the number that the HELLO gave it
//   +------------+------+-------+--------+--------
//
//   subscriber                        publisher
//   HELLO (tables, last positions) ->
//                                  <- WELCOME (epoch, layouts, or why a table is refused)
//                                  <- WHOLE, ROW, DEL ...   a round, in no order
//                                  <- MARK (sequence, rows, digest): the round takes effect
//   ACK (sequence applied)         ->
//                                  <- PULSE where a mark is not possible
//   NOTE, REFUSE                   ->
//   BYE                            <->                      the last frame
//
// Who said in the HELLO that he may ask, and was told in the WELCOME that he will be answered:
//
//   ASK                            ->
//                                  <- TABLE_INFO, SUBSCRIBER_INFO ...   one each
//                                  <- PUBLISHER_INFO                    the answer is complete
//
// The bodies of these four may grow at their ends: what is not known there is passed over.
//
// Numbers are little-endian, texts a length and their bytes.

#include <Korvo/ByteStream.h>
#include <Korvo/TableEngine.h>
#include <Korvo/baseRow.h>
#include <Korvo/layoutText.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Korvo::detail {

enum class FrameType : byte_t {
  hello = 1,
  welcome,
  whole,
  row,
  del,
  mark,
  pulse,
  ack,
  note,
  refuse,
  bye,
  ask = 0x81,
  tableInfo,
  subscriberInfo,
  publisherInfo
};
/// Frames with this bit of the type are skipped by those who do not know it.
inline constexpr byte_t mayBeSkipped = 0x80;

inline constexpr std::string_view wireMagic = "KORVOTAB";
inline constexpr std::uint16_t protocolMin = 1;
inline constexpr std::uint16_t protocolMax = 1;
/// Of HELLO: it may ask. Of WELCOME: it is answered.
inline constexpr std::uint32_t featureAsk = 1;

inline constexpr std::size_t frameHeadLength = 8;
inline constexpr std::size_t lengthFieldLength = 4;
// Values of the length field.
inline constexpr std::size_t maxFrame = maxRowLength + 16;
inline constexpr std::size_t maxLongFrame = std::size_t{1} << 20;  ///< HELLO, WELCOME, TABLE_INFO
inline constexpr std::size_t maxText = 255;
inline constexpr std::size_t maxTables = 256;  ///< of a connection
inline constexpr std::size_t maxOidsOfDel = 4096;

/// What the other side sent is not what it may send; the text tells what.
class ProtocolError : public TableFault {
 public:
  using TableFault::TableFault;
};

enum class ByeReason : byte_t {
  closing = 1,  ///< the sender ends
  changed,      ///< the set of tables changed: come back
  protocol,     ///< a bad frame
  digest,       ///< the rows are not the publisher's
  silence,      ///< nothing was received for too long
  notAllowed,
  tooMany,
  noMemory
};

struct Frame {
  byte_t type = 0;
  std::uint16_t table = 0;
  std::span<const byte_t> body;

  bool is(FrameType wanted) const { return type == static_cast<byte_t>(wanted); }
};

/// Makes frames of the bytes that come, in whatever pieces they come.
class FrameReader {
 public:
  /// Calls `take`, which returns whether it wants more, for each frame that is complete. Throws
  /// ProtocolError for a length out of range, before memory is taken for it, and what `take`
  /// throws.
  template <typename Take>
  void feed(std::span<const byte_t> bytes, const Take& take) {
    while (!bytes.empty()) {
      if (begun_.empty()) {
        if (bytes.size() >= frameHeadLength) {
          const std::size_t length = frameLength(bytes.data());
          if (bytes.size() >= length) {
            if (!take(frame(bytes.first(length)))) return;
            bytes = bytes.subspan(length);
            continue;
          }
        }
      }
      if (!complete(bytes)) return;
      const std::vector<byte_t> whole = std::exchange(begun_, {});
      if (!take(frame(whole))) return;
    }
  }

 private:
  /// With the length field. Throws ProtocolError.
  static std::size_t frameLength(const byte_t* head);
  static Frame frame(std::span<const byte_t> bytes);
  /// Moves bytes to the frame that was begun; false: it needs more.
  bool complete(std::span<const byte_t>& bytes);

  std::vector<byte_t> begun_;
};

/// Writes a frame's body.
class FrameWriter {
 public:
  explicit FrameWriter(FrameType type, std::uint16_t table = 0);

  template <typename Number>
  void number(Number value) {
    bytes_.resize(bytes_.size() + sizeof value);
    storeField(bytes_.data() + bytes_.size() - sizeof value, value);
  }
  /// At most 255 bytes of it.
  void text(std::string_view text);
  void longText(std::string_view text);
  void bytes(std::span<const byte_t> bytes);
  std::size_t size() const { return bytes_.size(); }

  /// The whole frame.
  std::vector<byte_t> take();

 private:
  std::vector<byte_t> bytes_;
};

/// Reads a frame's body; throws ProtocolError where it is too short.
class BodyReader {
 public:
  explicit BodyReader(std::span<const byte_t> body) : rest_(body) {}

  template <typename Number>
  Number number() {
    return loadField<Number>(bytes(sizeof(Number)).data());
  }
  std::string text() { return asText(bytes(number<byte_t>())); }
  std::string longText() { return asText(bytes(number<std::uint32_t>())); }
  std::span<const byte_t> bytes(std::size_t count);
  bool empty() const { return rest_.empty(); }
  /// Throws ProtocolError if anything is left.
  void end() const;

 private:
  static std::string asText(std::span<const byte_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  std::span<const byte_t> rest_;
};

// ---------------------------------------------------------------------------------------------
// Messages. decode() throws ProtocolError, and std::bad_alloc.

struct Hello {
  struct Table {
    std::uint16_t number = 0;
    std::string name;
    std::uint16_t rowType = 0;
    LayoutFingerprint layout;
    std::uint64_t epoch = 0;  ///< 0: no position
    std::uint64_t sequence = 0;
  };
  std::uint16_t protocolMin = detail::protocolMin;
  std::uint16_t protocolMax = detail::protocolMax;
  std::uint32_t features = 0;
  std::uint32_t heartbeat = 0;  ///< milliseconds
  std::string name;
  std::vector<Table> tables;

  std::vector<byte_t> encode() const;
  static Hello decode(std::span<const byte_t> body);
};

struct Welcome {
  struct Table {
    std::uint16_t number = 0;
    bool isAccepted = false;
    std::string refusal;
    LayoutFingerprint layout;
    std::string layoutText;
  };
  std::uint16_t protocol = protocolMax;
  std::uint32_t features = 0;
  std::uint32_t heartbeat = 0;
  std::string name;
  std::uint64_t epoch = 0;
  std::uint64_t head = 0;
  std::vector<Table> tables;

  std::vector<byte_t> encode() const;
  static Welcome decode(std::span<const byte_t> body);
};

struct Mark : TableMark {
  std::uint64_t frames = 0;  ///< WHOLE, ROW and DEL since the last mark

  std::vector<byte_t> encode() const;
  static Mark decode(std::span<const byte_t> body);
};

struct Ack {
  std::uint64_t sequence = 0;
  std::uint64_t refused = 0;

  std::vector<byte_t> encode() const;
  static Ack decode(std::span<const byte_t> body);
};

struct Note {
  std::uint16_t table = 0;
  oid_t oid = 0;
  std::string text;

  std::vector<byte_t> encode() const;
  static Note decode(const Frame& frame);
};

struct Bye {
  ByeReason reason = ByeReason::closing;
  std::string text;

  std::vector<byte_t> encode() const;
  static Bye decode(std::span<const byte_t> body);
};

std::vector<byte_t> encodeRefuse(std::uint16_t table, std::string_view text);

// ---------------------------------------------------------------------------------------------

/// Frames that wait for being sent, one behind the other.
class OutQueue {
 public:
  // They throw std::bad_alloc with all as before.
  void push(std::span<const byte_t> frame);
  void pushRow(std::uint16_t table, const byte_t* row);

  std::size_t size() const { return bytes_.size() - begun_; }
  bool empty() const { return size() == 0; }
  /// The next bytes, `most` at the most; valid until something is called that changes them.
  std::span<const byte_t> next(std::size_t most) const {
    return std::span(bytes_).subspan(begun_, std::min(most, size()));
  }
  void sent(std::size_t count);
  /// Drops the frames of which nothing was sent.
  void dropUnbegun();
  /// Drops all, and gives the memory back.
  void clear() noexcept {
    std::vector<byte_t>().swap(bytes_);
    begun_ = 0;
  }

 private:
  /// The length of the frame that begins there.
  std::size_t frameAt(std::size_t place) const;
  /// The length of all frames that were sent as a whole.
  std::size_t wholeFrames() const;

  std::vector<byte_t> bytes_;  ///< from the first frame on that was not sent as a whole
  std::size_t begun_ = 0;      ///< bytes that were sent; none of a second frame
};

ByteStream::Result writeTo(ByteStream& stream, std::span<const byte_t> bytes);

}  // namespace Korvo::detail
