#include <Korvo/KoStrUtils.h>
#include <Korvo/assertion.h>
#include <Korvo/bytes.h>

#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace Korvo {

namespace {

// ---------------------------------------------------------------------------------------------
// Eight bytes at a time

using Block = std::uint64_t;

constexpr Block inEachByte(unsigned char byte) {
  return Block{0x0101010101010101} * byte;
}

/// Sets the high bit of the bytes equal to `byte`. Only the lowest one set is reliable: a match may
/// borrow from the bytes above it.
constexpr Block matches(Block block, char byte) {
  const Block zeroAtMatch = block ^ inEachByte(static_cast<unsigned char>(byte));
  return (zeroAtMatch - inEachByte(0x01)) & ~zeroAtMatch & inEachByte(0x80);
}

/// The index of the first match, for a result of `matches` other than zero.
constexpr std::size_t firstMatch(Block matched) {
  return static_cast<std::size_t>(std::countr_zero(matched)) / 8;
}

// ---------------------------------------------------------------------------------------------
// Escaping

/// How many bytes satisfy the predicate, which is told where they stand. The inner loop has a fixed
/// length and a narrow counter, so that compilers turn it into vector instructions.
template <typename Predicate>
std::size_t countBytes(std::string_view text, Predicate predicate) {
  constexpr std::size_t stretch = 128;
  std::size_t count = 0;
  while (text.size() >= stretch) {
    unsigned char inStretch = 0;
    for (std::size_t i = 0; i < stretch; ++i) {
      inStretch = static_cast<unsigned char>(inStretch + predicate(&text[i]));
    }
    count += inStretch;
    text.remove_prefix(stretch);
  }
  for (const char& c : text) count += static_cast<std::size_t>(predicate(&c));
  return count;
}

/// What each byte is written as: one or two bytes.
struct EscapeTable {
  std::array<std::array<char, 2>, 256> bytes;
  std::array<unsigned char, 256> length;

