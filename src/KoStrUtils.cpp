#include <Korvo/KoStrUtils.h>
#include <Korvo/assertion.h>
#include <Korvo/bytes.h>

#include <openssl/sha.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
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
// Splitting

/// Calls `take` with each piece of the text: a delimiter ends a piece, and what follows the last
/// one is a piece only if it is not empty.
template <typename Take>
void forEachPiece(std::string_view text, char delim, Take take) {
  while (!text.empty()) {
    const std::size_t end = text.find(delim);
    take(text.substr(0, end));
    if (end == text.npos) return;
    text.remove_prefix(end + 1);
  }
}

/// Whether appending to `out` may move or free `text`.
bool isElementOf(const std::vector<std::string>& out, const std::string& text) {
  const std::less<const std::string*> before;
  return !before(&text, out.data()) && before(&text, out.data() + out.size());
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
std::size_t closingQuote(const std::string& text, std::size_t pos) {
  std::size_t quote = pos;
  do {
    quote = text.find(text[pos], quote + 1);
    if (quote == text.npos) throw std::exception();
  } while (text[quote - 1] == '\\');
  return quote;
}

/// Collects canonical text: control bytes as blanks, one blank of each run, none at the ends.
class CanonicalText {
 public:
  explicit CanonicalText(std::size_t maxSize) : text_(maxSize, '\0') {}

  void append(const char* begin, const char* end) {
    char* out = text_.data() + size_;
    char last = last_;
    for (; begin != end; ++begin) {
      const char c = isControl(*begin) ? ' ' : *begin;
      *out = c;
      out += c != ' ' || last != ' ';
      last = c;
    }
    last_ = last;
    size_ = static_cast<std::size_t>(out - text_.data());
  }

  std::string take() && {
    if (size_ > 0 && last_ == ' ') --size_;
    text_.resize(size_);
    return std::move(text_);
  }

 private:
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

std::string beforeLastSemicolon(std::string_view word) {
  return std::string(word.substr(0, word.rfind(';')));
}

/// Whether the texts are equal after the C library's tolower of every byte: what its own comparison
/// does, except that it stops at a NUL.
bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  while (!a.empty()) {
    if (strncasecmp(a.data(), b.data(), a.size()) != 0) return false;
    const std::size_t nul = a.find('\0');
    if (nul == a.npos) return true;
    a.remove_prefix(nul + 1);
    b.remove_prefix(nul + 1);
  }
  return true;
}

}  // namespace

std::string escapeString(const std::string& text) {
  const auto isEscaped = [](char c) { return c == '\n' || c == '\t' || c == '"' || c == '\\'; };
  const auto escapes = std::count_if(text.begin(), text.end(), isEscaped);
  if (escapes == 0) return text;

  std::string result(text.size() + static_cast<std::size_t>(escapes), '\0');
  const char* in = text.data();
  const char* const end = in + text.size();
  char* out = result.data();
  while (in != end) {
    // The result has room for a whole block wherever one is left to read.
    if (end - in >= static_cast<std::ptrdiff_t>(sizeof(Block))) {
      const Block block = loadField<Block>(in);
      storeField(out, block);
      const Block matched =
          matches(block, '\n') | matches(block, '\t') | matches(block, '"') | matches(block, '\\');
      const std::size_t plain = matched == 0 ? sizeof block : firstMatch(matched);
      in += plain;
      out += plain;
      if (matched == 0) continue;
    }
    const char c = *in++;
    if (isEscaped(c)) *out++ = '\\';
    *out++ = c == '\n' ? 'n' : c == '\t' ? 't' : c;
  }
  return result;
}

std::string deescapeString(const std::string& text) {
  constexpr const char* file = "src/KoStrUtils.cpp";
  constexpr const char* signature = "std::string Korvo::deescapeString(const string&)";

  std::string result(text.size(), '\0');
  const char* in = text.data();
  const char* const end = in + text.size();
  char* out = result.data();
  while (in != end) {
    // `out` never passes `in`, so there is room for a whole block wherever one is left to read.
    if (end - in >= static_cast<std::ptrdiff_t>(sizeof(Block))) {
      const Block block = loadField<Block>(in);
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
      c = *in++;
      KORVO_ASSERT(c == '\\' || c == '"' || c == 'n' || c == 't', "0", file, signature);
      if (c == 'n') c = '\n';
      if (c == 't') c = '\t';
    }
    *out++ = c;
  }
  result.resize(static_cast<std::size_t>(out - result.data()));
  return result;
}

