#include "recording.h"

#include "../failure.h"
#include "../output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace korvotool {
namespace {

using Korvo::byte_t;
using Korvo::loadField;
using Korvo::oid_t;
using Korvo::storeField;

constexpr std::uint32_t version = 1;
constexpr std::size_t headLength = 16;
constexpr std::size_t lengthField = 4;
/// A layout's text with the table's name.
constexpr std::size_t mostBytes = Korvo::maxLayoutText + 1024;
constexpr std::size_t bufferSize = std::size_t{1} << 16;

template <typename Number>
std::string bytesOf(Number number) {
  std::string bytes(sizeof number, '\0');
  storeField(bytes.data(), number);
  return bytes;
}

std::string textBytes(std::string_view text) {
  constexpr std::size_t most = 255;
  text = text.substr(0, most);
  return static_cast<char>(text.size()) + std::string(text);
}

/// Takes a record's body apart.
class Body {
 public:
  explicit Body(std::string_view bytes) : rest_(bytes) {}
  template <typename Number>
  Number number() {
    return loadField<Number>(reinterpret_cast<const byte_t*>(take(sizeof(Number)).data()));
  }
  std::string text() { return std::string(take(number<byte_t>())); }
  std::string longText() { return std::string(take(number<std::uint32_t>())); }
  bool isGood() const { return isGood_ && rest_.empty(); }

 private:
  std::string_view take(std::size_t count) {
    static constexpr char zeros[8] = {};
    if (count > rest_.size()) {
      isGood_ = false;
      rest_ = {};
      return {zeros, std::min(count, sizeof zeros)};
    }
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }
  std::string_view rest_;
  bool isGood_ = true;
};

[[noreturn]] void failToWrite(const std::string& path) {
  throw Failure(statusNoOutput, path + ": " + std::strerror(errno));  // NOLINT: one thread
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path)
    : path_(path == "-" ? "standard output" : path),
      fd_(path == "-" ? STDOUT_FILENO
                      : open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
  if (fd_ < 0) failToWrite(path_);
  buffer_ = std::string(recordingMagic) + bytesOf(version) + bytesOf(std::uint32_t{0});
  flush();
}

RecordingWriter::~RecordingWriter() {
  if (fd_ != STDOUT_FILENO) close(fd_);
}

void RecordingWriter::flush() {
  std::string_view left = buffer_;
  while (!left.empty()) {
    const ssize_t written = write(fd_, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) failToWrite(path_);
    left.remove_prefix(static_cast<std::size_t>(written));
  }
  buffer_.clear();
}

void RecordingWriter::record(RecordType type, std::uint16_t number, std::string_view body) {
  buffer_ += bytesOf(static_cast<std::uint32_t>(recordHeadLength - lengthField + body.size()));
  buffer_ += static_cast<char>(type);
  buffer_ += '\0';
  buffer_ += bytesOf(number);
  buffer_ += body;
  ++records_;
  if (buffer_.size() >= bufferSize) flush();
}

void RecordingWriter::publisher(std::string_view name) {
  record(RecordType::publisher, 0, textBytes(name));
}

void RecordingWriter::table(std::uint16_t number, std::string_view name,
                            std::string_view layoutText) {
  std::string body = textBytes(name) + bytesOf(static_cast<std::uint32_t>(layoutText.size()));
  body += layoutText;
  record(RecordType::table, number, body);
}

void RecordingWriter::whole(std::uint16_t number) {
  record(RecordType::whole, number, {});
}

void RecordingWriter::row(std::uint16_t number, const Korvo::BaseRow& row) {
  record(RecordType::row, number,
         {reinterpret_cast<const char*>(row.rowBuf()), std::size_t{row.rowLength()}});
}

void RecordingWriter::removed(std::uint16_t number, oid_t oid) {
  record(RecordType::removed, number, bytesOf(oid));
}

void RecordingWriter::mark(std::uint64_t time) {
  const std::uint64_t records = std::exchange(records_, 0);
  record(RecordType::mark, 0, bytesOf(time) + bytesOf(records));
  records_ = 0;
  flush();
}

// ---------------------------------------------------------------------------------------------

RecordingReader::RecordingReader(const std::string& path)
    : path_(path == "-" ? "standard input" : path), source_(openBytes(path, Compression::detect)) {
  char head[headLength] = {};
  const bool isWhole = read(head, sizeof head) == sizeof head;
  if (!isWhole || std::string_view(head, recordingMagic.size()) != recordingMagic) {
    throw NoRecording(statusBadData, path_ + ": is no recording");
  }
  const auto its =
      loadField<std::uint32_t>(reinterpret_cast<const byte_t*>(head) + recordingMagic.size());
  if (its != version) {
    throw Failure(statusBadData, path_ + ": a recording of version " + std::to_string(its) +
                                     ", and this korvo knows version " + std::to_string(version));
  }
  marked_ = offset_;
}

std::size_t RecordingReader::read(void* to, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    const std::size_t length = source_->read(static_cast<char*>(to) + done, count - done);
    if (length == 0) break;
    done += length;
  }
  offset_ += done;
  return done;
}

