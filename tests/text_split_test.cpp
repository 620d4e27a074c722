#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "text_oracles.h"
#include "text_test_support.h"

namespace {

using Korvo::KoStrUtils;
using Korvo::processArrayString;
using Korvo::splitString;
using namespace oracle;
using Texts = std::vector<std::string>;

Texts splitAt(const std::string& text, char delim) {
  Texts pieces;
  return KoStrUtils::split(text, delim, pieces);
}

TEST(SplitString, DropsEmptyPieces) {
  Texts out;
  EXPECT_EQ(splitString("a::b", ':', out), 2);
  EXPECT_EQ(out, (Texts{"a", "b"}));
}

TEST(SplitString, AppendsAndReturnsTheSizeOfAll) {
  Texts out{"1", "2", "3"};
  EXPECT_EQ(splitString("a::b", ':', out), 5);
  EXPECT_EQ(out, (Texts{"1", "2", "3", "a", "b"}));
  EXPECT_EQ(splitString("", ':', out), 5);
  EXPECT_EQ(splitString(":::", ':', out), 5);
}

TEST(Split, KeepsEmptyPieces) {
  EXPECT_EQ(splitAt("a  b", ' '), (Texts{"a", "", "b"}));
  EXPECT_EQ(splitAt(" a", ' '), (Texts{"", "a"}));
}

TEST(Split, MakesNoPieceOfADelimiterAtTheEnd) {
  EXPECT_EQ(splitAt("a b ", ' '), (Texts{"a", "b"}));
  EXPECT_EQ(splitAt("a b  ", ' '), (Texts{"a", "b", ""}));
  EXPECT_EQ(splitAt(" ", ' '), (Texts{""}));
}

TEST(Split, OfEmptyTextAppendsNothing) {
  EXPECT_EQ(splitAt("", ' '), Texts{});
}

TEST(Split, AppendsAndReturnsTheSameVector) {
  Texts out{"1"};
  EXPECT_EQ(&KoStrUtils::split("a,b", ',', out), &out);
  EXPECT_EQ(out, (Texts{"1", "a", "b"}));
}

TEST(Split, TakesAnyByteAsDelimiter) {
  EXPECT_EQ(splitAt(std::string("a\0b", 3), '\0'), (Texts{"a", "b"}));
  EXPECT_EQ(splitAt("a\xffz", '\xff'), (Texts{"a", "z"}));
  EXPECT_EQ(splitAt("a\nb c", ' '), (Texts{"a\nb", "c"}));
}

TEST(Split, MatchesReadingLines) {
  const auto check = [](const std::string& text) {
    const Texts pieces = piecesBySteps(text, ':');
    ASSERT_EQ(splitAt(text, ':'), pieces) << text;

    Texts expected{"x"};
    for (const std::string& piece : pieces) {
      if (!piece.empty()) expected.push_back(piece);
    }
    Texts out{"x"};
    ASSERT_EQ(splitString(text, ':', out), static_cast<int>(expected.size())) << text;
    ASSERT_EQ(out, expected) << text;
  };
  forEachText(std::string_view("a:\0", 3), 8, check);
  forRandomTexts("", 300, 3000, check);
  forRandomTexts("abcdefg:", 300, 3000, check);
}

// The text may be one of the vector's own elements, which growth of the vector moves.
TEST(Split, TakesAnElementOfTheVectorItAppendsTo) {
  const std::string text = "a rather long first piece:a rather long second piece::x";
  for (const std::size_t spare : {0u, 16u}) {
    Texts out{"first", text};
    out.shrink_to_fit();
    out.reserve(out.size() + spare);
    KoStrUtils::split(out[1], ':', out);
    Texts expected{"first", text, "a rather long first piece", "a rather long second piece",
                   "",      "x"};
    EXPECT_EQ(out, expected);

    out = {"first", text};
    out.shrink_to_fit();
    out.reserve(out.size() + spare);
    EXPECT_EQ(splitString(out[1], ':', out), 5);
    expected.erase(expected.begin() + 4);
    EXPECT_EQ(out, expected);
  }
}

TEST(ProcessArrayString, CutsAtCommasAndDropsQuotes) {
  EXPECT_EQ(processArrayString("\"x\",y"), (Texts{"x", "y"}));
  EXPECT_EQ(processArrayString("x\"y\"z"), (Texts{"xyz"}));
  EXPECT_EQ(processArrayString("\"\""), (Texts{""}));
}

TEST(ProcessArrayString, DoesNotProtectCommasByQuotes) {
  EXPECT_EQ(processArrayString("\"a,b\""), (Texts{"a", "b"}));
}

TEST(ProcessArrayString, KeepsEmptyItems) {
  EXPECT_EQ(processArrayString("a,"), (Texts{"a", ""}));
  EXPECT_EQ(processArrayString(","), (Texts{"", ""}));
  EXPECT_EQ(processArrayString(""), Texts{});
}

TEST(ProcessArrayString, KeepsBlanks) {
  EXPECT_EQ(processArrayString(" a , b "), (Texts{" a ", " b "}));
}

TEST(ProcessArrayString, MatchesItsSteps) {
  const auto check = [](const std::string& text) {
    ASSERT_EQ(processArrayString(text), itemsBySteps(text)) << text;
  };
  forEachText(std::string_view("a,\"\0", 4), 7, check);
  forRandomTexts("", 200, 2000, check);
  forRandomTexts("abcd, \"", 200, 2000, check);
}

}  // namespace