  /// Writes each byte of `escaped` as a backslash and the byte in the same place of `letters`.
  constexpr EscapeTable(std::string_view escaped, std::string_view letters) {
    for (std::size_t b = 0; b < 256; ++b) {
      bytes[b] = {static_cast<char>(b), '\0'};
      length[b] = 1;
    }
    for (std::size_t i = 0; i < escaped.size(); ++i) {
      const auto b = static_cast<unsigned char>(escaped[i]);
      bytes[b] = {'\\', letters[i]};
      length[b] = 2;
    }
  }
};

/// The text as the table writes it; `escapes` bytes of it become two. Takes the same steps for
/// every byte, because branches on the bytes of a text are hard to predict.
std::string escaped(const std::string& text, const EscapeTable& table, std::size_t escapes) {
  if (escapes == 0) return text;
  // One more, since two bytes are stored even where only the first one stays.
  const std::size_t size = text.size() + escapes + 1;
  if (size > text.max_size()) throw std::bad_alloc();
  std::string result(size, '\0');
  char* out = result.data();
  for (const char c : text) {
    const auto b = static_cast<unsigned char>(c);
    storeField(out, table.bytes[b]);
    out += table.length[b];
  }
  result.pop_back();
  return result;
}

/// What the byte after a backslash stands for; 0 for bytes that do not follow one.
constexpr std::array<char, 256> unescaped = [] {
  std::array<char, 256> table = {};
  table['\\'] = '\\';
  table['"'] = '"';
  table['n'] = '\n';
  table['t'] = '\t';
  return table;
}();

// ---------------------------------------------------------------------------------------------
// Splitting

/// Whether appending to `out` may move or free `text`.
bool isElementOf(const std::vector<std::string>& out, const std::string& text) {
  const std::less<const std::string*> before;
  return !before(&text, out.data()) && before(&text, out.data() + out.size());
}

/// Makes room for `count` more elements, growing at least to twice the size, so that many small
/// additions stay cheap.
void makeRoom(std::vector<std::string>& out, std::size_t count) {
  if (count > out.max_size() - out.size()) throw std::bad_alloc();
  const std::size_t needed = out.size() + count;
  if (needed > out.capacity()) {
    out.reserve(std::max(needed, std::min(2 * out.capacity(), out.max_size())));
  }
}

/// How many pieces appendPieces makes of a text that is not empty.
std::size_t countPieces(std::string_view text, char delim, bool skipEmpty) {
  const bool startsWithPiece = !skipEmpty || text.front() != delim;
  text.remove_prefix(1);
  return static_cast<std::size_t>(startsWithPiece) +
         countBytes(text, [delim, skipEmpty](const char* c) -> bool {
           return (c[-1] == delim) & (!skipEmpty | (*c != delim));
         });
}

/// Appends the pieces of the text: a delimiter ends a piece, and what follows the last one is a
/// piece only if it is not empty. On a throw, `out` is as before.
void appendPieces(std::string_view text, char delim, bool skipEmpty,
                  std::vector<std::string>& out) {
  // Most pieces are short. Copying a fixed number of bytes and cutting them is faster than copying
  // a few, as long as so many are there.
  constexpr std::size_t shortPiece = 15;

  if (text.empty()) return;
  makeRoom(out, countPieces(text, delim, skipEmpty));
  const std::size_t before = out.size();
  try {
    while (!text.empty()) {
      const std::size_t size = std::min(text.find(delim), text.size());
      if (size == 0 && skipEmpty) {
        // no piece
      } else if (size <= shortPiece && text.size() >= shortPiece) {
        out.emplace_back(text.data(), shortPiece).resize(size);
      } else {
        out.emplace_back(text.data(), size);
      }
      text.remove_prefix(std::min(size + 1, text.size()));
    }
  } catch (...) {
    out.resize(before);
    throw;
  }
}

// ---------------------------------------------------------------------------------------------
// Query text

/// Whether the byte turns into a blank: control bytes, and on purpose everything from 0x80 up,
/// which is negative as a signed byte.
constexpr bool isControl(char c) {
  return static_cast<signed char>(c) < ' ';
}

/// The index of the first slash, double quote or apostrophe from `pos` on; the text's size if none.
std::size_t findQuoteOrSlash(std::string_view text, std::size_t pos) {
  const auto isSpecial = [](char c) { return c == '/' || c == '"' || c == '\''; };
  while (pos + sizeof(Block) <= text.size()) {
    const auto block = loadField<Block>(text.data() + pos);
    const Block matched = matches(block, '/') | matches(block, '"') | matches(block, '\'');
    if (matched != 0) return pos + firstMatch(matched);
    pos += sizeof block;
  }
  while (pos < text.size() && !isSpecial(text[pos])) ++pos;
  return pos;
}

/// The index of the quote that ends the one at `pos`. Only the one byte before a quote decides
/// whether it is escaped, on purpose: a quote after an escaped backslash counts as escaped too.
std::size_t closingQuote(std::string_view text, std::size_t pos) {
  std::size_t quote = pos;
  do {
    quote = text.find(text[pos], quote + 1);
    if (quote == text.npos) throw std::exception();
  } while (text[quote - 1] == '\\');
  return quote;
}

/// Whether canonical text has the block as it is after a byte `last`: no control byte, and no two
/// blanks in a row.
bool isCanonical(Block block, char last) {
  constexpr Block highBits = inEachByte(0x80);
  // Shifted out of a neighbouring byte comes only what the high bits do not show.
  const Block printable = (block << 1 | block << 2) & ~block & highBits;
  const Block zeroAtBlank = block ^ inEachByte(' ');
  const Block blanks = ~(((zeroAtBlank & ~highBits) + ~highBits) | zeroAtBlank) & highBits;
  const Block afterBlank = blanks << 8 | (last == ' ' ? 0x80 : 0);
  return printable == highBits && (blanks & afterBlank) == 0;
}

/// Collects canonical text: control bytes as blanks, one blank of each run, none at the ends.
class CanonicalText {
 public:
  explicit CanonicalText(std::size_t maxSize) : text_(maxSize, '\0') {}

  void append(std::string_view piece) {
    for (; piece.size() >= sizeof(Block); piece.remove_prefix(sizeof(Block))) {
      const auto block = loadField<Block>(piece.data());
      if (isCanonical(block, last_)) {
        storeField(text_.data() + size_, block);
        size_ += sizeof block;
        last_ = piece[sizeof block - 1];
      } else {
        appendBytes(piece.substr(0, sizeof block));
      }
    }
    appendBytes(piece);
  }

  std::string take() && {
    if (size_ > 0 && last_ == ' ') --size_;
    text_.resize(size_);
    return std::move(text_);
  }

