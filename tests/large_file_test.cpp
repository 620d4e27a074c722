// Files of more than 2 GiB, on either word size. They are sparse, and a limit on the size of what
// is written keeps the copies small.

#define _FILE_OFFSET_BITS 64

#include <Korvo/KoStrUtils.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr off_t threeGiB = off_t{3} << 30;
constexpr rlim_t mostWritten = rlim_t{1} << 20;

class LargeFile : public testing::Test {
 protected:
  LargeFile() { std::filesystem::create_directory(folder_); }
  ~LargeFile() override {
    std::filesystem::remove(large_);
    std::filesystem::remove(small_);
    std::filesystem::remove(folder_);
  }

  /// A file of 3 GiB that takes no room; false if the file system has no such files.
  bool makeLarge() const {
    const int fd = ::open(large_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const bool made = fd >= 0 && ::ftruncate(fd, threeGiB) == 0;
    if (fd >= 0) ::close(fd);
    return made;
  }
  static off_t sizeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_size : -1;
  }

  const std::filesystem::path folder_ =
      std::filesystem::temp_directory_path() / ("large_file_" + std::to_string(getpid()));
  const std::string large_ = folder_ / "large";
  const std::string small_ = folder_ / "small";
};

TEST_F(LargeFile, IsReadAsASource) {
  if (!makeLarge()) GTEST_SKIP() << "no sparse files here";
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {mostWritten, mostWritten};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(2);
    _exit(Korvo::copyFile(large_, small_) == -1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  // It was read and copied up to the limit, rather than not opened at all.
  EXPECT_EQ(sizeOf(small_), static_cast<off_t>(mostWritten));
}

TEST_F(LargeFile, IsReplacedAsADestination) {
  if (!makeLarge()) GTEST_SKIP() << "no sparse files here";
  std::ofstream(small_) << "few bytes";
  EXPECT_EQ(Korvo::copyFile(small_, large_), 0);
  EXPECT_EQ(sizeOf(large_), 9);
}

TEST_F(LargeFile, CopiedOntoItselfStaysWhole) {
  if (!makeLarge()) GTEST_SKIP() << "no sparse files here";
  EXPECT_EQ(Korvo::copyFile(large_, large_), -1);
  EXPECT_EQ(sizeOf(large_), threeGiB);
}

}  // namespace
