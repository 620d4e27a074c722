#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "text_oracles.h"
#include "text_test_support.h"

namespace {

using Korvo::KoStrUtils;
using namespace oracle;
using Texts = std::vector<std::string>;

/// Expects exactly std::exception, no class derived from it.
#define EXPECT_PLAIN_EXCEPTION(statement)                               \
  try {                                                                 \
    statement;                                                          \
    ADD_FAILURE() << #statement " throws nothing";                      \
  } catch (const std::exception& thrown) {                              \
    EXPECT_EQ(typeid(thrown), typeid(std::exception)) << thrown.what(); \
  }

/// Empty if the call throws std::exception.
template <typename Call>
std::optional<std::string> resultOf(const Call& call) {
  try {
    return call();
  } catch (const std::exception& thrown) {
    EXPECT_EQ(typeid(thrown), typeid(std::exception));
    return std::nullopt;
  }
}

// -------------------------------------------------------------------------------------------------

TEST(Trim, DropsBlanksAtBothEndsOnly) {
  EXPECT_EQ(KoStrUtils::trim("  a b  "), "a b");
  EXPECT_EQ(KoStrUtils::trim("a"), "a");
  EXPECT_EQ(KoStrUtils::trim(""), "");
  EXPECT_EQ(KoStrUtils::trim("   "), "");
  EXPECT_EQ(KoStrUtils::trim("\ta "), "\ta");
  EXPECT_EQ(KoStrUtils::trim(" a\n"), "a\n");
  EXPECT_EQ(KoStrUtils::trim(" \t "), "\t");
}

TEST(ReplaceMultiBlanks, ReducesRunsOfBlanks) {
  EXPECT_EQ(KoStrUtils::replaceMultiBlanks("   "), " ");
  EXPECT_EQ(KoStrUtils::replaceMultiBlanks(" a  b   c d "), " a b c d ");
  EXPECT_EQ(KoStrUtils::replaceMultiBlanks("a\t\tb\n\n"), "a\t\tb\n\n");
  EXPECT_EQ(KoStrUtils::replaceMultiBlanks("aabb"), "aabb");
  EXPECT_EQ(KoStrUtils::replaceMultiBlanks(""), "");
}

TEST(TrimAndReplaceMultiBlanks, MatchTheirSteps) {
  const auto check = [](const std::string& text) {
    ASSERT_EQ(KoStrUtils::trim(text), trimmedBySteps(text));
    ASSERT_EQ(KoStrUtils::replaceMultiBlanks(text), singleBlanksBySteps(text));
  };
  forEachText(" a\t", 8, check);
  forRandomTexts("", 100, 2000, check);
}

// -------------------------------------------------------------------------------------------------

TEST(ExtractEnquotedString, TakesTheQuotedTextWithItsQuotes) {
  Texts out{"before"};
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, "a \"b c\" d", 2), 7u);
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, "'x'", 0), 3u);
  EXPECT_EQ(out, (Texts{"before", "\"b c\"", "'x'"}));
}

TEST(ExtractEnquotedString, EndsOnlyAtTheQuoteItBeganWith) {
  Texts out;
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, "\"it's\"'", 0), 6u);
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, "'say \"a'", 0), 8u);
  EXPECT_EQ(out, (Texts{"\"it's\"", "'say \"a'"}));
}

TEST(ExtractEnquotedString, TakesAQuoteRightAfterTheOpeningOneAsItsEnd) {
  Texts out;
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, "\"\"\"", 0), 2u);
  EXPECT_EQ(out, (Texts{"\"\""}));
}

TEST(ExtractEnquotedString, SearchesOnAfterAnEscapedQuote) {
  Texts out;
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, R"("a\"b" c)", 0), 6u);
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, R"('\'\'' )", 0), 6u);
  EXPECT_EQ(out, (Texts{R"("a\"b")", R"('\'\'')"}));
}

// One preceding byte decides, so an escaped backslash escapes the quote too.
TEST(ExtractEnquotedString, LooksAtOnePrecedingByteOnly) {
  Texts out;
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, R"("a\\" b")", 0), 8u);
  EXPECT_EQ(out, (Texts{R"("a\\" b")"}));
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, R"("a\\")", 0));
}

