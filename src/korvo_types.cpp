#include "addressText.h"

#include <Korvo/KoStrUtils.h>
#include <Korvo/assertion.h>
#include <Korvo/bytes.h>
#include <Korvo/korvo_types.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <locale>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace Korvo {

// ---------------------------------------------------------------------------------------------
// Exceptions

KoBaseException::KoBaseException(const std::string& message, const std::string& className)
    : Velto::Exception(message, true), name_(className) {}
KoBaseException::~KoBaseException() = default;
const char* KoBaseException::name() const {
  return name_.c_str();
}

// Catchers log these names; the two that differ from the class's name stay as they are.
KoInvalidArgument::KoInvalidArgument(const std::string& message)
    : KoBaseException(message, "Korvo::KoInvalidArgument") {}
KoInvalidTypeName::KoInvalidTypeName(const std::string& message)
    : KoBaseException(message, "Korvo::InValidTypeName") {}
KoOutOfRange::KoOutOfRange(const std::string& message)
    : KoBaseException(message, "Korvo::OutOfRange") {}
KoNullRow::KoNullRow() : KoBaseException("null row", "Korvo::KoNullRow") {}
KoSchedulableDisabled::KoSchedulableDisabled(const std::string& message)
    : KoBaseException(message, "Korvo::KoSchedulableDisabled") {}

// ---------------------------------------------------------------------------------------------
// Value types

namespace {

struct ValueType {
  const char* name;
  unsigned short length;  // in the fixed part of a row
  bool isVariableLength;
};

/// Indexed by the type's number. The numbers are those of the row format: oid_t stands before
/// len_t.
constexpr ValueType valueTypes[] = {
    {"uint8_t", 1, false},  {"uint16_t", 2, false}, {"uint32_t", 4, false},  {"uint64_t", 8, false},
    {"int8_t", 1, false},   {"int16_t", 2, false},  {"int32_t", 4, false},   {"int64_t", 8, false},
    {"float", 4, false},    {"double", 8, false},   {"bool", 1, false},      {"string_t", 4, true},
    {"<struct>", 4, true},  {"oid_t", 4, false},    {"len_t", 2, false},     {"IpAddr", 4, false},
    {"Ip6Addr", 16, false}, {"IpGenAddr", 4, true}, {"IpGenPrefix", 4, true}};
static_assert(std::size(valueTypes) == ipGenPrefixType_ + 1);

struct TypeTables {
  TypeTables() {
    for (std::uint32_t i = 0; i < std::size(valueTypes); ++i) {
      const auto type = static_cast<KorvoTypes>(i);
      nameOf.emplace(type, valueTypes[i].name);
      // "<struct>" is for printing only: in table definitions a row type goes by its own name.
      if (type != structType_) typeOf.emplace(valueTypes[i].name, type);
    }
  }

  std::unordered_map<KorvoTypes, std::string, hash> nameOf;
  std::unordered_map<std::string, KorvoTypes> typeOf;
};

/// Never destroyed, so that static objects of any source file may use the tables to the end.
const TypeTables& typeTables() {
  static const TypeTables& tables = *new TypeTables;
  return tables;
}

/// Builds the tables when the library is loaded.
[[maybe_unused]] const TypeTables& builtAtLoad = typeTables();

}  // namespace

unsigned short getKorvoTypeLength(unsigned short type) {
  return type < std::size(valueTypes) ? valueTypes[type].length : static_cast<unsigned short>(0);
}

bool korvoTypeIsVariableLength(KorvoTypes type) {
  return type < std::size(valueTypes) && valueTypes[type].isVariableLength;
}

const std::string& getKorvoTypeName(KorvoTypes type) {
  const auto& nameOf = typeTables().nameOf;
  const auto found = nameOf.find(type);
  // Not at(): its text differs between standard libraries, and this one is relied on.
  if (found == nameOf.end()) throw std::out_of_range("_Map_base::at");
  return found->second;
}

