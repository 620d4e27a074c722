#include "output.h"

#include "failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace korvotool {
namespace {

[[noreturn]] void fail(const std::string& path) {
  throw Failure(statusNoOutput, path + ": " + std::strerror(errno));  // NOLINT: one thread
}

constexpr const char* replacement = "\xEF\xBF\xBD";  // U+FFFD

/// Bytes of the UTF-8 sequence at the front of `text`, or 0 if there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) -> unsigned int {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned int lead = byte(0);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  if (lead >= 0xC2 && lead <= 0xDF) length = 2;
  if (lead >= 0xE0 && lead <= 0xEF) length = 3;
  if (lead >= 0xF0 && lead <= 0xF4) length = 4;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) return 0;
  }
  // Overlong forms, surrogates, and what lies above U+10FFFF.
  const bool bad = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F) ||
                   (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F);
  return bad ? 0 : length;
}

void appendEscape(std::string& to, unsigned int code) {
  constexpr char hexDigits[] = "0123456789abcdef";
  to += "\\u00";
  to += hexDigits[code >> 4];
  to += hexDigits[code & 0xF];
}

}  // namespace

Output::Output() : fd_(STDOUT_FILENO), path_("standard output") {}

Output::Output(const std::string& path) : path_(path) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode)) {  // a device or a pipe stays what it is
    fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) fail(path);
    return;
  }
  temporary_ = path + ".XXXXXX";
  fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
  if (fd_ < 0) fail(path);
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd_, exists ? status.st_mode & 07777 : 0666 & ~mask);
}

Output::~Output() {
  // What was found before a failure is printed all the same.
  if (fd_ == STDOUT_FILENO && !buffer_.empty()) {
    try {
      flush();
    } catch (const Failure&) {  // NOLINT(bugprone-empty-catch): there is a failure already
    }
  }
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) close(fd_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void Output::flush() {
  std::string_view left = buffer_;
  while (!left.empty()) {
    const ssize_t written = ::write(fd_, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      buffer_.clear();
      fail(path_);
    }
    left.remove_prefix(static_cast<std::size_t>(written));
  }
  buffer_.clear();
}

void Output::finish() {
  flush();
  if (fd_ == STDOUT_FILENO) return;
  const int fd = std::exchange(fd_, -1);
  if (close(fd) != 0) fail(path_);
  if (temporary_.empty()) return;
  if (rename(temporary_.c_str(), path_.c_str()) != 0) fail(path_);
  temporary_.clear();
}

bool Output::isTerminal() const {
  return isatty(fd_) != 0;
}

Style::Style(ColourChoice choice, bool isTerminal)
    : colours_(choice == ColourChoice::always || (choice == ColourChoice::automatic && isTerminal &&
                                                  std::getenv("NO_COLOR") == nullptr)) {
}  // NOLINT(concurrency-mt-unsafe)

std::string Style::paint(std::string_view code, std::string_view text) const {
  if (!colours_) return std::string(text);
  return "\x1b[" + std::string(code) + 'm' + std::string(text) + "\x1b[0m";
}

Json& Json::addText(std::string_view text) {
  text_ += '"';
  while (!text.empty()) {
    const char c = text.front();
    const std::size_t length = sequenceLength(text);
    if (static_cast<unsigned char>(c) < 0x20) {
      appendEscape(text_, static_cast<unsigned char>(c));
    } else if (c == '"' || c == '\\') {
      text_ += '\\';
      text_ += c;
    } else if (length == 0) {
      text_ += replacement;
    } else {
      text_ += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  text_ += '"';
  return *this;
}

std::string printable(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    // U+0080 to U+009F are commands too.
    const auto following = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (byte < 0x20 || byte == 0x7F) {
      appendEscape(result, byte);
    } else if (byte == 0xC2 && following >= 0x80 && following < 0xA0) {
      appendEscape(result, following);
      ++i;
    } else if (const std::size_t length = sequenceLength(text.substr(i)); length == 0) {
      result += replacement;  // alone, such a byte may be a command too
    } else {
      result += text.substr(i, length);
      i += length - 1;
    }
  }
  return result;
}

void complain(std::string_view text) {
  std::fprintf(stderr, "korvo: %s\n", printable(text).c_str());
}

std::string counted(std::uint64_t count, const char* what) {
  return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

}  // namespace korvotool
