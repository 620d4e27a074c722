#pragma once

// Runs code that deletes files where it can delete nothing that matters: in a child process whose
// whole file system is a fresh temporary folder and that has no rights of root. Nothing runs unless
// both have been verified.

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include "coverage_flush.h"

namespace confinement {

// An id that nobody has.
constexpr unsigned int unprivilegedId = 54321;
constexpr int notConfined = 70;

inline void writeFile(const char* path, const std::string& content) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written = write(fd, content.data(), content.size());
  close(fd);
}

/// Gets the right to mount and to change the root, for this process alone: from being root, or else
/// from a user namespace of its own. What goes wrong here, the verification finds.
inline void becomeAbleToConfine() {
  const unsigned int uid = geteuid();
  const unsigned int gid = getegid();
  if (uid == 0) {
    unshare(CLONE_NEWNS);
  } else if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
    const std::string id = std::to_string(unprivilegedId);
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", id + ' ' + std::to_string(uid) + " 1");
    writeFile("/proc/self/gid_map", id + ' ' + std::to_string(gid) + " 1");
  }
  // Mounts stay in this process's own namespace.
  mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
}

inline bool hasCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return true;
  return (data[0].effective | data[1].effective | data[0].permitted | data[1].permitted) != 0;
}

inline void dropRights() {
  if (geteuid() == 0) {
    [[maybe_unused]] const bool dropped =
        setgroups(0, nullptr) == 0 &&
        setresgid(unprivilegedId, unprivilegedId, unprivilegedId) == 0 &&
        setresuid(unprivilegedId, unprivilegedId, unprivilegedId) == 0;
  } else {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    syscall(SYS_capset, &header, none);
  }
}

/// Empty if this process is confined to the folder, otherwise what is wrong.
inline std::string whyNotConfined(const struct stat& folder) {
  for (const char* path : {"/", ".", "..", "/.."}) {
    struct stat info;
    if (stat(path, &info) != 0) return std::string("cannot examine ") + path;
    if (info.st_dev != folder.st_dev || info.st_ino != folder.st_ino) {
      return std::string("outside of the folder: ") + path;
    }
  }
  uid_t uid[3] = {};
  gid_t gid[3] = {};
  if (getresuid(&uid[0], &uid[1], &uid[2]) != 0 || getresgid(&gid[0], &gid[1], &gid[2]) != 0) {
    return "cannot tell the user";
  }
  for (int i = 0; i < 3; ++i) {
    if (uid[i] != unprivilegedId || gid[i] != unprivilegedId) return "runs as another user";
  }
  if (hasCapabilities()) return "has capabilities";
  if (setuid(0) == 0) return "can become root";
  for (int fd = 3; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) return "has files from outside open";
  }
  return {};
}

/// The child process: never returns.
[[noreturn]] inline void confineAndRun(const std::string& folder, const struct stat& folderInfo,
                                       const std::function<int()>& body,
                                       const std::function<void()>& prepare) {
  becomeAbleToConfine();
  std::string problem = "cannot change the folder";
  if (chdir(folder.c_str()) == 0) {
    if (prepare) prepare();
    syscall(SYS_close_range, 3u, ~0u, 0u);
    problem = "cannot change the root";
    if (chroot(".") == 0) {
      dropRights();
      problem = whyNotConfined(folderInfo);
    }
  }
  int result = notConfined;
  if (problem.empty()) {
    umask(022);
    result = body();
    if (korvoWriteCoverage != nullptr) korvoWriteCoverage();
  } else {
    std::fprintf(stderr, "not confined: %s\n", problem.c_str());
  }
  std::fflush(nullptr);
  _exit(result);
}

/// Runs `body` in a confined child process, with a fresh folder below `temporary` as "/" and as the
/// current directory, and returns the child's wait status: its exit status is what `body` returns,
/// or notConfined. `prepare` runs in the child before that, with all rights and the folder as
/// current directory: it may mount what lies in the folder and must call nothing that deletes.
inline int run(const std::string& temporary, const std::function<int()>& body,
               const std::function<void()>& prepare = nullptr) {
  constexpr int failure = notConfined << 8;  // as a wait status
  std::string folder = temporary + "/korvo-confined-XXXXXX";
  struct stat info;
  if (mkdtemp(folder.data()) == nullptr || stat(folder.c_str(), &info) != 0) {
    std::perror(folder.c_str());
    return failure;
  }
  int status = failure;
  if (geteuid() != 0 || chown(folder.c_str(), unprivilegedId, unprivilegedId) == 0) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) confineAndRun(folder, info, body, prepare);
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (korvoCollectCoverage != nullptr) korvoCollectCoverage(folder.c_str());
  std::error_code leftOver;
  std::filesystem::remove_all(folder, leftOver);
  if (leftOver) {
    std::fprintf(stderr, "%s: %s\n", folder.c_str(), leftOver.message().c_str());
    if (status == 0) status = 1 << 8;
  }
  return status;
}

}  // namespace confinement