KorvoTypes korvoCppTypeNameToType(const std::string& name) {
  const auto& typeOf = typeTables().typeOf;
  const auto found = typeOf.find(name);
  if (found != typeOf.end()) return found->second;
  if (name.find("::") != name.npos) return structType_;
  throw KoInvalidTypeName(name);
}

std::ostream& operator<<(std::ostream& os, const FMT<unsigned char>& byte) {
  return os << static_cast<unsigned long>(byte.value());
}

std::ostream& operator<<(std::ostream& os, const FMT<signed char>& byte) {
  return os << static_cast<int>(byte.value());
}

std::ostream& operator<<(std::ostream& os, const FMT<bool>& value) {
  os.setf(std::ios_base::boolalpha);
  return os << value.value();
}

std::ostream& operator<<(std::ostream& os, const FMT<std::string>& text) {
  return os << '"' << escapeString(text.value()) << '"';
}

unsigned char byteMaskTbl[9] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};

// ---------------------------------------------------------------------------------------------
// Parsing
//
// The parsers go over the text once and allocate nothing. What they accept is the contract, and is
// more than an address should have: nobody may tidy it up.

namespace {

constexpr unsigned char noDigit = 0xFF;

/// The value of every character as a hexadecimal digit.
constexpr auto digitValues = [] {
  std::array<unsigned char, 256> values{};
  values.fill(noDigit);
  for (unsigned char i = 0; i < 16; ++i) {
    const auto digit = static_cast<unsigned char>(detail::hexDigits[i]);
    values[digit] = i;
    if (i >= 10) values[digit - 'a' + 'A'] = i;
  }
  return values;
}();

unsigned int digitValue(char c) {
  return digitValues[static_cast<unsigned char>(c)];
}

/// What strtoul gives in the C locale with a 32-bit unsigned long, on either word size: leading
/// white space and a sign are accepted, so is "0x" in base 16, anything may follow the digits, a
/// negative number counts modulo 2^32, and one too large in either direction is the largest.
std::uint32_t toUnsigned(std::string_view text, int base) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) text.remove_prefix(2);
  std::uint32_t value = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (read.ec == std::errc::result_out_of_range) return UINT32_MAX;
  return isNegative ? 0 - value : value;
}

std::uint32_t loadBigEndian(const unsigned char* from) {
  return __builtin_bswap32(loadField<std::uint32_t>(from));
}

void storeBigEndian(unsigned char* to, std::uint32_t value) {
  storeField(to, __builtin_bswap32(value));
}

/// Four decimal numbers with dots between them; leading zeros are decimal too.
bool parseV4(std::string_view text, unsigned char (&out)[4]) {
  unsigned int value = 0;
  unsigned int dots = 0;
  bool hasDigit = false;
  for (const char c : text) {
    if (c >= '0' && c <= '9') {
      value = value * 10 + static_cast<unsigned int>(c - '0');
      if (value > 255) return false;
      hasDigit = true;
    } else if (c == '.') {
      if (!hasDigit || dots == 3) return false;
      out[dots++] = static_cast<unsigned char>(value);
      value = 0;
      hasDigit = false;
    } else {
      return false;
    }
  }
  if (dots != 3 || !hasDigit) return false;
  out[3] = static_cast<unsigned char>(value);
  return true;
}

constexpr std::size_t groupCount = 8;

/// Reads a group up to the colon or the end behind it. False if it is longer than four characters.
bool readGroup(const char*& in, const char* end, std::uint32_t& value) {
  constexpr int maxLength = 4;
  const char* const begin = in;
  // Nearly every group is digits and nothing else.
  value = 0;
  for (int i = 0; i < maxLength && in != end; ++i, ++in) {
    const unsigned int digit = digitValue(*in);
    if (digit == noDigit) break;
    value = value << 4 | digit;
  }
  if (in != end && *in != ':') {
    in = std::find(in, end, ':');
    value = toUnsigned({begin, in}, 16);
  }
  return in - begin <= maxLength;
}