void RecordingReader::fail(const std::string& what) const {
  throw Failure(statusBadData, path_ + ": byte " + std::to_string(record_) + ": " + what);
}

bool RecordingReader::next(RecordedBatch& batch) {
  batch.parts.clear();
  std::uint64_t records = 0;
  for (std::string bytes;; ++records) {
    record_ = offset_;
    byte_t head[recordHeadLength] = {};
    if (read(head, sizeof head) < sizeof head) return false;
    const std::size_t length = loadField<std::uint32_t>(head);
    if (length < recordHeadLength - lengthField || length > mostBytes) {
      fail("a record of " + counted(length, "byte"));
    }
    bytes.resize(length - (recordHeadLength - lengthField));
    if (read(bytes.data(), bytes.size()) < bytes.size()) return false;
    const auto number = loadField<std::uint16_t>(head + 6);
    Body body(bytes);
    RecordedBatch::Part part{RecordedBatch::Kind::whole, number, 0, record_};
    switch (static_cast<RecordType>(head[lengthField])) {
      case RecordType::publisher:
        publisher_ = body.text();
        if (!body.isGood()) fail("a record that is too short or too long");
        continue;
      case RecordType::table:
        part.kind = RecordedBatch::Kind::table;
        part.bytes = body.text();
        part.layoutText = body.longText();
        break;
      case RecordType::whole:
        break;
      case RecordType::row:
        part.kind = RecordedBatch::Kind::row;
        if (bytes.size() < Korvo::rowHeaderLength) fail("a row without its header");
        part.oid =
            loadField<oid_t>(reinterpret_cast<const byte_t*>(bytes.data()) + Korvo::rowOidOffset);
        part.bytes = bytes;
        body = Body("");
        break;
      case RecordType::removed:
        if (bytes.size() % sizeof(oid_t) != 0) fail("half an oid");
        for (std::size_t at = 0; at < bytes.size(); at += sizeof(oid_t)) {
          batch.parts.push_back(
              {RecordedBatch::Kind::removed, number, body.number<oid_t>(), record_});
        }
        continue;
      case RecordType::mark: {
        batch.time = body.number<std::uint64_t>();
        const auto told = body.number<std::uint64_t>();
        if (!body.isGood()) fail("a record that is too short or too long");
        if (told != records) {
          fail("a mark of " + counted(told, "record") + " behind " + std::to_string(records));
        }
        marked_ = offset_;
        return true;
      }
      default:
        fail("a record of type " + std::to_string(head[lengthField]));
    }
    if (!body.isGood()) fail("a record that is too short or too long");
    batch.parts.push_back(std::move(part));
  }
}

}  // namespace korvotool
