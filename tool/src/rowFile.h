#pragma once

// Files of rows, one behind the other, read from the front in a fixed amount of memory.

#include "layouts.h"

#include <Korvo/rowCheck.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvotool {

/// Bytes that come from somewhere.
class Bytes {
 public:
  Bytes() = default;
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
  virtual ~Bytes() = default;

  /// Up to `room` bytes, none only at the end. Throws Failure.
  virtual std::size_t read(void* to, std::size_t room) = 0;
};

/// Whether files that look like gzip or zstd are unpacked.
enum class Compression { detect, none };

/// Opens a file; "-" is standard input. Throws Failure.
std::unique_ptr<Bytes> openBytes(const std::string& path, Compression compression);

/// A piece of a file of rows. The bytes are valid until the next one is read.
struct Piece {
  enum class Kind : std::uint8_t {
    good,     ///< a row that passed the check
    faulty,   ///< a row that did not, but has a header and a known end
    skipped,  ///< bytes that are no row, up to where rows were found again, or the end
  };
  Kind kind = Kind::good;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  const Korvo::byte_t* bytes = nullptr;  ///< null for what was skipped
  const NamedLayout* layout = nullptr;   ///< null if none is known
  Korvo::RowFault fault;                 ///< where it was the check that found something
  std::string reason;
  bool atEnd = false;  ///< nothing was found behind what was skipped

  // Of rows:
  std::size_t size() const { return static_cast<std::size_t>(length); }
  std::uint16_t rowType() const {
    return Korvo::loadField<std::uint16_t>(bytes + Korvo::rowTypeOffset);
  }
  Korvo::oid_t oid() const { return Korvo::loadField<Korvo::oid_t>(bytes + Korvo::rowOidOffset); }
  /// What is wrong, in one line: "byte 52: row of 40 bytes, type 7, oid 3: two values ...".
  std::string text() const;
};

struct ReadRules {
  Compression compression = Compression::detect;
  Korvo::PrefixRule prefixes = Korvo::PrefixRule::anyBits;
  bool showsProgress = false;
};

/// Rows from somewhere, with what is wrong among them.
class RowSource {
 public:
  RowSource() = default;
  RowSource(const RowSource&) = delete;
  RowSource& operator=(const RowSource&) = delete;
  virtual ~RowSource() = default;

  /// False at the end. Good rows that were not asked for are passed over. Throws Failure where the
  /// file cannot be read.
  virtual bool next(Piece& piece) = 0;
  virtual const std::string& path() const = 0;
};

/// Reads a file of rows. Where one does not pass the check, its length is believed if a row may
/// begin behind it, or if none begins before. Otherwise the next place is looked for where a row
/// passes and another one, or the end, may follow; not one of a type that is nested in others,
/// which may be a part of a damaged row. Without layouts, any row with a length is good.
class RowFile final : public RowSource {
 public:
  /// The layouts stay with the caller. Throws Failure, also for a recording, unless compression is
  /// not detected: then nothing is.
  RowFile(const std::string& path, const Layouts& layouts, const ReadRules& rules);
  ~RowFile() override;

  bool next(Piece& piece) override;
  const std::string& path() const override { return path_; }

 private:
  // Three rows at least, of which the last one's header; no more than a processor keeps at hand.
  static constexpr std::size_t bufferSize = std::size_t{1} << 18;

  /// Whether `count` bytes are there, from the present one.
  bool has(std::size_t count) { return end_ - at_ >= count || fill(count); }
  bool fill(std::size_t count);
  bool nextOfAny(Piece& piece);
  const Korvo::byte_t* here() const { return buffer_.data() + at_; }
  const NamedLayout* layoutOf(std::uint16_t rowType);
  void advance(std::size_t count) {
    at_ += count;
    offset_ += count;
  }
  /// Whether a row may begin that many bytes from here, or the file ends there.
  bool mayFollow(std::size_t distance);
  /// Whether a row that passes the check begins that many bytes from here, and another may follow.
  bool goodAt(std::size_t distance);
  /// The first such place before a limit.
  std::optional<std::size_t> goodBefore(std::size_t limit);
  void readFaulty(Piece& piece);
  void progress();

  std::string path_;
  const Layouts& layouts_;
  ReadRules rules_;
  std::unique_ptr<Bytes> source_;
  std::vector<Korvo::byte_t> buffer_;
  std::size_t at_ = 0;
  std::size_t end_ = 0;
  std::uint64_t offset_ = 0;  // of the present byte
  bool sourceEnded_ = false;
  const NamedLayout* last_ = nullptr;
  std::size_t lastPiece_ = 0;  // bytes of the last piece, still to be advanced over
  std::uint64_t told_ = 0;     // progress, in bytes
};

}  // namespace korvotool
