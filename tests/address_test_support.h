#pragma once

// What the tests of addresses and prefixes share: the parsers once more, slow and step by step, and
// addresses as plain bits.

#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "text_test_support.h"

using StorageBytes = std::array<unsigned char, 16>;

inline StorageBytes storageOf(const Korvo::Ip6Addr& addr) {
  StorageBytes bytes{};
  std::copy(addr.bytes(), addr.bytes() + 16, bytes.begin());
  return bytes;
}

inline StorageBytes storageOf(const Korvo::IpGenAddr& addr) {
  StorageBytes bytes{};
  std::copy(addr.bytes(), addr.bytes() + 16, bytes.begin());
  return bytes;
}

/// The first four bytes given, the rest zero.
inline StorageBytes v4Storage(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
  return {a, b, c, d};
}

/// The four bytes of an IPv4 address in memory.
inline std::array<unsigned char, 4> bytesOf(unsigned int word) {
  std::array<unsigned char, 4> bytes{};
  Korvo::storeField(bytes.data(), word);
  return bytes;
}

inline Korvo::IpAddr v4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
  const unsigned char bytes[4] = {a, b, c, d};
  return Korvo::IpAddr(Korvo::loadField<std::uint32_t>(bytes));
}

inline Korvo::Ip6Addr v6(const StorageBytes& bytes) {
  return Korvo::Ip6Addr(bytes.data());
}

/// Text that shows every byte, for failure messages.
inline std::string shown(const std::string& text) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string result = "\"";
  for (const char c : text) {
    if (c >= ' ' && c <= '~') {
      result += c;
    } else {
      result += "\\x";
      result += digits[static_cast<unsigned char>(c) >> 4];
      result += digits[static_cast<unsigned char>(c) & 0x0F];
    }
  }
  return result + "\"";
}

// ---------------------------------------------------------------------------------------------
// Outcomes: a value, or an exception's class name and message

struct Failure {
  std::string name;
  std::string message;

  friend bool operator==(const Failure&, const Failure&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Failure& failure) {
    return os << failure.name << ": " << shown(failure.message);
  }
};

/// The message as what() shows it: up to the first NUL byte of the text in it.
inline Failure invalidArgument(const std::string& message) {
  return {"Korvo::KoInvalidArgument", message.c_str()};
}
inline Failure outOfRange(const std::string& message) {
  return {"Korvo::OutOfRange", message};
}
inline Failure invalidAddress(const std::string& text) {
  return invalidArgument("Invalid Address - (" + text + ")");
}

inline const Failure hostBitsFailure = outOfRange("Invalid Prefix - non-zero after prefixlen");
inline const Failure familyFailure =
    invalidArgument("Cannot change between ipv4 and ipv6 address family types");

/// What the action throws, which must be one of the two classes that addresses throw; nothing if it
/// does not throw.
template <typename Action>
std::optional<Failure> failureOf(const Action& action) {
  try {
    action();
  } catch (const Korvo::KoInvalidArgument& thrown) {
    return Failure{thrown.name(), thrown.what()};
  } catch (const Korvo::KoOutOfRange& thrown) {
    return Failure{thrown.name(), thrown.what()};
  }
  return std::nullopt;
}

template <typename Value>
using Outcome = std::variant<Value, Failure>;

// ---------------------------------------------------------------------------------------------
// The parsers, step by step

namespace oracle {

/// The pieces that the standard line-reading operation makes, without the empty ones.
inline std::vector<std::string> split(const std::string& text, char delim) {
  std::istringstream in(text);
  std::vector<std::string> pieces;
  for (std::string piece; std::getline(in, piece, delim);) {
    if (!piece.empty()) pieces.push_back(piece);
  }
  return pieces;
}

/// strtoul with a 32-bit unsigned long, from one that may be wider.
inline std::uint32_t toUnsigned(const std::string& text, int base) {
  std::size_t at = 0;
  while (at < text.size() && std::string(" \t\n\v\f\r").find(text[at]) != std::string::npos) ++at;
  const bool isNegative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
  // The system's conversion would skip white space and a second sign here.
  if (at == text.size() || !std::isxdigit(static_cast<unsigned char>(text[at]))) return 0;
  const unsigned long long magnitude = std::strtoull(text.c_str() + at, nullptr, base);
  if (magnitude > 0xFFFFFFFFULL) return 0xFFFFFFFFU;
  const auto value = static_cast<std::uint32_t>(magnitude);
  return isNegative ? 0U - value : value;
}

/// Four parts between dots, each of decimal digits only and at most 255.
inline std::optional<std::array<unsigned char, 4>> v4(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == '.') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  if (parts.size() != 4) return std::nullopt;
  std::array<unsigned char, 4> bytes{};
  for (std::size_t i = 0; i < 4; ++i) {
    std::string part = parts[i];
    if (part.empty() || part.find_first_not_of("0123456789") != part.npos) return std::nullopt;
    part.erase(0, std::min(part.find_first_not_of('0'), part.size() - 1));
    if (part.size() > 3 || std::stoi(part) > 255) return std::nullopt;
    bytes[i] = static_cast<unsigned char>(std::stoi(part));
  }
  return bytes;
}

inline Outcome<std::string> expandedV6(const std::string& text) {
  const std::size_t first = text.find("::");
  if (first == text.npos) return text;
  if (text.find("::", first + 2) != text.npos) return invalidAddress(text);
  long n = static_cast<long>(std::count(text.begin(), text.end(), ':')) - 2;
  std::string result = first == 0 ? "0" : text.substr(0, first);
  while (n < 6) {
    result += ":0";
    ++n;
  }
  result += ":";
  const std::string after = text.substr(first + 2);
  result += after.empty() ? "0" : after;
  return result;
}

