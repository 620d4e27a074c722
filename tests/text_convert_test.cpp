#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <bit>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "text_test_support.h"

namespace {

using Korvo::KoStrUtils;

/// Sets the C locale for a scope; not if the system lacks it.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : set_(std::setlocale(LC_ALL, name) != nullptr) {}
  ~ScopedLocale() { std::setlocale(LC_ALL, "C"); }
  explicit operator bool() const { return set_; }

 private:
  bool set_;
};

// -------------------------------------------------------------------------------------------------

TEST(StoUint64, ReadsDecimalDigits) {
  EXPECT_EQ(KoStrUtils::stoUint64_t(""), 0u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("0"), 0u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("007"), 7u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("4294967296"), 4294967296u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("18446744073709551615"), UINT64_MAX);
}

TEST(StoUint64, ReadsNumbersOfEveryLength) {
  std::string text;
  std::uint64_t value = 0;
  for (unsigned int length = 1; length <= 19; ++length) {
    text += static_cast<char>('0' + length * 7 % 10);
    value = value * 10 + length * 7 % 10;
    EXPECT_EQ(KoStrUtils::stoUint64_t(text), value);
  }
}

TEST(StoUint64, WrapsSilently) {
  EXPECT_EQ(KoStrUtils::stoUint64_t("18446744073709551616"), 0u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("18446744073709551625"), 9u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("36893488147419103232"), 0u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("1" + std::string(64, '0')), 0u);
}

// Whatever is no digit counts as its signed code minus that of '0'.
TEST(StoUint64, ChecksNothing) {
  EXPECT_EQ(KoStrUtils::stoUint64_t("12a"), 169u);
  EXPECT_EQ(KoStrUtils::stoUint64_t("-5"), std::uint64_t{0} - 25);
  EXPECT_EQ(KoStrUtils::stoUint64_t("+1"), std::uint64_t{0} - 49);
  EXPECT_EQ(KoStrUtils::stoUint64_t(" 7"), std::uint64_t{0} - 153);
  EXPECT_EQ(KoStrUtils::stoUint64_t("\xff"), std::uint64_t{0} - 49);
  EXPECT_EQ(KoStrUtils::stoUint64_t("\x80"), std::uint64_t{0} - 176);
  EXPECT_EQ(KoStrUtils::stoUint64_t(std::string("1\0", 2)), std::uint64_t{0} - 38);
}

TEST(StoUint64, MatchesItsSteps) {
  const auto check = [](const std::string& text) {
    std::uint64_t expected = 0;
    for (const char c : text) {
      const int code =
          static_cast<unsigned char>(c) < 128 ? c : static_cast<unsigned char>(c) - 256;
      expected *= 10;
      expected += static_cast<std::uint64_t>(std::int64_t{code} - 48);
    }
    ASSERT_EQ(KoStrUtils::stoUint64_t(text), expected) << text;
  };
  forRandomTexts("", 40, 20000, check);
  forRandomTexts("0123456789", 40, 20000, check);
  for (int b = 0; b < 256; ++b) check({static_cast<char>(b)});
}

// -------------------------------------------------------------------------------------------------

TEST(StoDouble, ReadsTheNumberAtTheStart) {
  EXPECT_EQ(KoStrUtils::stoDouble("1.5e3xyz"), 1500.0);
  EXPECT_EQ(KoStrUtils::stoDouble("  -2.5 7"), -2.5);
  EXPECT_EQ(KoStrUtils::stoDouble("\t\n1e"), 1.0);
  EXPECT_EQ(KoStrUtils::stoDouble("0x1p4"), 16.0);
  EXPECT_EQ(KoStrUtils::stoDouble("infinity"), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(KoStrUtils::stoDouble("nan")));
  EXPECT_EQ(KoStrUtils::stoDouble("1.7976931348623157e308"), std::numeric_limits<double>::max());
  EXPECT_TRUE(std::signbit(KoStrUtils::stoDouble("-0")));
}

TEST(StoDouble, EndsAtANul) {
  EXPECT_EQ(KoStrUtils::stoDouble(std::string("1\0005", 3)), 1.0);
  EXPECT_THROW(KoStrUtils::stoDouble(std::string("\0001", 2)), std::invalid_argument);
}

/// Expects exactly this exception, with the text "stod".
template <typename Exception>
void expectStodException(const std::string& text) {
  try {
    KoStrUtils::stoDouble(text);
    ADD_FAILURE() << text << " gives a number";
  } catch (const std::exception& thrown) {
    EXPECT_EQ(typeid(thrown), typeid(Exception)) << text;
    EXPECT_STREQ(thrown.what(), "stod") << text;
  }
}

TEST(StoDouble, ThrowsInvalidArgumentWithoutANumber) {
  for (const char* text : {"", " ", "abc", "-", "e5", ".", "+-1"}) {
    expectStodException<std::invalid_argument>(text);
  }
}

