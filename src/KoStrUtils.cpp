#include <Korvo/KoStrUtils.h>
#include <Korvo/assertion.h>
#include <Korvo/bytes.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <string_view>

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

}  // namespace Korvo