/// Goes over the text once: the result is that of expandV6Addr, validV6Addr and a base-16
/// conversion of each group.
bool parseV6(std::string_view text, unsigned char (&out)[16]) {
  std::uint32_t groups[groupCount] = {};
  std::size_t count = 0;
  std::size_t colons = 0;
  bool hasGap = false;

  const char* const begin = text.data();
  const char* const end = begin + text.size();
  for (const char* in = begin; in != end;) {
    if (*in != ':') {
      if (count == groupCount || !readGroup(in, end, groups[count++])) return false;
      if (in == end) break;
    }
    ++colons;
    if (++in == end || *in != ':') continue;
    if (hasGap) return false;
    hasGap = true;
    ++in;
    // A zero beside it where the text begins or ends, and as many between as there are colons too
    // few, all counted: a single one at either end as well.
    if (in == begin + 2) ++count;
    if (in == end) ++count;
    colons += 1 + static_cast<std::size_t>(std::count(in, end, ':'));
    if (colons < groupCount) count += groupCount - colons;
    if (count > groupCount) return false;
  }
  if (count != groupCount) return false;
  for (std::size_t word = 0; word < 4; ++word) {
    // A group with a sign may be wider than 16 bits and reach into the one before it.
    storeBigEndian(out + 4 * word, (groups[2 * word] << 16) + groups[2 * word + 1]);
  }
  return true;
}

[[noreturn]] void throwInvalidAddress(std::string_view text) {
  throw KoInvalidArgument("Invalid Address - (" + std::string(text) + ")");
}

IpAddr parsedV4(std::string_view text) {
  unsigned char bytes[4];
  if (!parseV4(text, bytes)) throwInvalidAddress(text);
  return IpAddr(loadField<std::uint32_t>(bytes));
}

Ip6Addr parsedV6(std::string_view text) {
  unsigned char bytes[16];
  if (!parseV6(text, bytes)) throwInvalidAddress(text);
  return Ip6Addr(bytes);
}

/// A dot alone tells the family, so IPv6 text with an embedded IPv4 part is bad IPv4 text.
IpGenAddr parsedAddr(std::string_view text) {
  if (text.find('.') == text.npos) return parsedV6(text);
  return parsedV4(text);
}

}  // namespace

int strToV4Addr(const std::string& text, unsigned int* out) {
  unsigned char bytes[4];
  if (!parseV4(text, bytes)) return 0;
  *out = loadField<std::uint32_t>(bytes);
  return 1;
}

bool validV4Addr(const std::string& text) {
  unsigned char bytes[4];
  return parseV4(text, bytes);
}

std::string expandV6Addr(const std::string& text) {
  const std::size_t gap = text.find("::");
  if (gap == text.npos) return text;
  if (text.find("::", gap + 2) != text.npos) throwInvalidAddress(text);

  std::string expanded = gap == 0 ? "0" : text.substr(0, gap);
  for (auto n = std::count(text.begin(), text.end(), ':') - 2; n < 6; ++n) expanded += ":0";
  expanded += ':';
  if (gap + 2 == text.size()) {
    expanded += '0';
  } else {
    expanded.append(text, gap + 2);
  }
  return expanded;
}

bool validV6Addr(const std::string& text) {
  unsigned int groups = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(':', at), text.size());
    if (end - at > 4) return false;
    if (end != at) ++groups;
    at = end + 1;
  }
  return groups == 8;
}

// ---------------------------------------------------------------------------------------------
// Addresses

IpAddr::IpAddr(const std::string& text) : IpAddr(parsedV4(text)) {}

Ip6Addr::Ip6Addr(const std::string& text) : Ip6Addr(parsedV6(text)) {}