// A range error of strtod counts in both directions: numbers too small for full precision as well.
TEST(StoDouble, ThrowsOutOfRangeAtARangeError) {
  for (const char* text : {"1e999", "-1e999", "1e999 and more", "1e-999", "-1e-999", "4e-320"}) {
    expectStodException<std::out_of_range>(text);
  }
  EXPECT_EQ(KoStrUtils::stoDouble("0x1p-1074"), std::numeric_limits<double>::denorm_min())
      << "exact, so no range error";
}

TEST(StoDouble, LeavesErrnoAlone) {
  for (const int before : {0, ERANGE, EINTR}) {
    errno = before;
    EXPECT_EQ(KoStrUtils::stoDouble("1"), 1.0);
    EXPECT_EQ(errno, before);
    EXPECT_THROW(KoStrUtils::stoDouble("x"), std::invalid_argument);
    EXPECT_EQ(errno, before);
    EXPECT_THROW(KoStrUtils::stoDouble("1e999"), std::out_of_range);
    EXPECT_EQ(errno, before);
  }
}

TEST(StoDouble, MatchesTheStandardLibrary) {
  const auto outcome = [](const auto& convert, const std::string& text) -> std::string {
    try {
      return std::to_string(std::bit_cast<std::uint64_t>(convert(text)));
    } catch (const std::exception& thrown) {
      return std::string(typeid(thrown).name()) + thrown.what();
    }
  };
  forRandomTexts("0123456789.e+-x ", 14, 50000, [&](const std::string& text) {
    ASSERT_EQ(outcome(KoStrUtils::stoDouble, text),
              outcome([](const std::string& t) { return std::stod(t); }, text))
        << text;
  });
}

TEST(StoDouble, FollowsTheCLocale) {
  const ScopedLocale locale("de_DE.UTF-8");
  if (!locale) GTEST_SKIP() << "the system has no locale de_DE.UTF-8";
  EXPECT_EQ(KoStrUtils::stoDouble("1,5"), 1.5);
  EXPECT_EQ(KoStrUtils::stoDouble("1.5"), 1.0);
}

// -------------------------------------------------------------------------------------------------

TEST(Iequals, IgnoresCase) {
  EXPECT_TRUE(KoStrUtils::iequals("Select", "SELECT"));
  EXPECT_TRUE(KoStrUtils::iequals("", ""));
  EXPECT_FALSE(KoStrUtils::iequals("select", "selecs"));
  EXPECT_FALSE(KoStrUtils::iequals("[", "{")) << "they differ as an upper from a lower letter";
}

TEST(Iequals, ComparesLengths) {
  EXPECT_FALSE(KoStrUtils::iequals("a", "ab"));
  EXPECT_FALSE(KoStrUtils::iequals("ab", "a"));
  EXPECT_FALSE(KoStrUtils::iequals("", "a"));
  EXPECT_FALSE(KoStrUtils::iequals(std::string("a\0", 2), "a"));
}

TEST(Iequals, ComparesBeyondANul) {
  EXPECT_TRUE(KoStrUtils::iequals(std::string("a\0B\0\0c", 6), std::string("A\0b\0\0C", 6)));
  EXPECT_FALSE(KoStrUtils::iequals(std::string("a\0b", 3), std::string("a\0c", 3)));
  EXPECT_FALSE(KoStrUtils::iequals(std::string("\0", 1), "a"));
  EXPECT_FALSE(KoStrUtils::iequals(std::string("a\0", 2), "ab"));
}

TEST(Iequals, TakesManyNuls) {
  std::string a(1000000, '\0');
  std::string b = a;
  EXPECT_TRUE(KoStrUtils::iequals(a, b));
  a += 'x';
  b += 'X';
  EXPECT_TRUE(KoStrUtils::iequals(a, b));
  b.back() = 'y';
  EXPECT_FALSE(KoStrUtils::iequals(a, b));
}

TEST(Iequals, ComparesWhatTolowerGivesInEveryLocale) {
  int locales = 0;
  for (const char* name : {"C", "C.UTF-8", "en_US.ISO-8859-1", "de_DE.ISO-8859-1", "tr_TR.UTF-8",
                           "tr_TR.ISO-8859-9"}) {
    const ScopedLocale locale(name);
    if (!locale) continue;
    ++locales;
    for (int a = 0; a < 256; ++a) {
      for (int b = 0; b < 256; ++b) {
        const std::string prefix = "Common Beginning ";
        const bool equal = std::tolower(a) == std::tolower(b);
        ASSERT_EQ(KoStrUtils::iequals({static_cast<char>(a)}, {static_cast<char>(b)}), equal)
            << name << ' ' << a << ' ' << b;
        ASSERT_EQ(KoStrUtils::iequals(prefix + static_cast<char>(a) + "end",
                                      prefix + static_cast<char>(b) + "END"),
                  equal)
            << name << ' ' << a << ' ' << b;
      }
    }
  }
  EXPECT_GE(locales, 1);
}