int splitString(const std::string& text, char delim, std::vector<std::string>& out) {
  if (isElementOf(out, text)) return splitString(std::string(text), delim, out);
  forEachPiece(text, delim, [&out](std::string_view piece) {
    if (!piece.empty()) out.emplace_back(piece);
  });
  return static_cast<int>(out.size());
}

std::vector<std::string>& KoStrUtils::split(const std::string& text, char delim,
                                            std::vector<std::string>& out) {
  if (isElementOf(out, text)) return split(std::string(text), delim, out);
  forEachPiece(text, delim, [&out](std::string_view piece) { out.emplace_back(piece); });
  return out;
}

std::vector<std::string> processArrayString(const std::string& text) {
  std::vector<std::string> items;
  if (text.empty()) return items;
  items.emplace_back();
  for (const char c : text) {
    if (c == ',') {
      items.emplace_back();
    } else if (c != '"') {
      items.back() += c;
    }
  }
  return items;
}

std::string KoStrUtils::canonicalize(const std::string& text) {
  CanonicalText result(text.size());
  const char* const data = text.data();
  // Everything but the comments stays. Quoted text is looked for only because comment markers in it
  // are none; the clean-up applies to it as well, on purpose.
  std::size_t kept = 0;  // all before is written or dropped
  std::size_t next = 0;  // where to look for the next quote or comment
  while ((next = findQuoteOrSlash(text, next)) < text.size()) {
    if (text[next] != '/') {
      next = closingQuote(text, next) + 1;
    } else if (next + 1 < text.size() && text[next + 1] == '*') {
      // From the asterisk of the opening marker on, on purpose: "/*/" is a whole comment.
      const std::size_t end = text.find("*/", next + 1);
      if (end == text.npos) throw std::exception();
      result.append(data + kept, data + next);
      next = kept = end + 2;
    } else {
      ++next;
    }
  }
  result.append(data + kept, data + text.size());
  return std::move(result).take();
}

std::string KoStrUtils::extractQueryName(const std::string& text) {
  const LastWords words(text);
  if (words.count < 2 || !equalIgnoringCase(words.word[1], "named")) return {};
  return beforeLastSemicolon(words.word[0]);
}

std::string KoStrUtils::extractOutputType(const std::string& text) {
  const LastWords words(text);
  if (words.count >= 2 && equalIgnoringCase(words.word[1], "into")) {
    return beforeLastSemicolon(words.word[0]);
  }
  KORVO_ASSERT(words.count >= 4 && equalIgnoringCase(words.word[3], "into"), "false",
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
  std::string result;
  result.reserve(text.size());
  std::size_t start = 0;
  for (std::size_t quote; (quote = text.find('"', start)) != text.npos; start = quote + 1) {
    result.append(text, start, quote - start);
    result += "\\\"";
  }
  return result.append(text, start);
}

std::string KoStrUtils::replaceCtrl(const std::string& text) {
  std::string result = text;
  for (char& c : result) c = isControl(c) ? ' ' : c;
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
  return text.substr(0, text.rfind(tail));
}

std::string KoStrUtils::keepTail(const std::string& text, const std::string& tail) {
  const std::size_t found = text.rfind(tail);
  return found == text.npos ? text : text.substr(found + tail.size());
}

std::uint64_t KoStrUtils::stoUint64_t(const std::string& text) {
  std::uint64_t value = 0;
  for (const char c : text) {
    // A negative difference wraps round, and so does the sum.
    value = value * 10 + static_cast<std::uint64_t>(static_cast<signed char>(c) - '0');
  }
  return value;
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
  return equalIgnoringCase(a, b);
}

std::string KoStrUtils::sha1(const std::string& data) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  if (SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest) == nullptr) {
    throw std::runtime_error("SHA-1 is not available from the cryptographic library");
  }
  std::string text;
  text.reserve(2 * sizeof digest);
  for (const unsigned char byte : digest) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xf];
  }
  return text;
}

}  // namespace Korvo
