#include "rowFile.h"

#include "failure.h"
#include "output.h"
#include "tables/recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#ifdef KORVO_WITH_ARCHIVE
#include <archive.h>
#include <archive_entry.h>
#endif

namespace korvotool {
namespace {

using Korvo::byte_t;
using Korvo::len_t;
using Korvo::loadField;

[[noreturn]] void failAt(const std::string& path, ExitStatus status = statusNoInput) {
  throw Failure(status, path + ": " + std::strerror(errno));  // NOLINT(concurrency-mt-unsafe)
}

std::string shownPath(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

/// A file, or standard input, as it is. What was read to have a look at it is read again.
class PlainBytes : public Bytes {
 public:
  explicit PlainBytes(const std::string& path) : path_(shownPath(path)) {
    fd_ = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) failAt(path_);
    struct stat status {};
    if (fstat(fd_, &status) != 0) failAt(path_);
    if (S_ISDIR(status.st_mode)) throw Failure(statusNoInput, path_ + ": is a directory");
  }
  ~PlainBytes() override {
    if (fd_ != STDIN_FILENO) close(fd_);
  }

  std::size_t read(void* to, std::size_t room) override {
    if (!front_.empty()) {
      const std::size_t count = front_.copy(static_cast<char*>(to), room);
      front_.erase(0, count);
      return count;
    }
    return readOn(to, room);
  }
  /// Up to `count` bytes at the front.
  const std::string& front(std::size_t count) {
    while (front_.size() < count) {
      char piece[4096];
      const std::size_t length = readOn(piece, sizeof piece);
      if (length == 0) break;
      front_.append(piece, length);
    }
    return front_;
  }
  const std::string& path() const { return path_; }

 private:
  std::size_t readOn(void* to, std::size_t room) {
    while (true) {
      const ssize_t count = ::read(fd_, to, room);
      if (count >= 0) return static_cast<std::size_t>(count);
      if (errno != EINTR) failAt(path_);
    }
  }

  std::string path_;
  int fd_ = -1;
  std::string front_;
};

bool looksCompressed(std::string_view front) {
  using namespace std::string_view_literals;
  return front.starts_with("\x1F\x8B\x08"sv) || front.starts_with("\x28\xB5\x2F\xFD"sv);
}

#ifdef KORVO_WITH_ARCHIVE

/// What a gzip or zstd file holds.
class UnpackedBytes : public Bytes {
 public:
  explicit UnpackedBytes(std::unique_ptr<PlainBytes> packed)
      : packed_(std::move(packed)), archive_(archive_read_new()), piece_(pieceSize) {
    if (archive_ == nullptr) throw std::bad_alloc();
    archive_read_support_filter_gzip(archive_);
    archive_read_support_filter_zstd(archive_);
    archive_read_support_format_raw(archive_);
    archive_read_support_format_empty(archive_);
    archive_entry* entry = nullptr;
    if (archive_read_open(archive_, this, nullptr, readPacked, nullptr) != ARCHIVE_OK) fail();
    const int status = archive_read_next_header(archive_, &entry);
    isEmpty_ = status == ARCHIVE_EOF;
    if (status != ARCHIVE_OK && !isEmpty_) fail();
  }
  ~UnpackedBytes() override { archive_read_free(archive_); }

  std::size_t read(void* to, std::size_t room) override {
    if (isEmpty_) return 0;
    const la_ssize_t count = archive_read_data(archive_, to, room);
    if (count < 0) fail();
    return static_cast<std::size_t>(count);
  }

 private:
  static constexpr std::size_t pieceSize = std::size_t{1} << 16;

  static la_ssize_t readPacked(archive* /*unused*/, void* self, const void** piece) {
    auto& bytes = *static_cast<UnpackedBytes*>(self);
    *piece = bytes.piece_.data();
    try {
      return static_cast<la_ssize_t>(bytes.packed_->read(bytes.piece_.data(), pieceSize));
    } catch (const Failure& e) {
      bytes.readFailure_ = e.what();
      return -1;
    }
  }
  [[noreturn]] void fail() {
    const char* const reason = archive_error_string(archive_);
    const std::string text = packed_->path() + ": " + (reason != nullptr ? reason : "damaged");
    archive_read_free(std::exchange(archive_, nullptr));
    if (!readFailure_.empty()) throw Failure(statusNoInput, readFailure_);
    throw Failure(statusBadData, text);
  }