// The opening quote is the caller's choice: a backslash before it means nothing.
TEST(ExtractEnquotedString, IgnoresWhatStandsBeforeTheOpeningQuote) {
  Texts out;
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, R"(\"a")", 1), 4u);
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, R"(\"")", 1), 3u);
  EXPECT_EQ(out, (Texts{"\"a\"", "\"\""}));
}

TEST(ExtractEnquotedString, ThrowsWithoutAClosingQuoteAndAppendsNothing) {
  Texts out{"before"};
  for (const char* text : {"\"", "\"abc", "\"abc'", "\"abc\\\"", "'", "'\\'"}) {
    SCOPED_TRACE(text);
    EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, text, 0));
  }
  EXPECT_EQ(out, Texts{"before"});
}

TEST(ExtractEnquotedString, ThrowsForAPositionOutsideTheText) {
  Texts out{"before"};
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, "", 0));
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, "'a'", 3));
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, "'a'", 4));
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::extractEnquotedString(out, "'a'", UINT_MAX));
  EXPECT_EQ(out, Texts{"before"});
}

TEST(ExtractEnquotedString, TakesAnElementOfTheVectorItAppendsTo) {
  Texts out{"'a quoted text longer than a short string' and more"};
  out.shrink_to_fit();
  EXPECT_EQ(KoStrUtils::extractEnquotedString(out, out[0], 0), 42u);
  EXPECT_EQ(out[1], "'a quoted text longer than a short string'");
}

TEST(ExtractEnquotedString, MatchesItsSteps) {
  forEachText("\"'\\a", 6, [](const std::string& text) {
    for (std::size_t pos = 0; pos < text.size(); ++pos) {
      if (text[pos] != '"' && text[pos] != '\'') continue;
      std::size_t expectedEnd = 0;
      std::size_t end = 0;
      Texts expected;
      Texts out;
      const auto expectedText = resultOf([&] {
        expectedEnd = quotedBySteps(expected, text, pos);
        return expected.back();
      });
      const auto actualText = resultOf([&] {
        end = KoStrUtils::extractEnquotedString(out, text, static_cast<unsigned int>(pos));
        return out.back();
      });
      ASSERT_EQ(actualText, expectedText) << text << ' ' << pos;
      ASSERT_EQ(end, expectedEnd) << text << ' ' << pos;
      ASSERT_EQ(out, expected) << text << ' ' << pos;
    }
  });
}

// -------------------------------------------------------------------------------------------------

TEST(Canonicalize, RemovesCommentsAndSurplusBlanks) {
  EXPECT_EQ(KoStrUtils::canonicalize("  select  a /* note */ from t ;"), "select a from t ;");
  EXPECT_EQ(KoStrUtils::canonicalize("a\t\r\nb"), "a b");
  EXPECT_EQ(KoStrUtils::canonicalize("\n a \n"), "a");
  EXPECT_EQ(KoStrUtils::canonicalize(""), "");
  EXPECT_EQ(KoStrUtils::canonicalize(" \t "), "");
  EXPECT_EQ(KoStrUtils::canonicalize("/* all */"), "");
}

TEST(Canonicalize, MakesBlanksOfBytesFrom0x80) {
  EXPECT_EQ(KoStrUtils::canonicalize("a\xc3\xbc"
                                     "b\x7f"),
            "a b\x7f");
}

TEST(Canonicalize, LeavesNoBlankForAComment) {
  EXPECT_EQ(KoStrUtils::canonicalize("sel/* x */ect"), "select");
  EXPECT_EQ(KoStrUtils::canonicalize("a /**/ b"), "a b");
  EXPECT_EQ(KoStrUtils::canonicalize("/**//**/a/**/"), "a");
}

// The end marker may share the asterisk of the start marker.
TEST(Canonicalize, TakesSlashAsteriskSlashForAWholeComment) {
  EXPECT_EQ(KoStrUtils::canonicalize("x/*/y"), "xy");
  EXPECT_EQ(KoStrUtils::canonicalize("x/*/y*/z"), "xy*/z");
  EXPECT_EQ(KoStrUtils::canonicalize("/*/"), "");
}

TEST(Canonicalize, EndsACommentAtItsFirstEndMarker) {
  EXPECT_EQ(KoStrUtils::canonicalize("a/* /* */b*/"), "ab*/");
  EXPECT_EQ(KoStrUtils::canonicalize("a/***/b"), "ab");
  EXPECT_EQ(KoStrUtils::canonicalize("a/* \" ' */b"), "ab");
}

