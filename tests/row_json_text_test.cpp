// The JSON text of strings, whatever their bytes and wherever in the text they stand: a plain
// encoder, one character at a time, beside the library's.

#include <Korvo/TableRow.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Row = Korvo::TableRow<Korvo::RowLayout<1, Korvo::Column<"text", std::string>>>;

std::string hex(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    char two[4];
    std::snprintf(two, sizeof two, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(c)));
    digits += two;
  }
  return digits;
}

/// The length of the UTF-8 character at `at`, by its value; 0 if there is none.
std::size_t characterLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) -> std::uint32_t {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
  };
  const std::uint32_t lead = byte(at);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >> 5 == 0x6    ? 2
                             : lead >> 4 == 0xE  ? 3
                             : lead >> 3 == 0x1E ? 4
                                                 : 0;
  if (length == 0) return 0;
  std::uint32_t value = lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    value = value << 6 | (byte(at + i) & 0x3F);
  }
  const std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return value < least[length] || value > 0x10FFFF || surrogate ? 0 : length;
}

std::string plainJson(const std::string& text) {
  std::string json = "{\"text\":\"";
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = characterLength(text, i);
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (length == 0) {
      json += "\xEF\xBF\xBD";
    } else if (c == '"') {
      json += "\\\"";
    } else if (c == '\\') {
      json += "\\\\";
    } else if (c == '\n') {
      json += "\\n";
    } else if (c == '\r') {
      json += "\\r";
    } else if (c == '\t') {
      json += "\\t";
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      json += escape;
    } else {
      json += text.substr(i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"}";
}

void expectPlain(Row& row, const std::string& text) {
  row.set<"text">(text);
  const std::string json = row.toJson();
  const std::string plain = plainJson(text);
  ASSERT_EQ(json, plain) << "of " << hex(text);
}

/// Plain characters, among them the neighbours of those that are not.
std::string plainText(std::size_t length, std::size_t begin) {
  static const std::string characters = " !#[]~/a0Z}";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) text += characters[(begin + i) % characters.size()];
  return text;
}

/// A piece anywhere in a block of eight bytes and across two.
void expectPlainWhereverItStands(Row& row, const std::string& piece) {
  for (std::size_t before = 0; before <= 16; ++before) {
    for (std::size_t after = 0; after <= 16; ++after) {
      ASSERT_NO_FATAL_FAILURE(
          expectPlain(row, plainText(before, after) + piece + plainText(after, before)));
    }
  }
}

Row newRow() {
  Row row;
  row.create(0, 64);
  return row;
}

TEST(JsonText, EveryByteWhereverItStands) {
  Row row = newRow();
  for (unsigned byte = 0; byte < 256; ++byte) {
    expectPlainWhereverItStands(row, std::string(1, static_cast<char>(byte)));
    if (HasFatalFailure()) return;
  }
}

TEST(JsonText, SequencesAtTheLimitsOfTheirLengthsWhereverTheyStand) {
  Row row = newRow();
  const std::vector<std::string> pieces = {"\xC0\x80",
                                           "\xC1\xBF",
                                           "\xC2\x80",
                                           "\xDF\xBF",
                                           "\xC2",
                                           "\xC2\xC2",
                                           "\xDF\x7F",
                                           "\xE0\x80\x80",
                                           "\xE0\x9F\xBF",
                                           "\xE0\xA0\x80",
                                           "\xE0\xBF\xBF",
                                           "\xE0\xA0",
                                           "\xE0",
                                           "\xE0\xA0\xC0",
                                           "\xE0\xC0\x80",
                                           "\xE1\x80\x80",
                                           "\xEC\xBF\xBF",
                                           "\xED\x9F\xBF",
                                           "\xED\xA0\x80",
                                           "\xED\xBF\xBF",
                                           "\xEE\x80\x80",
                                           "\xEF\xBF\xBD",
                                           "\xEF\xBF\xBF",
                                           "\xEF\xBF",
                                           "\xF0\x80\x80\x80",
                                           "\xF0\x8F\xBF\xBF",
                                           "\xF0\x90\x80\x80",
                                           "\xF0\x90\x80",
                                           "\xF0\x90",
                                           "\xF0",
                                           "\xF3\xBF\xBF\xBF",
                                           "\xF4\x8F\xBF\xBF",
                                           "\xF4\x90\x80\x80",
                                           "\xF5\x80\x80\x80",
                                           "\xF7\xBF\xBF\xBF",
                                           "\xF8\x88\x80\x80\x80",
                                           "\xFE\xFF",
                                           "\x80\x80",
                                           "\"\"",
                                           "\\\"",
                                           "\x1F\x7F",
                                           std::string(3, '\0')};
  for (const std::string& piece : pieces) {
    expectPlainWhereverItStands(row, piece);
    if (HasFatalFailure()) return;
  }
}

std::string utf8(std::uint32_t value) {
  const auto tail = [&](unsigned shift) {
    return static_cast<char>(0x80 | (value >> shift & 0x3F));
  };
  if (value < 0x80) return {static_cast<char>(value)};
  if (value < 0x800) return {static_cast<char>(0xC0 | value >> 6), tail(0)};
  if (value < 0x10000) return {static_cast<char>(0xE0 | value >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xF0 | value >> 18), tail(12), tail(6), tail(0)};
}

/// A character stands for itself.
void expectItself(Row& row, std::uint32_t value, std::size_t before) {
  const std::string text = plainText(before, 0) + utf8(value) + "z";
  row.set<"text">(text);
  ASSERT_EQ(row.toJson(), "{\"text\":\"" + text + "\"}") << "U+" << std::hex << value;
}

TEST(JsonText, CharactersFromU0800ToU0FFFStandForThemselves) {
  Row row = newRow();
  for (std::uint32_t value = 0x800; value <= 0xFFF; ++value) {
    for (std::size_t before = 0; before <= 8; ++before) {
      ASSERT_NO_FATAL_FAILURE(expectItself(row, value, before));
    }
  }
}

TEST(JsonText, EveryOtherCharacterStandsForItself) {
  Row row = newRow();
  for (std::uint32_t value = 0x80; value <= 0x10FFFF; value += value < 0x3000 ? 1 : 61) {
    if (value >= 0xD800 && value <= 0xDFFF) continue;
    ASSERT_NO_FATAL_FAILURE(expectItself(row, value, value % 9));
  }
}

TEST(JsonText, TwoSpecialCharactersInOneBlock) {
  Row row = newRow();
  const char specials[] = {'"', '\\', '\n', '\x01', '\x1F', '\x7F', '\x80', '\xFF', ' ', '!'};
  for (const char first : specials) {
    for (const char second : specials) {
      for (std::size_t at = 0; at < 16; ++at) {
        for (std::size_t then = at + 1; then < 17; ++then) {
          std::string text = plainText(24, at);
          text[at] = first;
          text[then] = second;
          ASSERT_NO_FATAL_FAILURE(expectPlain(row, text));
        }
      }
    }
  }
}

}  // namespace