 private:
  void appendBytes(std::string_view bytes) {
    char* out = text_.data() + size_;
    for (const char byte : bytes) {
      const char c = isControl(byte) ? ' ' : byte;
      // Overwritten by the next one if it is a blank too many.
      *out = c;
      out += c != ' ' || last_ != ' ' ? 1 : 0;
      last_ = c;
    }
    size_ = static_cast<std::size_t>(out - text_.data());
  }

  std::string text_;
  std::size_t size_ = 0;
  char last_ = ' ';  // so that blanks at the start count as repeated
};

/// The last words of a text, as KoStrUtils::split cuts it at blanks.
struct LastWords {
  explicit LastWords(std::string_view text) {
    while (count < word.size() && !text.empty()) {
      if (text.back() == ' ') text.remove_suffix(1);
      const std::size_t start = text.rfind(' ') + 1;
      word[count++] = text.substr(start);
      text = text.substr(0, start);
    }
  }

  std::array<std::string_view, 4> word;  // the last one first
  std::size_t count = 0;
};

/// Where the last occurrence of `tail` begins; npos if there is none. Unlike rfind, the search
/// takes time in proportion to the texts even where every place nearly matches. It goes forward
/// only, hence over reversed texts.
std::size_t findLast(const std::string& text, const std::string& tail) {
  const std::string reversed(text.rbegin(), text.rend());
  const std::string sought(tail.rbegin(), tail.rend());
  const void* const found =
      ::memmem(reversed.data(), reversed.size(), sought.data(), sought.size());
  if (found == nullptr) return text.npos;
  const auto behind = static_cast<const char*>(found) - reversed.data();
  return text.size() - tail.size() - static_cast<std::size_t>(behind);
}

bool equalInAnyCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  });
}

std::string beforeLastSemicolon(std::string_view word) {
  return std::string(word.substr(0, word.rfind(';')));
}

}  // namespace

std::string escapeString(const std::string& text) {
  static constexpr EscapeTable table("\n\t\"\\", "nt\"\\");
  return escaped(text, table, countBytes(text, [](const char* c) -> bool {
                   return (*c == '\n') | (*c == '\t') | (*c == '"') | (*c == '\\');
                 }));
}

std::string deescapeString(const std::string& text) {
  constexpr const char* file = "src/KoStrUtils.cpp";
  constexpr const char* signature = "std::string Korvo::deescapeString(const string&)";

  if (text.find('\\') == text.npos) return text;
  std::string result(text.size(), '\0');
  const char* in = text.data();
  const char* const end = in + text.size();
  char* out = result.data();
  while (in != end) {
    // `out` never passes `in`, so there is room for a whole block wherever one is left to read.
    if (end - in >= static_cast<std::ptrdiff_t>(sizeof(Block))) {
      const auto block = loadField<Block>(in);
      storeField(out, block);
      const Block matched = matches(block, '\\');
      const std::size_t plain = matched == 0 ? sizeof block : firstMatch(matched);
      in += plain;
      out += plain;
      if (matched == 0) continue;
    }
    char c = *in++;
    if (c == '\\') {
      KORVO_ASSERT(in != end, "0", file, signature);
      c = unescaped[static_cast<unsigned char>(*in++)];
      KORVO_ASSERT(c != 0, "0", file, signature);
    }
    *out++ = c;
  }
  result.resize(static_cast<std::size_t>(out - result.data()));
  return result;
}

int splitString(const std::string& text, char delim, std::vector<std::string>& out) {
  if (isElementOf(out, text)) return splitString(std::string(text), delim, out);
  appendPieces(text, delim, true, out);
  return static_cast<int>(out.size());
}

std::vector<std::string>& KoStrUtils::split(const std::string& text, char delim,
                                            std::vector<std::string>& out) {
  if (isElementOf(out, text)) return split(std::string(text), delim, out);
  appendPieces(text, delim, false, out);
  return out;
}

std::vector<std::string> processArrayString(const std::string& text) {
  std::vector<std::string> items;
  if (text.empty()) return items;
  std::string bare = text;
  std::erase(bare, '"');
  appendPieces(bare, ',', false, items);
  // Unlike a piece, an item may be empty at the end too.
  if (bare.empty() || bare.back() == ',') items.emplace_back();
  return items;
}

