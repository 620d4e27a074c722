// The confinement that the tests of deleting code rely on.

#include "confined.h"

#include <dirent.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>

#include "file_test_support.h"

namespace {

TEST(Confined, SeesNothingButItsFolder) {
  confined([] {
    DIR* const dir = opendir("/");
    ASSERT_NE(dir, nullptr);
    while (const dirent* entry = readdir(dir)) {
      EXPECT_TRUE(entry->d_name == std::string(".") || entry->d_name == std::string(".."))
          << entry->d_name;
    }
    closedir(dir);
    for (const char* path : {"/etc", "/proc", "/tmp", "../etc", "/../../etc"}) {
      EXPECT_FALSE(exists(path)) << path;
    }
  });
}

TEST(Confined, HasNoRights) {
  confined([] {
    makeFile("/mine");
    EXPECT_EQ(chown("/mine", 0, 0), -1);
    EXPECT_EQ(chroot("/"), -1);
    EXPECT_EQ(setuid(0), -1);
    EXPECT_EQ(unshare(CLONE_NEWNS), -1);
    EXPECT_EQ(mount("none", "/", "tmpfs", 0, nullptr), -1);
  });
}

TEST(Confined, PreparesWithItsFolderAsCurrent) {
  confined([] { EXPECT_TRUE(exists("/prepared")); }, [] { makeFolder("prepared"); });
}

TEST(Confined, LeavesNothingBehind) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  confined([] { makeFile("/file"); },
           [&ends] {
             makeFolder("folder");
             char path[4096];
             ASSERT_NE(getcwd(path, sizeof path), nullptr);
             ASSERT_GT(write(ends[1], path, std::strlen(path)), 0);
           });
  close(ends[1]);
  char path[4096] = {};
  EXPECT_GT(read(ends[0], path, sizeof path - 1), 0);
  close(ends[0]);
  EXPECT_NE(std::string(path).find("/korvo-confined-"), std::string::npos);
  EXPECT_FALSE(exists(path)) << path;
}

TEST(Confined, ReportsWhatFailsInTheChild) {
  EXPECT_NONFATAL_FAILURE(confined([] { _exit(1); }), "an expectation failed");
}

TEST(Confined, FailsWhereItCannotConfine) {
  // The root becomes the current folder, here another one than the one that was made for it.
  EXPECT_FATAL_FAILURE(confined([] { ADD_FAILURE() << "must not run"; },
                                [] {
                                  makeFolder("other");
                                  [[maybe_unused]] const int result = chdir("other");
                                }),
                       "could not be confined");
}

}  // namespace
