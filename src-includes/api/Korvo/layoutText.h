#pragma once

// Layouts as data: their text, their fingerprint, and layouts that are known at run time only.
//
//   std::cout << Korvo::layoutText(PortLayout::info);    // to a file, or to another process
//   const Korvo::DynamicLayout sender(text);             // throws KoTextError for bad text
//   if (sender.fingerprint() != Korvo::fingerprint<PortLayout>()) {
//     std::cerr << "another layout: " << sender.fingerprint().text() << '\n';
//   }
//
// The text of a layout:
//
//   row 7 base 28 {
//     speed uint32_t @8
//     name string_t @12
//     tags string_t[] @16
//     links row 2 base 13 {
//       up bool @8
//       peer IpGenAddr @9
//     }[] @20
//     "rate, in percent" float @24
//   }
//
// It tells all that decides what the bytes of a row mean, and nothing else: row type, base length,
// and the columns in the order of their offsets. A name that is no identifier stands in quotes,
// with \" and \\ for the two and \x0a for bytes below 0x20 and 0x7f. oid_t and len_t are written as
// uint32_t and uint16_t, the numbers that they are. Readers take any white space, and columns in
// any order.
//
// All of it may be used from any thread; layouts do not change.

#include <Korvo/TableRow.h>
#include <Korvo/rowCheck.h>

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Korvo {

// ---------------------------------------------------------------------------------------------
// Limits. A layout beyond them has no text and no fingerprint.

inline constexpr std::size_t maxLayoutText = std::size_t{1} << 20;  ///< bytes
inline constexpr std::size_t maxLayoutColumns = 4096;  ///< with those of nested layouts
inline constexpr std::size_t maxColumnName = 255;      ///< bytes

// ---------------------------------------------------------------------------------------------

/// Text that is not what it should be, and where: "line 3, column 5: unknown type - (uint33_t)".
class KORVO_API KoTextError : public KoInvalidArgument {
 public:
  KoTextError(const std::string& message, std::size_t line, std::size_t column);

  /// Both count from 1; the column in bytes.
  std::size_t line() const noexcept { return line_; }
  std::size_t column() const noexcept { return column_; }

 private:
  std::size_t line_;
  std::size_t column_;
};

/// The SHA-1 digest of a layout's text. Two layouts have the same exactly when their rows' bytes
/// mean the same.
struct LayoutFingerprint {
  std::array<byte_t, 20> bytes{};

  /// The first four bytes, as people see them: 0xa91f3c02 for "a91f3c02". A constant, so that a
  /// program can hold on to its layout: static_assert(fingerprint<PortLayout>().leading() == ...).
  constexpr std::uint32_t leading() const {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
  }
  /// Eight hexadecimal digits, to show to people. Programs compare the whole.
  KORVO_API std::string text() const;
  /// All forty hexadecimal digits.
  KORVO_API std::string digest() const;

  friend constexpr bool operator==(const LayoutFingerprint&, const LayoutFingerprint&) = default;
  friend constexpr std::strong_ordering operator<=>(const LayoutFingerprint&,
                                                    const LayoutFingerprint&) = default;
};

/// The layout's text, with a line feed at its end. Throws KoOutOfRange for a layout beyond the
/// limits.
KORVO_API std::string layoutText(const LayoutInfo& layout);

/// The column's type in the layout's text: "uint32_t", "bool[]"; "row" or "row[]" for nested rows.
KORVO_API std::string columnTypeText(const ColumnInfo& column);

/// The fingerprint of a layout that is known at run time. Throws as layoutText() does.
KORVO_API LayoutFingerprint fingerprint(const LayoutInfo& layout);

namespace detail {
struct LayoutData;
}

/// A layout that is known at run time only. Copies share what they describe.
class KORVO_API DynamicLayout {
 public:
  /// Reads a layout's text, from whomever. Throws KoTextError for text that is none: one that is
  /// not as above, columns that overlap, lie in the header or end behind the base length, a name
  /// used twice or not in UTF-8, arrays of what has none, anything beyond the limits. Takes time
  /// and memory in proportion to the text, up to a logarithm.
  explicit DynamicLayout(std::string_view text);
  /// The same columns, by offset. Throws KoOutOfRange for a layout beyond the limits, and
  /// KoTextError where the text of the layout would be refused.
  explicit DynamicLayout(const LayoutInfo& layout);
  // Moving is copying, so that no layout is ever empty.
  DynamicLayout(const DynamicLayout&) = default;
  DynamicLayout& operator=(const DynamicLayout&) = default;
  ~DynamicLayout() = default;

  /// What checkRow() and others take; valid as long as this object or a copy of it.
  const LayoutInfo& info() const noexcept;
  std::string text() const { return layoutText(info()); }
  LayoutFingerprint fingerprint() const { return Korvo::fingerprint(info()); }
  /// The offsets of the slots, by offset; valid as info() is.
  BaseRow::vcdType& slots() const noexcept;
  /// The column of this name, or null; valid as info() is.
  const ColumnInfo* find(std::string_view name) const noexcept;

 private:
  KoPtr<detail::LayoutData> data_;
};

// ---------------------------------------------------------------------------------------------

namespace detail {

/// The catalogue's type names by number, for texts made at compile time. Columns of oid_t and len_t
/// are the plain numbers that C++ has for them.
inline constexpr std::string_view layoutTypeNames[] = {
    "uint8_t",  "uint16_t", "uint32_t", "uint64_t",  "int8_t",     "int16_t", "int32_t",
    "int64_t",  "float",    "double",   "bool",      "string_t",   "row",     "uint32_t",
    "uint16_t", "IpAddr",   "Ip6Addr",  "IpGenAddr", "IpGenPrefix"};

/// SHA-1, byte by byte.
class Sha1 {
 public:
  constexpr void put(char c) {
    putByte(static_cast<byte_t>(c));
    ++length_;
  }
  /// To be called once, at the end.
  constexpr std::array<byte_t, 20> digest() {
    putByte(0x80);
    while (filled_ != lengthAt) putByte(0);
    const std::uint64_t bits = 8 * length_;
    for (int shift = 56; shift >= 0; shift -= 8) putByte(static_cast<byte_t>(bits >> shift));
    std::array<byte_t, 20> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<byte_t>(state_[i / 4] >> (24 - 8 * (i % 4)));
    }
    return bytes;
  }

 private:
  static constexpr std::size_t blockLength = 64;
  static constexpr std::size_t lengthAt = 56;

  constexpr void putByte(byte_t byte) {
    std::uint32_t& word = block_[filled_ / 4];
    word = word << 8 | byte;
    if (++filled_ == blockLength) takeBlock();
  }
  constexpr void takeBlock() {
    std::array<std::uint32_t, 80> words{};
    for (std::size_t i = 0; i < words.size(); ++i) {
      words[i] = i < 16 ? block_[i]
                        : std::rotl(words[i - 3] ^ words[i - 8] ^ words[i - 14] ^ words[i - 16], 1);
    }
    auto [a, b, c, d, e] = state_;
    for (std::size_t i = 0; i < words.size(); ++i) {
      const std::uint32_t mixed = i < 20   ? ((b & c) | (~b & d)) + 0x5A827999
                                  : i < 40 ? (b ^ c ^ d) + 0x6ED9EBA1
                                  : i < 60 ? ((b & c) | (b & d) | (c & d)) + 0x8F1BBCDC
                                           : (b ^ c ^ d) + 0xCA62C1D6;
      const std::uint32_t next = std::rotl(a, 5) + mixed + e + words[i];
      e = d;
      d = c;
      c = std::rotl(b, 30);
      b = a;
      a = next;
    }
    state_ = {state_[0] + a, state_[1] + b, state_[2] + c, state_[3] + d, state_[4] + e};
    filled_ = 0;
  }

  std::array<std::uint32_t, 5> state_ = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476,
                                         0xC3D2E1F0};
  std::array<std::uint32_t, blockLength / 4> block_{};
  std::size_t filled_ = 0;  // bytes of the block
  std::uint64_t length_ = 0;
};