// One pair of bytes at every place of texts that are the same otherwise.
TEST(Iequals, ComparesTheOnlyDifferenceWhereverItIs) {
  int locales = 0;
  for (const char* name : {"C", "tr_TR.ISO-8859-9"}) {
    const ScopedLocale locale(name);
    if (!locale) continue;
    ++locales;
    for (const std::size_t size : {1u, 7u, 15u, 16u, 17u, 24u, 31u, 32u, 33u, 48u}) {
      for (const char* pair : {"kK", "iI", "Ii", "kk", "kL", "@`", "[{"}) {
        const bool equal = std::tolower(static_cast<unsigned char>(pair[0])) ==
                           std::tolower(static_cast<unsigned char>(pair[1]));
        for (std::size_t at = 0; at < size; ++at) {
          std::string a(size, 'n');
          std::string b = a;
          a[at] = pair[0];
          b[at] = pair[1];
          ASSERT_EQ(KoStrUtils::iequals(a, b), equal) << name << ' ' << a << ' ' << b;
        }
      }
    }
  }
  EXPECT_GE(locales, 1);
}

// The same in texts that take several steps, with other letters in the other case all around.
TEST(Iequals, ComparesTheOnlyDifferenceInLongTexts) {
  for (const std::size_t size : {63u, 64u, 65u, 66u, 79u, 80u, 81u, 127u, 128u, 129u, 145u, 300u}) {
    for (const char* pair : {"kK", "kk", "kL", "@`", "[{"}) {
      const bool equal = std::tolower(pair[0]) == std::tolower(pair[1]);
      for (std::size_t at = 0; at < size; ++at) {
        std::string a(size, 'n');
        std::string b(size, 'N');
        a[at] = pair[0];
        b[at] = pair[1];
        ASSERT_EQ(KoStrUtils::iequals(a, b), equal) << size << ' ' << pair << ' ' << at;
        ASSERT_EQ(KoStrUtils::iequals(b, a), equal) << size << ' ' << pair << ' ' << at;
      }
    }
  }
}

TEST(Iequals, MatchesItsSteps) {
  forRandomTexts("aAbB\xc4[{@`\x01!", 12, 50000, [](const std::string& text) {
    const std::string a = text.substr(0, text.size() / 2);
    const std::string b = text.substr(text.size() / 2);
    bool expected = a.size() == b.size();
    for (std::size_t i = 0; expected && i < a.size(); ++i) {
      expected = std::tolower(static_cast<unsigned char>(a[i])) ==
                 std::tolower(static_cast<unsigned char>(b[i]));
    }
    ASSERT_EQ(KoStrUtils::iequals(a, b), expected) << text;
  });
}

// -------------------------------------------------------------------------------------------------

/// SHA-1 as its standard describes it.
std::string sha1BySteps(std::string data) {
  std::uint32_t h[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
  const std::uint64_t bits = std::uint64_t{data.size()} * 8;
  data += '\x80';
  while (data.size() % 64 != 56) data += '\0';
  for (int shift = 56; shift >= 0; shift -= 8) data += static_cast<char>(bits >> shift & 0xff);
  for (std::size_t at = 0; at < data.size(); at += 64) {
    std::uint32_t w[80];
    for (std::size_t t = 0; t < 80; ++t) {
      if (t < 16) {
        w[t] = 0;
        for (std::size_t i = 0; i < 4; ++i) {
          w[t] = w[t] << 8 | static_cast<unsigned char>(data[at + 4 * t + i]);
        }
      } else {
        w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
      }
    }
    auto [a, b, c, d, e] = h;
    for (std::size_t t = 0; t < 80; ++t) {
      const std::uint32_t f = t < 20   ? ((b & c) | (~b & d)) + 0x5a827999
                              : t < 40 ? (b ^ c ^ d) + 0x6ed9eba1
                              : t < 60 ? ((b & c) | (b & d) | (c & d)) + 0x8f1bbcdc
                                       : (b ^ c ^ d) + 0xca62c1d6;
      const std::uint32_t next = std::rotl(a, 5) + f + e + w[t];
      e = d;
      d = c;
      c = std::rotl(b, 30);
      b = a;
      a = next;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
  std::string text;
  for (const std::uint32_t word : h) {
    for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[word >> shift & 0xf];
  }
  return text;
}

TEST(Sha1, GivesTheKnownDigests) {
  EXPECT_EQ(KoStrUtils::sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(KoStrUtils::sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(KoStrUtils::sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(KoStrUtils::sha1(std::string(1000000, 'a')),
            "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, DigestsEveryLengthAndEveryByte) {
  std::string data;
  for (int length = 0; length < 300; ++length) {
    ASSERT_EQ(KoStrUtils::sha1(data), sha1BySteps(data)) << length;
    data += static_cast<char>(length & 0xff);
  }
}

}  // namespace
