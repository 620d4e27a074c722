#pragma once

// Recordings: files of what a publisher told, with the times.
//
//    0          8         12        16
//   +----------+---------+---------+-----------
//   | KORVOREC | version | 0       | records     each: u32 length of what follows it, u8 type,
//   +----------+---------+---------+-----------        u8 0, u16 table, body
//
//   1 PUBLISHER  text: its name
//   2 TABLE      text: the table's name, u32 length and layout text. The table has the number of
//                the record from here on; rows that one of the number had are gone.
//   3 WHOLE      all rows of the table follow; those that are not named until the mark are gone
//   4 ROW        the row, as it was in memory
//   5 REMOVED    u32 oids
//   6 MARK       u64 microseconds since 1970, u64 records since the last mark: what they tell took
//                effect then, as one batch
//
// Numbers are little-endian, texts a byte with their length and their bytes. What no mark follows
// was under way when the recording ended, and does not count.

#include "../failure.h"
#include "../rowFile.h"

#include <Korvo/AnyRow.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvotool {

/// What a recording begins with.
inline constexpr std::string_view recordingMagic = "KORVOREC";
/// What a record has before its body.
inline constexpr std::size_t recordHeadLength = 8;

/// A file is something else.
class NoRecording : public Failure {
 public:
  using Failure::Failure;
};

enum class RecordType : Korvo::byte_t { publisher = 1, table, whole, row, removed, mark };

/// Writes a recording. Throws Failure where it cannot be written.
class RecordingWriter {
 public:
  /// A file that is not there yet; "-" is standard output.
  explicit RecordingWriter(const std::string& path);
  RecordingWriter(const RecordingWriter&) = delete;
  RecordingWriter& operator=(const RecordingWriter&) = delete;
  ~RecordingWriter();

  void publisher(std::string_view name);
  void table(std::uint16_t number, std::string_view name, std::string_view layoutText);
  void whole(std::uint16_t number);
  void row(std::uint16_t number, const Korvo::BaseRow& row);
  void removed(std::uint16_t number, Korvo::oid_t oid);
  /// What came before is in the file when this returns.
  void mark(std::uint64_t time);

 private:
  void record(RecordType type, std::uint16_t number, std::string_view body);
  void flush();

  std::string path_;
  int fd_;
  std::string buffer_;
  std::uint64_t records_ = 0;  ///< since the last mark
};

/// A batch of a recording.
struct RecordedBatch {
  enum class Kind : std::uint8_t { table, whole, row, removed };
  struct Part {
    Kind kind;
    std::uint16_t number;
    Korvo::oid_t oid = 0;
    std::uint64_t offset = 0;  ///< of the record in the file
    std::string bytes = {};    ///< of a row; a table's name
    std::string layoutText = {};
  };
  std::uint64_t time = 0;
  std::vector<Part> parts;
};

/// Reads a recording, which may be packed with gzip or zstd, from the front.
class RecordingReader {
 public:
  /// Throws Failure, for a file that is no recording NoRecording.
  explicit RecordingReader(const std::string& path);

  /// False at the end. Throws Failure for what cannot be read.
  bool next(RecordedBatch& batch);
  const std::string& publisher() const { return publisher_; }
  const std::string& path() const { return path_; }
  /// Bytes at the end that no mark follows; known at the end.
  std::uint64_t torn() const { return offset_ - marked_; }
  /// Where the last mark ends.
  std::uint64_t marked() const { return marked_; }

 private:
  /// Fewer than `count` only at the end.
  std::size_t read(void* to, std::size_t count);
  [[noreturn]] void fail(const std::string& what) const;

  std::string path_;
  std::unique_ptr<Bytes> source_;
  std::string publisher_;
  std::uint64_t offset_ = 0;
  std::uint64_t marked_ = 0;
  std::uint64_t record_ = 0;  ///< where the present record begins
};

}  // namespace korvotool