/// Writes a layout's text to whatever takes characters with put(c).
template <typename Sink>
class LayoutWriter {
 public:
  constexpr explicit LayoutWriter(Sink& sink) : sink_(sink) {}

  constexpr void write(const LayoutInfo& layout, unsigned int depth = 0) {
    if (depth > maxRowNesting) throw KoOutOfRange("Layout nested too deep");
    put("row ");
    putNumber(layout.rowType);
    put(" base ");
    putNumber(layout.baseLength);
    put(" {\n");
    const ColumnInfo* last = nullptr;
    while ((last = following(layout, last)) != nullptr) {
      if (++columns_ > maxLayoutColumns) throw KoOutOfRange("Layout has too many columns");
      indent(depth + 1);
      putName(last->name);
      put(' ');
      if (last->type == structType_) {
        write(*last->nested, depth + 1);
      } else {
        put(layoutTypeNames[last->type]);
      }
      if (last->isArray) put("[]");
      put(" @");
      putNumber(last->offset);
      put('\n');
    }
    indent(depth);
    put('}');
    if (depth == 0) put('\n');
  }

 private:
  /// The column that stands behind `last` in a row, or the first; null at the end.
  static constexpr const ColumnInfo* following(const LayoutInfo& layout, const ColumnInfo* last) {
    const ColumnInfo* found = nullptr;
    for (const ColumnInfo& column : layout.columns) {
      const bool isBehind = last == nullptr || column.offset > last->offset ||
                            (column.offset == last->offset && &column > last);
      if (isBehind && (found == nullptr || column.offset < found->offset)) found = &column;
    }
    return found;
  }