void Ip6Addr::clearLowerAddrBits(unsigned short prefixLen, unsigned short addrLenBytes) {
  const std::size_t end = std::min<std::size_t>(addrLenBytes, sizeof bytes_);
  if (prefixLen >= 8 * end) return;
  const std::size_t partial = prefixLen / 8;
  bytes_[partial] &= static_cast<unsigned char>(0xFF00U >> (prefixLen % 8));
  std::memset(bytes_ + partial + 1, 0, end - partial - 1);
}

IpGenAddr::IpGenAddr(const std::string& text) : IpGenAddr(parsedAddr(text)) {}

int IpGenAddr::addressLengthBytes() const {
  switch (af_) {
    case unknown_:
      return 0;
    case ipv4_:
      return 4;
    case ipv6_:
      return 16;
  }
  KORVO_ASSERT(false, "0", "src/korvo_types.cpp",
               "int Korvo::IpGenAddr::addressLengthBytes() const");
  __builtin_unreachable();
}

void IpGenAddr::clearLowerAddrBits(unsigned short prefixLen) {
  storage_.clearLowerAddrBits(prefixLen, static_cast<unsigned short>(addressLengthBytes()));
}

// ---------------------------------------------------------------------------------------------
// Prefixes

namespace {

constexpr const char* hostBitsMessage = "Invalid Prefix - non-zero after prefixlen";
constexpr const char* familyChangeMessage =
    "Cannot change between ipv4 and ipv6 address family types";

void checkLength(AddressFamily af, unsigned int len) {
  if (af == ipv4_ && len > 32) throw KoOutOfRange("Invalid IPv4 Prefix Length");
  if (af == ipv6_ && len > 128) throw KoOutOfRange("Invalid IPv6 Prefix Length");
}

/// A length that no int can hold becomes negative, and so invalid.
void checkHostBits(const IpGenAddr& addr, unsigned int len) {
  if (!validPrefix(addr, static_cast<int>(len))) throw KoOutOfRange(hostBitsMessage);
}

struct PrefixText {
  std::string_view addr;
  std::string_view len;
};

/// The two pieces that are not empty between the slashes.
PrefixText splitPrefix(const std::string& text) {
  std::string_view pieces[2];
  unsigned int count = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('/', at), text.size());
    if (end != at) {
      if (count == 2) throw KoInvalidArgument("Invalid Prefix - (" + text + ")");
      pieces[count++] = std::string_view(text).substr(at, end - at);
    }
    at = end + 1;
  }
  if (count < 2) throw KoInvalidArgument("Prefix missing subnet");
  return {pieces[0], pieces[1]};
}

}  // namespace

bool validPrefix(IpGenAddr addr, int len) {
  if (addr.af() == unknown_ || len < 0) return false;

  // The host bits of the word in which the length ends. A length at a word's edge examines no bit
  // of the word after it: 10.1.2.3/0 and 2001:db8:1::/32 are valid, on purpose.
  const unsigned int bits = static_cast<unsigned int>(len) % 32;
  const std::uint32_t hostMask = bits == 0 ? 0 : UINT32_MAX >> bits;

  if (addr.af() == ipv4_) {
    if (len >= 32) return len == 32;
    return (loadBigEndian(addr.bytes()) & hostMask) == 0;
  }
  if (len >= 128) return len == 128;
  const unsigned char* word = addr.bytes() + len / 32 * 4;
  if ((loadBigEndian(word) & hostMask) != 0) return false;
  const unsigned char* const end = addr.bytes() + 16;
  return std::all_of(word + 4, end, [](unsigned char byte) { return byte == 0; });
}

IpGenPrefix::IpGenPrefix(IpAddr addr, unsigned int len) : addr_(addr), mask_(len) {
  checkLength(ipv4_, len);
}

IpGenPrefix::IpGenPrefix(const Ip6Addr& addr, unsigned int len) : addr_(addr), mask_(len) {
  checkLength(ipv6_, len);
}

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, unsigned int len) : addr_(addr), mask_(len) {
  checkLength(addr.af(), len);
}

