#include "rangeFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

namespace netdb {
namespace {

using Korvo::Ip6Addr;
using Korvo::IpAddr;
using Korvo::IpGenAddr;

[[noreturn]] void refuse(const std::string& reason) {
  throw std::invalid_argument(reason);
}

/// A piece of a file as a person may see it: what is not plain text does not reach the terminal,
/// and what is very long is cut.
std::string shown(std::string_view text) {
  constexpr std::size_t longest = 60;
  constexpr char digits[] = "0123456789abcdef";
  std::string result;
  for (const char c : text.substr(0, longest)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F) {
      result += c;
    } else {
      (result += "\\x") += {digits[byte >> 4], digits[byte & 15]};
    }
  }
  return text.size() > longest ? result + "..." : result;
}

IpGenAddr parseAddress(std::string_view text) {
  if (text.empty()) refuse("an address is missing");
  if (text.find_first_not_of("0123456789") == text.npos) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) refuse("no IPv4 address: " + shown(text));
    return IpAddr(__builtin_bswap32(number));  // the word is in network order
  }
  // The library's parser takes what is no digit for the end of a group; a data file should not
  // hold any.
  if (text.find_first_not_of("0123456789abcdefABCDEF:") != text.npos) {
    refuse("no IPv6 address: " + shown(text));
  }
  try {
    return Ip6Addr(std::string(text));
  } catch (const Korvo::KoInvalidArgument&) {
    refuse("no IPv6 address: " + shown(text));
  }
}

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isAlnum(char c) {
  return isUpper(c) || (c >= '0' && c <= '9');
}

}  // namespace

RangeLine parseRangeLine(std::string_view text) {
  std::array<std::string_view, 3> fields;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const std::size_t comma = text.find(',');
    if ((comma == text.npos) != (i + 1 == fields.size())) refuse("not three fields");
    fields[i] = text.substr(0, comma);
    text.remove_prefix(comma == text.npos ? text.size() : comma + 1);
  }
  RangeLine line;
  line.range = {parseAddress(fields[0]), parseAddress(fields[1])};
  if (line.range.first.af() != line.range.last.af()) refuse("addresses of two families");
  if (line.range.last < line.range.first) refuse("the last address is before the first");
  const std::string_view country = fields[2];
  const bool known = country.size() == 2 && isUpper(country[0]) && isAlnum(country[1]);
  if (!known && country != "??") refuse("no country code: " + shown(country));
  line.country = country;
  return line;
}

RangeFile::RangeFile(const std::string& path, Complaint complaint)
    : path_(path),
      name_(std::filesystem::path(path).filename().string()),
      complaint_(std::move(complaint)),
      file_(path, std::ios::binary) {
  if (!file_) throw InputError(path + ": " + std::strerror(errno));
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw InputError(path + ": is a directory");
  size_ = std::filesystem::file_size(path, error);
  if (error) size_ = 0;  // a pipe has none
}

bool RangeFile::next(RangeLine& out) {
  while (std::getline(file_, text_)) {
    ++line_;
    bytesRead_ += text_.size() + 1;
    std::string_view text = text_;
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    if (text.empty() || text.front() == '#') continue;
    try {
      out = parseRangeLine(text);
      out.line = line_;
      return true;
    } catch (const std::invalid_argument& e) {
      complaint_(line_, e.what());
    }
  }
  if (file_.bad()) throw InputError(path_ + ": reading failed");
  return false;
}

}  // namespace netdb
