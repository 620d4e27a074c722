#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <random>
#include <string>

#include "text_test_support.h"

namespace {

using Korvo::KoStrUtils;

std::string baseName(std::string path) {
  const std::string before = path;
  const std::string result = KoStrUtils::baseName(path);
  EXPECT_EQ(path, before);
  return result;
}

std::string withTrailingSlash(std::string path) {
  KoStrUtils::addTrailingSlash(path);
  return path;
}

TEST(BaseName, DropsFoldersAndTheLastSuffix) {
  EXPECT_EQ(baseName("dir/sub/file.tar.gz"), "file.tar");
  EXPECT_EQ(baseName("file"), "file");
  EXPECT_EQ(baseName("/file.txt"), "file");
  EXPECT_EQ(baseName("dir.d/file"), "file") << "a dot of a folder does not count";
  EXPECT_EQ(baseName("file."), "file");
}

TEST(BaseName, CanBeEmpty) {
  EXPECT_EQ(baseName(".profile"), "");
  EXPECT_EQ(baseName("dir/"), "");
  EXPECT_EQ(baseName("dir/.x"), "");
  EXPECT_EQ(baseName(""), "");
  EXPECT_EQ(baseName("/"), "");
  EXPECT_EQ(baseName("."), "");
  EXPECT_EQ(baseName(".."), ".");
}

TEST(BaseName, MatchesItsSteps) {
  forEachText("/.a", 8, [](const std::string& path) {
    std::string expected = path;
    if (expected.find('/') != std::string::npos) expected.erase(0, expected.rfind('/') + 1);
    if (expected.find('.') != std::string::npos) expected.erase(expected.rfind('.'));
    ASSERT_EQ(baseName(path), expected) << path;
  });
}

TEST(AddTrailingSlash, AppendsOneOnlyIfThereIsNone) {
  EXPECT_EQ(withTrailingSlash("a"), "a/");
  EXPECT_EQ(withTrailingSlash("a/"), "a/");
  EXPECT_EQ(withTrailingSlash("a//"), "a//");
  EXPECT_EQ(withTrailingSlash("/"), "/");
  EXPECT_EQ(withTrailingSlash(""), "/");
}

TEST(DropTail, KeepsWhatStandsBeforeTheLastOccurrence) {
  EXPECT_EQ(KoStrUtils::dropTail("a.b.c", "."), "a.b");
  EXPECT_EQ(KoStrUtils::dropTail("abc", "x"), "abc");
  EXPECT_EQ(KoStrUtils::dropTail("abc", "abc"), "");
  EXPECT_EQ(KoStrUtils::dropTail("abc", "abcd"), "abc");
  EXPECT_EQ(KoStrUtils::dropTail("name.tail.more", ".tail"), "name");
  EXPECT_EQ(KoStrUtils::dropTail("aaa", "aa"), "a");
  EXPECT_EQ(KoStrUtils::dropTail("", "x"), "");
}

TEST(KeepTail, KeepsWhatFollowsTheLastOccurrence) {
  EXPECT_EQ(KoStrUtils::keepTail("a.b.c", "."), "c");
  EXPECT_EQ(KoStrUtils::keepTail("abc", "x"), "abc");
  EXPECT_EQ(KoStrUtils::keepTail("abc", "abc"), "");
  EXPECT_EQ(KoStrUtils::keepTail("abc", "abcd"), "abc");
  EXPECT_EQ(KoStrUtils::keepTail("name::sub::x", "::"), "x");
  EXPECT_EQ(KoStrUtils::keepTail("aaa", "aa"), "");
  EXPECT_EQ(KoStrUtils::keepTail("", "x"), "");
}

// An empty tail occurs last at the very end.
TEST(DropTailAndKeepTail, FindAnEmptyTailAtTheEnd) {
  EXPECT_EQ(KoStrUtils::dropTail("abc", ""), "abc");
  EXPECT_EQ(KoStrUtils::keepTail("abc", ""), "");
}

TEST(DropTailAndKeepTail, MatchTheirSteps) {
  const auto check = [](const std::string& text, const std::string& tail) {
    std::string before = text;
    std::string after = text;
    for (std::size_t at = 0; at + tail.size() <= text.size(); ++at) {
      if (text.compare(at, tail.size(), tail) != 0) continue;
      before = text.substr(0, at);
      after = text.substr(at + tail.size());
    }
    ASSERT_EQ(KoStrUtils::dropTail(text, tail), before) << text << ' ' << tail;
    ASSERT_EQ(KoStrUtils::keepTail(text, tail), after) << text << ' ' << tail;
  };
  forEachText("ab", 7, [&](const std::string& text) {
    forEachText("ab", 4, [&](const std::string& tail) { check(text, tail); });
  });
  std::mt19937 random(9);
  forRandomTexts("", 300, 2000, [&](const std::string& text) {
    check(text, text.substr(random() % (text.size() + 1), random() % 20));
  });
  forRandomTexts("aaaaaaaab", 700, 2000, [&](const std::string& text) {
    check(text, text.substr(random() % (text.size() + 1), random() % 400));
    check(text, std::string(random() % 30, 'a'));
  });
}

/// The least processor time of a few runs, in seconds.
template <typename Work>
double secondsOf(const Work& work) {
  double least = std::numeric_limits<double>::infinity();
  for (int run = 0; run < 3; ++run) {
    const std::clock_t start = std::clock();
    work();
    const std::clock_t end = std::clock();
    least = std::min(least, static_cast<double>(end - start) / CLOCKS_PER_SEC);
  }
  return least;
}

// Texts that nearly match everywhere: eight times the text takes eight times as long, not
// sixty-four.
TEST(DropTailAndKeepTail, TakeTimeInProportionToTheText) {
  const auto secondsFor = [](std::size_t size, const auto& tailOf) {
    const std::string text(size, 'a');
    const std::string tail = tailOf(size / 2);
    return secondsOf([&] {
      EXPECT_EQ(KoStrUtils::dropTail(text, tail).size(), size);
      EXPECT_EQ(KoStrUtils::keepTail(text, tail).size(), size);
    });
  };
  const auto expectLinear = [&](const auto& tailOf) {
    constexpr std::size_t size = std::size_t{1} << 17;
    EXPECT_LT(secondsFor(8 * size, tailOf), 20 * secondsFor(size, tailOf) + 0.05);
  };
  expectLinear([](std::size_t half) { return std::string(half, 'a') + 'b'; });
  expectLinear([](std::size_t half) { return 'b' + std::string(half, 'a'); });
  expectLinear([](std::size_t half) {
    return std::string(half / 2, 'a') + 'b' + std::string(half / 2, 'a');
  });
  expectLinear([](std::size_t half) { return 'c' + std::string(half, 'a') + 'b'; });
}

}  // namespace