TEST(Canonicalize, KeepsOtherSlashes) {
  EXPECT_EQ(KoStrUtils::canonicalize("a/b // c / * d */ /"), "a/b // c / * d */ /");
  EXPECT_EQ(KoStrUtils::canonicalize("a//*b*/c"), "a/c");
  EXPECT_EQ(KoStrUtils::canonicalize("/"), "/");
}

TEST(Canonicalize, TakesNoCommentMarkersInQuotes) {
  EXPECT_EQ(KoStrUtils::canonicalize("x = 'a /* b' */"), "x = 'a /* b' */");
  EXPECT_EQ(KoStrUtils::canonicalize("\"/*\"a/* */\"*/\""), "\"/*\"a\"*/\"");
  EXPECT_EQ(KoStrUtils::canonicalize("'\"/*'\"'/*\""), "'\"/*'\"'/*\"");
  EXPECT_EQ(KoStrUtils::canonicalize(R"('a\'/*' b)"), R"('a\'/*' b)");
}

// Quotes protect comment markers and nothing else.
TEST(Canonicalize, ReducesBlanksAndControlBytesInQuotes) {
  EXPECT_EQ(KoStrUtils::canonicalize("'a  b'"), "'a b'");
  EXPECT_EQ(KoStrUtils::canonicalize("\"a\t\n b\xff\""), "\"a b \"");
}