  std::unique_ptr<PlainBytes> packed_;
  archive* archive_;
  std::vector<byte_t> piece_;
  std::string readFailure_;
  bool isEmpty_ = false;
};

#endif

}  // namespace

std::unique_ptr<Bytes> openBytes(const std::string& path, Compression compression) {
  auto plain = std::make_unique<PlainBytes>(path);
  constexpr std::size_t magicLength = 4;
  if (compression == Compression::none || !looksCompressed(plain->front(magicLength))) return plain;
#ifdef KORVO_WITH_ARCHIVE
  return std::make_unique<UnpackedBytes>(std::move(plain));
#else
  throw Failure(statusBadData, plain->path() +
                                   ": gzip and zstd files are not read by this build of korvo; "
                                   "--plain takes the bytes as they are");
#endif
}

std::string Piece::text() const {
  if (kind != Kind::skipped) {
    return "byte " + std::to_string(offset) + ": row of " + counted(length, "byte") + ", type " +
           std::to_string(rowType()) + ", oid " + std::to_string(oid()) + ": " + reason;
  }
  return "byte " + std::to_string(offset) + ": " + reason + "; " + counted(length, "byte") +
         " skipped, " +
         (atEnd ? "no row behind them" : "rows go on at byte " + std::to_string(offset + length));
}

RowFile::RowFile(const std::string& path, const Layouts& layouts, const ReadRules& rules)
    : path_(shownPath(path)),
      layouts_(layouts),
      rules_(rules),
      source_(openBytes(path, rules.compression)),
      buffer_(bufferSize) {
  if (rules.compression == Compression::none || !has(recordingMagic.size())) return;
  const auto* const front = reinterpret_cast<const char*>(here());
  if (std::string_view(front, recordingMagic.size()) != recordingMagic) return;
  throw Failure(statusUsage, path_ +
                                 ": is a recording, whose tables have their layouts: korvo show "
                                 "and check read it without --layout, korvo replay prints it");
}

RowFile::~RowFile() {
  if (told_ != 0) std::fputs("\r\x1b[K", stderr);
}

bool RowFile::fill(std::size_t count) {
  if (sourceEnded_) return false;
  std::memmove(buffer_.data(), buffer_.data() + at_, end_ - at_);
  end_ -= at_;
  at_ = 0;
  while (end_ < count) {
    const std::size_t length = source_->read(buffer_.data() + end_, buffer_.size() - end_);
    if (length == 0) {
      sourceEnded_ = true;
      return false;
    }
    end_ += length;
  }
  if (rules_.showsProgress) progress();
  return true;
}

void RowFile::progress() {
  constexpr std::uint64_t step = std::uint64_t{1} << 25;
  if (offset_ - told_ < step) return;
  told_ = offset_;
  std::fprintf(stderr, "\r%s: %llu MiB\x1b[K", printable(path_).c_str(),
               static_cast<unsigned long long>(offset_ >> 20));
}

const NamedLayout* RowFile::layoutOf(std::uint16_t rowType) {
  if (last_ == nullptr || last_->layout.info().rowType != rowType)
    last_ = layouts_.findAny(rowType);
  return last_;
}

bool RowFile::next(Piece& piece) {
  while (true) {
    if (!nextOfAny(piece)) return false;
    const bool isOther = piece.kind == Piece::Kind::good && piece.layout != nullptr &&
                         layouts_.find(piece.rowType()) == nullptr;
    if (!isOther) return true;
  }
}

bool RowFile::nextOfAny(Piece& piece) {
  advance(std::exchange(lastPiece_, 0));
  if (!has(1)) return false;
  piece.kind = Piece::Kind::good;
  piece.offset = offset_;
  piece.fault = {};
  piece.layout = nullptr;
  if (has(Korvo::rowHeaderLength)) {
    const std::size_t length = loadField<len_t>(here());
    if (length >= Korvo::rowHeaderLength && has(length)) {
      const byte_t* const row = here();
      piece.bytes = row;
      piece.length = length;
      piece.layout = layoutOf(loadField<std::uint16_t>(row + Korvo::rowTypeOffset));
      lastPiece_ = length;
      if (layouts_.empty()) return true;
      if (piece.layout != nullptr) {
        piece.fault = Korvo::checkRow(row, length, piece.layout->layout.info(), rules_.prefixes);
        if (!piece.fault) return true;
      }
    }
  }
  lastPiece_ = 0;
  readFaulty(piece);
  return true;
}

bool RowFile::mayFollow(std::size_t distance) {
  if (!has(distance + 1)) return true;  // the file ends there, or before it
  if (!has(distance + Korvo::rowHeaderLength)) return false;
  const byte_t* const header = here() + distance;
  const std::size_t length = loadField<len_t>(header);
  if (layouts_.empty()) return length >= Korvo::rowHeaderLength;
  const NamedLayout* const layout =
      layouts_.findAny(loadField<std::uint16_t>(header + Korvo::rowTypeOffset));
  return layout != nullptr && length >= layout->layout.info().baseLength;
}

bool RowFile::goodAt(std::size_t distance) {
  if (!has(distance + Korvo::rowHeaderLength)) return false;
  const std::size_t length = loadField<len_t>(here() + distance);
  const auto rowType = loadField<std::uint16_t>(here() + distance + Korvo::rowTypeOffset);
  const NamedLayout* const layout = layouts_.findAny(rowType);
  // A row that may be a part of another is none to begin again with.
  if (layout == nullptr || layouts_.isNested(rowType)) return false;
  if (length < layout->layout.info().baseLength || !has(distance + length)) return false;
  return !Korvo::checkRow(here() + distance, length, layout->layout.info(), rules_.prefixes) &&
         mayFollow(distance + length);
}

std::optional<std::size_t> RowFile::goodBefore(std::size_t limit) {
  for (std::size_t distance = 1; distance < limit; ++distance) {
    if (goodAt(distance)) return distance;
  }
  return std::nullopt;
}

/// What begins here is no good row. Tells why, and finds its end.
void RowFile::readFaulty(Piece& piece) {
  const bool hasHeader = has(Korvo::rowHeaderLength);
  const std::size_t length = hasHeader ? loadField<len_t>(here()) : 0;
  const bool hasAll = length >= Korvo::rowHeaderLength && has(length);
  if (!hasHeader) {
    piece.reason = counted(end_ - at_, "byte") + " at the end, fewer than a row header";
  } else if (length < Korvo::rowHeaderLength) {
    piece.reason = "a row of " + counted(length, "byte") + " has no room for its header";
  } else if (!hasAll) {
    piece.reason = "a row of " + counted(length, "byte") + " begins, of which " +
                   std::to_string(end_ - at_) + " are there";
  } else if (piece.layout == nullptr) {
    piece.reason = "no layout is known for this row type";
  } else {
    piece.reason = piece.fault.text();
  }
  // A length is believed if a row may begin behind it, or else if the header is one of a row and
  // none begins before its end.
  const bool hasRowHeader =
      hasAll && piece.layout != nullptr && length >= piece.layout->layout.info().baseLength;
  if (hasAll && (mayFollow(length) || (hasRowHeader && !goodBefore(length)))) {
    piece.kind = Piece::Kind::faulty;
    piece.bytes = here();
    piece.length = length;
    lastPiece_ = length;
    return;
  }
  piece.kind = Piece::Kind::skipped;
  piece.bytes = nullptr;
  const std::uint64_t begin = offset_;
  do {
    advance(1);
  } while (has(Korvo::rowHeaderLength) && (layouts_.empty() || !goodAt(0)));
  piece.atEnd = !has(Korvo::rowHeaderLength);
  if (piece.atEnd) advance(end_ - at_);
  piece.length = offset_ - begin;
}

}  // namespace korvotool