inline bool validV6(const std::string& text) {
  const std::vector<std::string> fields = split(text, ':');
  if (fields.size() != 8) return false;
  for (const std::string& field : fields) {
    if (field.size() > 4) return false;
    // The numeric check, which converts up to the "x" and so rejects nothing.
    if (std::strtol(("0x" + field).c_str(), nullptr, 10) > 65535) return false;
  }
  return true;
}

inline Outcome<StorageBytes> v6(const std::string& text) {
  const Outcome<std::string> expanded = expandedV6(text);
  if (const auto* failure = std::get_if<Failure>(&expanded)) return *failure;
  if (!validV6(std::get<std::string>(expanded))) return invalidAddress(text);
  const std::vector<std::string> fields = split(std::get<std::string>(expanded), ':');
  StorageBytes bytes{};
  for (std::size_t k = 0; k < 4; ++k) {
    const std::uint32_t word =
        (toUnsigned(fields[2 * k], 16) << 16) + toUnsigned(fields[2 * k + 1], 16);
    for (std::size_t i = 0; i < 4; ++i) {
      bytes[4 * k + i] = static_cast<unsigned char>(word >> (24 - 8 * i));
    }
  }
  return bytes;
}

/// Family and storage.
inline Outcome<std::pair<Korvo::AddressFamily, StorageBytes>> genAddr(const std::string& text) {
  if (text.find('.') == text.npos) {
    const Outcome<StorageBytes> parsed = v6(text);
    if (const auto* failure = std::get_if<Failure>(&parsed)) return *failure;
    return std::pair(Korvo::ipv6_, std::get<StorageBytes>(parsed));
  }
  const auto bytes = v4(text);
  if (!bytes) return invalidAddress(text);
  StorageBytes storage{};
  std::copy(bytes->begin(), bytes->end(), storage.begin());
  return std::pair(Korvo::ipv4_, storage);
}

// Addresses as bits: bit 0 is the first one.

inline bool bitAt(const StorageBytes& bytes, unsigned int i) {
  return (bytes[i / 8] >> (7 - i % 8) & 1) != 0;
}

inline bool validPrefix(Korvo::AddressFamily af, const StorageBytes& bytes, int len) {
  if (af == Korvo::unknown_ || len < 0) return false;
  const int width = af == Korvo::ipv4_ ? 32 : 128;
  if (len > width) return false;
  // A length at a word's edge leaves the whole word after it unexamined.
  const int firstExamined = len % 32 == 0 ? len + 32 : len;
  for (int i = firstExamined; i < width; ++i) {
    if (bitAt(bytes, static_cast<unsigned int>(i))) return false;
  }
  return true;
}

inline StorageBytes cleared(StorageBytes bytes, unsigned int prefixLen, unsigned int lengthBytes) {
  for (unsigned int i = prefixLen; i < 8 * lengthBytes; ++i) {
    bytes[i / 8] &= static_cast<unsigned char>(~(0x80U >> (i % 8)));
  }
  return bytes;
}

inline bool contains(const Korvo::IpGenPrefix& a, const Korvo::IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return false;
  if (a.mask() > (a.addr().af() == Korvo::ipv4_ ? 32U : 128U)) return false;
  for (unsigned int i = 0; i < a.mask(); ++i) {
    if (bitAt(storageOf(a.addr()), i) != bitAt(storageOf(b.addr()), i)) return false;
  }
  return true;
}

inline bool less(const Korvo::IpGenPrefix& a, const Korvo::IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return a.addr().af() < b.addr().af();
  const bool isNested = a.mask() < b.mask() ? contains(a, b) : contains(b, a);
  if (isNested) return a.mask() > b.mask();
  return storageOf(a.addr()) < storageOf(b.addr());
}

/// Family, storage and length.
struct Prefix {
  Korvo::AddressFamily af;
  StorageBytes storage;
  unsigned int len;
  friend bool operator==(const Prefix&, const Prefix&) = default;
};

inline Outcome<Prefix> prefix(const std::string& text) {
  const std::vector<std::string> fields = split(text, '/');
  if (fields.size() < 2) return invalidArgument("Prefix missing subnet");
  if (fields.size() > 2) return invalidArgument("Invalid Prefix - (" + text + ")");
  const std::uint32_t len = toUnsigned(fields[1], 10);
  const auto addr = genAddr(fields[0]);
  if (const auto* failure = std::get_if<Failure>(&addr)) return *failure;
  const auto& [af, storage] = std::get<0>(addr);
  if (af == Korvo::ipv4_ && len > 32) return outOfRange("Invalid IPv4 Prefix Length");
  if (af == Korvo::ipv6_ && len > 128) return outOfRange("Invalid IPv6 Prefix Length");
  if (!validPrefix(af, storage, static_cast<int>(len))) return hostBitsFailure;
  return Prefix{af, storage, len};
}

}  // namespace oracle

// ---------------------------------------------------------------------------------------------
// The library's outcomes in the same form

inline Outcome<StorageBytes> parsedV6(const std::string& text) {
  StorageBytes bytes{};
  if (const auto failure = failureOf([&] { bytes = storageOf(Korvo::Ip6Addr(text)); })) {
    return *failure;
  }
  return bytes;
}

inline Outcome<oracle::Prefix> parsedPrefix(const std::string& text) {
  oracle::Prefix parsed{};
  const auto parse = [&] {
    const Korvo::IpGenPrefix prefix(text);
    parsed = {prefix.addr().af(), storageOf(prefix.addr()), prefix.mask()};
  };
  if (const auto failure = failureOf(parse)) return *failure;
  return parsed;
}