// A backslash outside quotes escapes nothing: the quote after it opens a quoted text.
TEST(Canonicalize, OpensAQuoteAfterABackslash) {
  EXPECT_EQ(KoStrUtils::canonicalize(R"(\"/*" a)"), R"(\"/*" a)");
  EXPECT_PLAIN_EXCEPTION(KoStrUtils::canonicalize(R"(a \" b)"));
}

TEST(Canonicalize, ThrowsForWhatDoesNotEnd) {
  for (const char* text : {"x/* y", "x/*", "/*", "/* *", "'a", "\"a", "\"a'", "'\\'", "a '' '",
                           "/**/ /*", "'a\\\\'"}) {
    SCOPED_TRACE(text);
    EXPECT_PLAIN_EXCEPTION(KoStrUtils::canonicalize(text));
  }
}

TEST(Canonicalize, IsItsOwnCanonicalForm) {
  forRandomTexts("ab \t\n'", 60, 5000, [](const std::string& text) {
    const auto once = resultOf([&] { return KoStrUtils::canonicalize(text); });
    if (once) {
      ASSERT_EQ(KoStrUtils::canonicalize(*once), *once);
    }
  });
}

TEST(Canonicalize, MatchesItsSteps) {
  const auto check = [](const std::string& text) {
    ASSERT_EQ(resultOf([&] { return KoStrUtils::canonicalize(text); }),
              resultOf([&] { return canonicalBySteps(text); }))
        << text;
  };
  forEachText("/*\"'\\ a\n", 6, check);
  forEachText("/*' a", 8, check);
  forRandomTexts("", 200, 20000, check);
  forRandomTexts("/**/ab \n\t\x80", 200, 20000, check);
  forRandomTexts("/*/*\"\"'' \\ab \n\xe2", 60, 100000, check);
  forRandomTexts("/*\"' ab\n", 12, 20000, [&](const std::string& text) { check(withRuns(text)); });
}

// -------------------------------------------------------------------------------------------------

TEST(ExtractQueryName, TakesTheWordAfterNamed) {
  EXPECT_EQ(KoStrUtils::extractQueryName("select a into T named q1;"), "q1");
  EXPECT_EQ(KoStrUtils::extractQueryName("select a into T NAMED q1;"), "q1");
  EXPECT_EQ(KoStrUtils::extractQueryName("named q1"), "q1");
  EXPECT_EQ(KoStrUtils::extractQueryName("named q1; "), "q1");
}

TEST(ExtractQueryName, CutsBeforeTheLastSemicolon) {
  EXPECT_EQ(KoStrUtils::extractQueryName("named a;b;c"), "a;b");
  EXPECT_EQ(KoStrUtils::extractQueryName("named a;;"), "a;");
  EXPECT_EQ(KoStrUtils::extractQueryName("named ;"), "");
}

TEST(ExtractQueryName, IsEmptyWithoutTheKeywordInItsPlace) {
  EXPECT_EQ(KoStrUtils::extractQueryName("select a into T;"), "");
  EXPECT_EQ(KoStrUtils::extractQueryName("named q1 ;"), "");
  EXPECT_EQ(KoStrUtils::extractQueryName("named  q1;"), "");
  EXPECT_EQ(KoStrUtils::extractQueryName("xnamed q1;"), "");
}

TEST(ExtractQueryName, IsEmptyForTooFewWords) {
  EXPECT_EQ(KoStrUtils::extractQueryName(""), "");
  EXPECT_EQ(KoStrUtils::extractQueryName("named"), "");
  EXPECT_EQ(KoStrUtils::extractQueryName("named "), "");
  EXPECT_EQ(KoStrUtils::extractQueryName(" "), "");
}

TEST(ExtractOutputType, TakesTheLastWordAfterInto) {
  EXPECT_EQ(KoStrUtils::extractOutputType("select a into T;"), "T");
  EXPECT_EQ(KoStrUtils::extractOutputType("select a InTo T"), "T");
  EXPECT_EQ(KoStrUtils::extractOutputType("into a;b;"), "a;b");
}

TEST(ExtractOutputType, TakesTheWordAfterIntoBeforeAnotherTwo) {
  EXPECT_EQ(KoStrUtils::extractOutputType("select a into T named q1;"), "T");
  EXPECT_EQ(KoStrUtils::extractOutputType("INTO T named q1;"), "T");
  EXPECT_EQ(KoStrUtils::extractOutputType("into T x y"), "T");
  EXPECT_EQ(KoStrUtils::extractOutputType("into T; named q1;"), "T;") << "no semicolon is cut here";
}

TEST(ExtractOutputType, PrefersTheLaterInto) {
  EXPECT_EQ(KoStrUtils::extractOutputType("into T into U;"), "U");
}

constexpr const char* outputTypeSignature =
    "static std::string Korvo::KoStrUtils::extractOutputType(const string&)";

TEST(ExtractOutputTypeDeathTest, StopsWithoutInto) {
  for (const char* text : {"select a from t;", "into x y z w", "a into b c", "in to T;"}) {
    EXPECT_ASSERTION(KoStrUtils::extractOutputType(text), "src/KoStrUtils.cpp", outputTypeSignature,
                     "false")
        << text;
  }
}

TEST(ExtractOutputTypeDeathTest, StopsForTooFewWords) {
  for (const char* text : {"", " ", "into", "into ", "T;", "into a b", "x y z"}) {
    EXPECT_ASSERTION(KoStrUtils::extractOutputType(text), "src/KoStrUtils.cpp", outputTypeSignature,
                     "false")
        << text;
  }
}

// The words are those that split makes, empty ones included.
TEST(ExtractNames, CountWordsLikeSplit) {
  std::mt19937 random(7);
  const Texts vocabulary{"into", "INTO", "named", "Named", "T", "q;", ";", "", " ", "a;b"};
  for (int round = 0; round < 50000; ++round) {
    std::string text;
    const auto words = random() % 7;
    for (unsigned int i = 0; i < words; ++i) {
      text += vocabulary[random() % vocabulary.size()];
      if (random() % 8 != 0) text += ' ';
    }
    Texts split;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, ' ');) split.push_back(word);
    const std::size_t n = split.size();
    const auto isKeyword = [&](std::size_t fromEnd, const char* lower) {
      if (n < fromEnd) return false;
      std::string word = split[n - fromEnd];
      std::transform(word.begin(), word.end(), word.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      return word == lower;
    };
    const auto lastCut = [&] { return split.back().substr(0, split.back().rfind(';')); };

    EXPECT_EQ(KoStrUtils::extractQueryName(text), isKeyword(2, "named") ? lastCut() : "") << text;
    if (isKeyword(2, "into")) {
      EXPECT_EQ(KoStrUtils::extractOutputType(text), lastCut()) << text;
    } else if (isKeyword(4, "into")) {
      EXPECT_EQ(KoStrUtils::extractOutputType(text), split[n - 3]) << text;
    }
  }
}

}  // namespace