  constexpr void put(char c) {
    if (++length_ > maxLayoutText) throw KoOutOfRange("Layout text exceeds 1 MiB");
    sink_.put(c);
  }
  constexpr void put(std::string_view text) {
    for (const char c : text) put(c);
  }
  constexpr void putNumber(unsigned int number) {
    if (number >= 10) putNumber(number / 10);
    put(static_cast<char>('0' + number % 10));
  }
  constexpr void indent(unsigned int depth) {
    for (unsigned int i = 0; i < depth; ++i) put("  ");
  }
  static constexpr bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  }
  static constexpr bool isIdentifier(std::string_view name) {
    for (const char c : name) {
      if (!isLetter(c) && !(c >= '0' && c <= '9')) return false;
    }
    return !name.empty() && isLetter(name.front());
  }
  constexpr void putName(std::string_view name) {
    if (name.size() > maxColumnName) throw KoOutOfRange("Column name exceeds 255 bytes");
    if (isIdentifier(name)) return put(name);
    put('"');
    for (const char c : name) {
      const auto byte = static_cast<byte_t>(c);
      if (c == '"' || c == '\\') {
        put('\\');
        put(c);
      } else if (byte < 0x20 || byte == 0x7F) {
        put("\\x");
        put(hexDigits[byte >> 4]);
        put(hexDigits[byte & 0xF]);
      } else {
        put(c);
      }
    }
    put('"');
  }

  Sink& sink_;
  std::size_t length_ = 0;
  std::size_t columns_ = 0;
};

}  // namespace detail

/// The fingerprint of a declared layout, a constant: `fingerprint<PortLayout>()`.
template <typename Layout>
constexpr LayoutFingerprint fingerprint() {
  detail::Sha1 sha1;
  detail::LayoutWriter<detail::Sha1>(sha1).write(Layout::info);
  return {sha1.digest()};
}

}  // namespace Korvo
