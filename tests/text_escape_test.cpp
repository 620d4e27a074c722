#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <string>

#include "text_oracles.h"
#include "text_test_support.h"

namespace {

using Korvo::deescapeString;
using Korvo::escapeString;
using Korvo::KoStrUtils;
using namespace oracle;

std::string allBytes() {
  std::string bytes;
  for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
  return bytes;
}

TEST(EscapeString, WritesFourCharactersWithBackslashes) {
  EXPECT_EQ(escapeString("\n"), R"(\n)");
  EXPECT_EQ(escapeString("\t"), R"(\t)");
  EXPECT_EQ(escapeString("\""), R"(\")");
  EXPECT_EQ(escapeString("\\"), R"(\\)");
  EXPECT_EQ(escapeString("say \"a\\b\"\n\tdone"), R"(say \"a\\b\"\n\tdone)");
}

TEST(EscapeString, LeavesEveryOtherByteAlone) {
  for (int b = 0; b < 256; ++b) {
    const std::string byte(1, static_cast<char>(b));
    if (byte == "\n" || byte == "\t" || byte == "\"" || byte == "\\") continue;
    EXPECT_EQ(escapeString(byte), byte) << b;
  }
  EXPECT_EQ(escapeString("\r"), "\r");
  EXPECT_EQ(escapeString(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(EscapeString, OfEmptyTextIsEmpty) {
  EXPECT_EQ(escapeString(""), "");
}

TEST(EscapeString, OfBackslashAndLetterIsThreeBytes) {
  EXPECT_EQ(escapeString("\\n"), "\\\\n");
  EXPECT_EQ(escapeString("\\n").size(), 3u);
  EXPECT_EQ(deescapeString("\\\\n"), "\\n");
}

TEST(EscapeString, PutsEscapesAtEveryPositionOfLongTexts) {
  for (std::size_t size = 1; size <= 40; ++size) {
    for (std::size_t at = 0; at < size; ++at) {
      for (const char special : {'\n', '\t', '"', '\\'}) {
        std::string text(size, 'x');
        text[at] = special;
        EXPECT_EQ(escapeString(text), escapedBySteps(text)) << size << ' ' << at;
      }
    }
  }
}

TEST(EscapeString, LeavesItsArgumentAlone) {
  const std::string text = "a\"b";
  escapeString(text);
  KoStrUtils::escapeString(text);
  deescapeString("a\\\"b");
  KoStrUtils::replaceCtrl(text);
  EXPECT_EQ(text, "a\"b");
}

TEST(DeescapeString, UndoesTheFourEscapes) {
  EXPECT_EQ(deescapeString(R"(\n)"), "\n");
  EXPECT_EQ(deescapeString(R"(\t)"), "\t");
  EXPECT_EQ(deescapeString(R"(\")"), "\"");
  EXPECT_EQ(deescapeString(R"(\\)"), "\\");
  EXPECT_EQ(deescapeString(""), "");
  EXPECT_EQ(deescapeString("plain \" text\n"), "plain \" text\n");
}

TEST(DeescapeString, InvertsEscapeString) {
  const auto check = [](const std::string& text) {
    const std::string escaped = escapeString(text);
    ASSERT_EQ(escaped, escapedBySteps(text));
    ASSERT_EQ(deescapeString(escaped), text);
  };
  check(allBytes());
  check("\r\x7f\x80\xff");
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      check({static_cast<char>(first), static_cast<char>(second)});
    }
  }
  forRandomTexts("", 100, 20000, check);
  forRandomTexts("\\\"nt\n\t", 100, 20000, check);
  forRandomTexts("ab\\\"", 20, 5000, [&](const std::string& text) { check(withRuns(text)); });
}

constexpr const char* deescapeSignature = "std::string Korvo::deescapeString(const string&)";

TEST(DeescapeStringDeathTest, StopsAtABackslashAtTheEnd) {
  EXPECT_ASSERTION(deescapeString("\\"), "src/KoStrUtils.cpp", deescapeSignature, "0");
  EXPECT_ASSERTION(deescapeString("\\\\\\"), "src/KoStrUtils.cpp", deescapeSignature, "0");
  EXPECT_ASSERTION(deescapeString("0123456\\"), "src/KoStrUtils.cpp", deescapeSignature, "0");
  EXPECT_ASSERTION(deescapeString("0123456789abcdef\\"), "src/KoStrUtils.cpp", deescapeSignature,
                   "0");
}

TEST(DeescapeStringDeathTest, StopsAtAnUnknownEscape) {
  for (const char* text : {"\\r", "\\a", "\\0", "\\ ", "\\N", "\\'", "ab\\xcdefghijkl"}) {
    EXPECT_ASSERTION(deescapeString(text), "src/KoStrUtils.cpp", deescapeSignature, "0") << text;
  }
  EXPECT_ASSERTION(deescapeString(std::string("\\\0", 2)), "src/KoStrUtils.cpp", deescapeSignature,
                   "0");
}

// Only quotes are escaped, so the result is not always what deescapeString undoes.
TEST(KoStrUtilsEscapeString, EscapesDoubleQuotesOnly) {
  EXPECT_EQ(KoStrUtils::escapeString(""), "");
  EXPECT_EQ(KoStrUtils::escapeString("\"a\""), "\\\"a\\\"");
  EXPECT_EQ(KoStrUtils::escapeString("say \"a\"").size(), 9u);
  EXPECT_EQ(KoStrUtils::escapeString("a\\b\n\t'"), "a\\b\n\t'");
  EXPECT_EQ(KoStrUtils::escapeString("\\\""), "\\\\\"");
  EXPECT_EQ(KoStrUtils::escapeString("\"\""), "\\\"\\\"");
}

TEST(KoStrUtilsEscapeString, MatchesItsSteps) {
  const auto check = [](const std::string& text) {
    ASSERT_EQ(KoStrUtils::escapeString(text), quotesEscapedBySteps(text));
  };
  check(allBytes());
  forEachText("\"\\a", 7, check);
  forRandomTexts("", 200, 5000, check);
  forRandomTexts("\"\\a", 20, 2000, [&](const std::string& text) { check(withRuns(text)); });
}

TEST(ReplaceCtrl, MakesBlanksOfControlBytesAndOfAllBytesFrom0x80) {
  std::string expected;
  for (int b = 0; b < 256; ++b) expected += b < 0x20 || b >= 0x80 ? ' ' : static_cast<char>(b);
  EXPECT_EQ(KoStrUtils::replaceCtrl(allBytes()), expected);
  EXPECT_EQ(KoStrUtils::replaceCtrl("\t\n\xc3\x7f"), "   \x7f");
  EXPECT_EQ(KoStrUtils::replaceCtrl(""), "");
}

TEST(ReplaceCtrl, KeepsTheLength) {
  forRandomTexts("", 300, 2000, [](const std::string& text) {
    const std::string replaced = KoStrUtils::replaceCtrl(text);
    ASSERT_EQ(replaced.size(), text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
      const auto byte = static_cast<unsigned char>(text[i]);
      ASSERT_EQ(replaced[i], byte < 0x20 || byte > 0x7f ? ' ' : text[i]);
    }
  });
}

}  // namespace
