#pragma once

// Files and folders for the tests of the file helpers, made with plain system calls.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

inline void makeFolder(const std::string& path, mode_t mode = 0755) {
  ASSERT_EQ(mkdir(path.c_str(), mode), 0) << path << ": " << std::strerror(errno);
}

inline void makeFile(const std::string& path, const std::string& content = "content") {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  ASSERT_FALSE(file.fail()) << path;
}

inline void makeLink(const std::string& target, const std::string& path) {
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path << ": " << std::strerror(errno);
}

inline std::string numbered(std::string path, int number) {
  path += std::to_string(number);
  return path;
}

/// Whether something has this name; a symbolic link is not followed.
inline bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1;
  return count;
}