std::string KoStrUtils::canonicalize(const std::string& text) {
  const std::string_view all = text;
  CanonicalText result(all.size());
  // Everything but the comments stays. Quoted text is looked for only because comment markers in it
  // are none; the clean-up applies to it as well, on purpose.
  std::size_t kept = 0;  // what is before has been appended or dropped
  std::size_t next = 0;  // where to look for the next quote or comment
  while ((next = findQuoteOrSlash(all, next)) < all.size()) {
    if (all[next] != '/') {
      next = closingQuote(all, next) + 1;
    } else if (next + 1 < all.size() && all[next + 1] == '*') {
      // From the asterisk of the opening marker on, on purpose: "/*/" is a whole comment.
      const std::size_t end = all.find("*/", next + 1);
      if (end == all.npos) throw std::exception();
      result.append(all.substr(kept, next - kept));
      next = kept = end + 2;
    } else {
      ++next;
    }
  }
  result.append(all.substr(kept));
  return std::move(result).take();
}

std::string KoStrUtils::extractQueryName(const std::string& text) {
  const LastWords words(text);
  if (words.count < 2 || !equalInAnyCase(words.word[1], "named")) return {};
  return beforeLastSemicolon(words.word[0]);
}

std::string KoStrUtils::extractOutputType(const std::string& text) {
  const LastWords words(text);
  if (words.count >= 2 && equalInAnyCase(words.word[1], "into")) {
    return beforeLastSemicolon(words.word[0]);
  }
  KORVO_ASSERT(words.count >= 4 && equalInAnyCase(words.word[3], "into"), "false",
               "src/KoStrUtils.cpp",
               "static std::string Korvo::KoStrUtils::extractOutputType(const string&)");
  return std::string(words.word[2]);
}

unsigned int KoStrUtils::extractEnquotedString(std::vector<std::string>& out,
                                               const std::string& text, unsigned int pos) {
  if (pos >= text.size()) throw std::exception();
  const std::size_t end = closingQuote(text, pos) + 1;
  if (end > std::numeric_limits<unsigned int>::max()) throw std::exception();
  out.emplace_back(text, pos, end - pos);
  return static_cast<unsigned int>(end);
}

std::string KoStrUtils::replaceMultiBlanks(const std::string& text) {
  std::string result = text;
  const auto bothBlank = [](char a, char b) { return a == ' ' && b == ' '; };
  result.erase(std::unique(result.begin(), result.end(), bothBlank), result.end());
  return result;
}

std::string KoStrUtils::trim(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string KoStrUtils::escapeString(const std::string& text) {
  static constexpr EscapeTable table("\"", "\"");
  return escaped(text, table, countBytes(text, [](const char* c) { return *c == '"'; }));
}

std::string KoStrUtils::replaceCtrl(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  // Through a small buffer, since a string can only be extended with bytes that are there.
  char replaced[4096];
  for (std::size_t pos = 0; pos < text.size(); pos += sizeof replaced) {
    const char* const in = text.data() + pos;
    const std::size_t size = std::min(sizeof replaced, text.size() - pos);
    for (std::size_t i = 0; i < size; ++i) replaced[i] = isControl(in[i]) ? ' ' : in[i];
    result.append(replaced, size);
  }
  return result;
}

std::string KoStrUtils::baseName(std::string& path) {
  std::string_view name = path;
  name.remove_prefix(name.rfind('/') + 1);
  return std::string(name.substr(0, name.rfind('.')));
}

void KoStrUtils::addTrailingSlash(std::string& path) {
  if (!path.ends_with('/')) path += '/';
}

std::string KoStrUtils::dropTail(const std::string& text, const std::string& tail) {
  return text.substr(0, findLast(text, tail));
}

std::string KoStrUtils::keepTail(const std::string& text, const std::string& tail) {
  const std::size_t found = findLast(text, tail);
  return found == text.npos ? text : text.substr(found + tail.size());
}

double KoStrUtils::stoDouble(const std::string& text) {
  const int errnoBefore = errno;
  errno = 0;
  char* end;
  const double value = std::strtod(text.c_str(), &end);
  const bool outOfRange = errno == ERANGE;
  errno = errnoBefore;
  if (end == text.c_str()) throw std::invalid_argument("stod");
  if (outOfRange) throw std::out_of_range("stod");
  return value;
}

bool KoStrUtils::iequals(const std::string& a, const std::string& b) {
  return equalInAnyCase(a, b);
}

std::string KoStrUtils::sha1(const std::string& data) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  if (SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest) == nullptr) {
    throw std::runtime_error("SHA-1 is not available from the cryptographic library");
  }
  char text[2 * sizeof digest];
  char* to = text;
  for (const unsigned char byte : digest) to = detail::writeHex(to, byte);
  return {text, sizeof text};
}

}  // namespace Korvo
