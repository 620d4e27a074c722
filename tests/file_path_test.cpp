#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

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

}  // namespace
