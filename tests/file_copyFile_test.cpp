#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "confined.h"
#include "file_test_support.h"

namespace {

using Korvo::copyFile;

/// Bytes of every value, with no period that a block size could hide.
std::string bytes(std::size_t size) {
  std::string result(size, '\0');
  std::uint32_t state = 1;
  for (char& c : result) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return result;
}

TEST(CopyFile, CopiesTheBytes) {
  confined([] {
    for (const std::size_t size : {1u, 2u, 4095u, 4096u, 4097u, 65535u, 65536u, 65537u, 3000001u}) {
      makeFile("/from", bytes(size));
      EXPECT_EQ(copyFile("/from", "to"), 0) << std::strerror(errno);
      EXPECT_EQ(contentOf("/to"), bytes(size));
      EXPECT_EQ(contentOf("/from"), bytes(size));
    }
  });
}

TEST(CopyFile, ReplacesTheDestination) {
  confined([] {
    makeFile("/from", "new");
    makeFile("/to", "old and longer");
    EXPECT_EQ(copyFile("/from", "/to"), 0);
    EXPECT_EQ(contentOf("/to"), "new");
  });
}

TEST(CopyFile, CreatesTheDestinationLikeAnyNewFile) {
  confined([] {
    makeFile("/from");
    ASSERT_EQ(chmod("/from", 0400), 0);
    umask(027);
    EXPECT_EQ(copyFile("/from", "/to"), 0);
    struct stat info;
    ASSERT_EQ(stat("/to", &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
  });
}

TEST(CopyFile, FollowsLinks) {
  confined([] {
    makeFile("/from");
    makeLink("/from", "/to-from");
    makeLink("/to", "/to-to");
    EXPECT_EQ(copyFile("/to-from", "/to-to"), 0);
    EXPECT_EQ(contentOf("/to"), "content");
    EXPECT_EQ(copyFile("/missing", "/to-to"), -1);
  });
}

// No byte to copy counts as a failure, on purpose.
TEST(CopyFile, FailsForAnEmptySource) {
  confined([] {
    makeFile("/from", "");
    makeFile("/to", "old");
    EXPECT_EQ(copyFile("/from", "/to"), -1);
    EXPECT_EQ(contentOf("/to"), "");
    EXPECT_EQ(copyFile("/from", "/new"), -1);
    EXPECT_EQ(contentOf("/new"), "");
  });
}

// Both files are opened before anything else is looked at.
TEST(CopyFile, EmptiesTheDestinationOfASourceThatCannotBeOpened) {
  confined([] {
    makeFile("/to", "old");
    errno = 0;
    EXPECT_EQ(copyFile("/missing", "/to"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(contentOf("/to"), "");
    EXPECT_EQ(copyFile("/missing", "/new"), -1);
    EXPECT_EQ(contentOf("/new"), "");
    EXPECT_EQ(copyFile("", "/new2"), -1);
    EXPECT_EQ(contentOf("/new2"), "");
  });
}

TEST(CopyFile, FailsForASourceThatMayNotBeRead) {
  confined([] {
    makeFile("/from");
    ASSERT_EQ(chmod("/from", 0200), 0);
    errno = 0;
    EXPECT_EQ(copyFile("/from", "/to"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(contentOf("/to"), "");
  });
}

TEST(CopyFile, FailsForADestinationThatCannotBeOpened) {
  confined([] {
    makeFile("/from");
    makeFile("/locked", "old");
    ASSERT_EQ(chmod("/locked", 0400), 0);
    makeFolder("/folder");
    const int before = openDescriptors();
    EXPECT_EQ(copyFile("/from", "/locked"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(contentOf("/locked"), "old");
    EXPECT_EQ(copyFile("/from", "/folder"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(copyFile("/from", "/missing/to"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(copyFile("/from", ""), -1);
    EXPECT_EQ(openDescriptors(), before);
  });
}

TEST(CopyFile, FailsForAFolder) {
  confined([] {
    makeFolder("/folder");
    errno = 0;
    EXPECT_EQ(copyFile("/folder", "/to"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(contentOf("/to"), "");
    EXPECT_EQ(copyFile("/folder", "/folder"), -1);
  });
}

// To the system it would be the path before the NUL: another file.
TEST(CopyFile, RefusesPathsWithANul) {
  confined([] {
    makeFile("/from");
    makeFile("/to", "old");
    EXPECT_EQ(copyFile(std::string("/from\0x", 7), "/to"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(copyFile("/from", std::string("/to\0x", 5)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(contentOf("/to"), "old");
  });
}

TEST(CopyFile, LeavesNoDescriptorOpen) {
  confined([] {
    makeFile("/from");
    makeFolder("/folder");
    const int before = openDescriptors();
    EXPECT_EQ(copyFile("/from", "/to"), 0);
    EXPECT_EQ(copyFile("/from", "/from"), -1);
    EXPECT_EQ(copyFile("/folder", "/to"), -1);
    EXPECT_EQ(copyFile("/missing", "/to"), -1);
    EXPECT_EQ(copyFile("/from", "/folder"), -1);
    EXPECT_EQ(openDescriptors(), before);
  });
}

// -------------------------------------------------------------------------------------------------
// A file onto itself

TEST(CopyFile, LeavesAFileWholeThatIsCopiedOntoItself) {
  confined([] {
    makeFolder("/sub");
    makeFile("/file");
    ASSERT_EQ(link("/file", "/hard"), 0);
    makeLink("/file", "/soft");
    makeLink("..", "/sub/up");
    for (const char* name :
         {"/file", "file", "./file", "/sub/../file", "//file", "/hard", "/soft", "/sub/up/file"}) {
      EXPECT_EQ(copyFile("/file", name), -1) << name;
      EXPECT_EQ(contentOf("/file"), "content") << name;
      EXPECT_EQ(copyFile(name, "/file"), -1) << name;
      EXPECT_EQ(contentOf("/file"), "content") << name;
    }
  });
}

TEST(CopyFile, LeavesAFileWholeThatCannotBeReadOrWrittenAndIsCopiedOntoItself) {
  confined([] {
    makeFile("/file");
    ASSERT_EQ(link("/file", "/hard"), 0);
    for (const mode_t mode : {0200u, 0400u, 0u}) {
      ASSERT_EQ(chmod("/file", mode), 0);
      EXPECT_EQ(copyFile("/file", "/file"), -1);
      EXPECT_EQ(errno, EACCES);
      EXPECT_EQ(copyFile("/hard", "/file"), -1);
      EXPECT_EQ(errno, EACCES);
      ASSERT_EQ(chmod("/file", 0600), 0);
      EXPECT_EQ(contentOf("/file"), "content");
    }
  });
}

TEST(CopyFile, FailsForAMissingFileOntoItself) {
  confined([] {
    EXPECT_EQ(copyFile("/missing", "/missing"), -1);
    EXPECT_EQ(contentOf("/missing"), "") << "created like any destination";
  });
}

// -------------------------------------------------------------------------------------------------
// Devices and full disks

/// The files of the tests that need the system's devices, which a confined process has not.
class CopyFileDevices : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder_.data()), nullptr); }
  void TearDown() override {
    unlink(path("from").c_str());
    unlink(path("to").c_str());
    EXPECT_EQ(rmdir(folder_.c_str()), 0) << std::strerror(errno);
  }
  std::string path(const std::string& name) const { return folder_ + '/' + name; }

 private:
  std::string folder_ = testing::TempDir() + "korvo-copy-XXXXXX";
};

TEST_F(CopyFileDevices, FailsOnAFullDisk) {
  for (const std::size_t size : {1u, 100u, 100000u}) {
    makeFile(path("from"), bytes(size));
    errno = 0;
    EXPECT_EQ(copyFile(path("from"), "/dev/full"), -1) << size;
    EXPECT_EQ(errno, ENOSPC);
  }
}

TEST_F(CopyFileDevices, CopiesToADevice) {
  makeFile(path("from"));
  EXPECT_EQ(copyFile(path("from"), "/dev/null"), 0) << std::strerror(errno);
}

TEST_F(CopyFileDevices, FailsForADeviceWithNothingToRead) {
  EXPECT_EQ(copyFile("/dev/null", path("to")), -1);
  EXPECT_EQ(contentOf(path("to")), "");
}

// Reading one's own memory from address 0 on fails.
TEST_F(CopyFileDevices, FailsWhenReadingFails) {
  errno = 0;
  EXPECT_EQ(copyFile("/proc/self/mem", path("to")), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(contentOf(path("to")), "");
}

// Such a file has content although its size is 0.
TEST_F(CopyFileDevices, CopiesAFileThatHidesItsSize) {
  EXPECT_EQ(copyFile("/proc/self/stat", path("to")), 0) << std::strerror(errno);
  EXPECT_EQ(contentOf(path("to")).substr(0, 20), contentOf("/proc/self/stat").substr(0, 20));
}

TEST(CopyFile, FailsWhenTheDiskFillsUp) {
  confined(
      [] {
        struct stat here;
        struct stat small;
        ASSERT_EQ(stat("/", &here), 0);
        ASSERT_EQ(stat("/small", &small), 0);
        if (here.st_dev == small.st_dev) GTEST_SKIP() << "no right to mount";
        makeFile("/from", bytes(1000000));
        errno = 0;
        EXPECT_EQ(copyFile("/from", "/small/to"), -1);
        EXPECT_EQ(errno, ENOSPC);
        const std::string copied = contentOf("/small/to");
        EXPECT_GT(copied.size(), 0u);
        EXPECT_EQ(copied, bytes(1000000).substr(0, copied.size())) << "as far as it got";
      },
      [] {
        makeFolder("small");
        mount("none", "small", "tmpfs", 0, "size=64k,mode=0777");
      });
}

}  // namespace