IpGenPrefix::IpGenPrefix(AddressFamily af, unsigned int len, const unsigned char* bytes)
    : addr_(af, bytes), mask_(len) {
  checkLength(af, len);
}

IpGenPrefix::IpGenPrefix(const std::string& text) {
  const PrefixText pieces = splitPrefix(text);
  addr_ = parsedAddr(pieces.addr);
  mask_ = toUnsigned(pieces.len, 10);
  checkLength(addr_.af(), mask_);
  checkHostBits(addr_, mask_);
}

void detail::containsWithoutFamily() {
  assertionFailed("addr().af() == ipv4_ || addr_.af() == ipv6_", "src/korvo_types.cpp", __LINE__,
                  "bool Korvo::IpGenPrefix::contains(const Korvo::IpGenPrefix&) const");
}

void IpGenPrefix::addrIs(const IpGenAddr& addr) {
  if (addr_.af() != unknown_) {
    if (addr.af() != addr_.af()) throw KoInvalidArgument(familyChangeMessage);
    checkHostBits(addr, mask_);
  }
  addr_ = addr;
}

void IpGenPrefix::maskIs(unsigned int len) {
  if (addr_.af() != unknown_) checkHostBits(addr_, len);
  mask_ = len;
}

void IpGenPrefix::afIs(AddressFamily af) {
  if (af != addr_.af() && addr_.af() != unknown_) throw KoInvalidArgument(familyChangeMessage);
  if (af == unknown_) return;
  // The present family is what is checked, so a prefix without one can never be given one here.
  checkHostBits(addr_, mask_);
}

// ---------------------------------------------------------------------------------------------
// Printing

namespace {

/// Whether eight insertions of a number give plain lower-case digits, whatever else the stream's
/// state and locale could make of them, and inserting the text instead does to the stream what they
/// do.
bool printsPlainDigits(const std::ostream& os) {
  constexpr auto disturbing =
      std::ios_base::showbase | std::ios_base::unitbuf | std::ios_base::uppercase;
  return os.good() && os.exceptions() == std::ios_base::goodbit && os.tie() == nullptr &&
         (os.flags() & disturbing) == 0 &&
         (os.flags() & std::ios_base::adjustfield) != std::ios_base::left &&
         os.getloc() == std::locale::classic();
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const IpAddr& addr) {
  unsigned char bytes[4];
  storeField(bytes, addr.addr());
  char text[detail::addressTextLength];
  const char* const end = detail::writeAddress(text, ipv4_, bytes);
  return os << std::string_view(text, end);
}

std::ostream& operator<<(std::ostream& os, const Ip6Addr& addr) {
  // The stream's fill stays '0' and its base decimal, on purpose.
  os.fill('0');
  if (printsPlainDigits(os)) {
    char text[detail::addressTextLength];
    const char* const end = detail::writeAddress(text, ipv6_, addr.bytes());
    // The last group stands alone so that a stream that breaks ends in the same state: one that
    // broke earlier refuses this insertion and keeps its width.
    const char* const lastGroup = end - 4;
    os.width(0);
    os << std::string_view(text, lastGroup);
    if (!os.good()) os.width(4);
    os << std::string_view(lastGroup, end);
  } else {
    os.setf(std::ios_base::hex, std::ios_base::basefield);
    for (int at = 0; at < 16; at += 2) {
      if (at != 0) os << ':';
      os.width(4);
      os << (addr.bytes()[at] * 256U + addr.bytes()[at + 1]);
    }
  }
  os.setf(std::ios_base::dec, std::ios_base::basefield);
  return os;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr) {
  switch (addr.af()) {
    case ipv4_:
      return os << IpAddr(loadField<std::uint32_t>(addr.bytes()));
    case ipv6_:
      return os << Ip6Addr(addr.bytes());
    default:
      return os << "<unsupported address family>";
  }
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix) {
  os << prefix.addr() << '/';
  os.setf(std::ios_base::dec, std::ios_base::basefield);
  return os << prefix.mask();
}

}  // namespace Korvo
