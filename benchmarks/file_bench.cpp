// Removing trees and copying files, beside the standard library, in one run.
//
// All of it runs in a confined child process: code that deletes files is never measured where it
// could delete something else. The files are in memory if the process may mount such a file system,
// otherwise in the folder for temporary files. Only `cp`, which the confined process could not
// find, runs outside: a server process starts it on request.

#include <Korvo/KoStrUtils.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "../tests/confinement.h"

namespace {

namespace fs = std::filesystem;

/// Ten folders in each folder down to this depth, and ten files in each of the last ones.
void makeTree(const std::string& path, int depth) {
  fs::create_directory(path);
  for (char name = 'a'; name < 'k'; ++name) {
    if (depth > 0) {
      makeTree(path + "/folder" + name, depth - 1);
    } else {
      std::ofstream(path + '/' + name) << "content";
    }
  }
}

/// A chain of folders with a file in each.
void makeChain(std::string path, int depth) {
  for (; depth > 0; --depth) {
    fs::create_directory(path);
    std::ofstream(path + "/file") << "content";
    path += "/n";
  }
}

/// Measures `remove` alone, not the making of what it removes.
template <typename Make, typename Remove>
void measureRemoval(benchmark::State& state, const Make& make, const Remove& remove) {
  for (auto _ : state) {
    make();
    const auto start = std::chrono::steady_clock::now();
    const bool removed = remove("tree");
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count());
    if (!removed || fs::exists("tree")) state.SkipWithError("the tree was not removed");
  }
}

bool removeByKorvo(const std::string& path) {
  return Korvo::removeTree(path) == 0;
}
bool removeByStandard(const std::string& path) {
  std::error_code error;
  return fs::remove_all(path, error) > 0 && !error;
}

void addRemoval() {
  const auto makeWide = [] { makeTree("tree", 3); };  // 10,000 files
  const auto makeDeep = [] { makeChain("tree", 300); };
  const auto add = [](const char* name, const auto& make, const auto& remove) {
    benchmark::RegisterBenchmark(name, [make, remove](benchmark::State& state) {
      measureRemoval(state, make, remove);
    })->UseManualTime();
  };
  add("removeTree/korvo", makeWide, removeByKorvo);
  add("removeTree/filesystem", makeWide, removeByStandard);
  add("removeTree_deep/korvo", makeDeep, removeByKorvo);
  add("removeTree_deep/filesystem", makeDeep, removeByStandard);
}

void makeFile(const std::string& path, std::size_t size) {
  const std::string block(std::min(size, std::size_t{1} << 20), 'x');
  std::ofstream file(path, std::ios::binary);
  for (std::size_t written = 0; written < size; written += block.size()) file << block;
}

bool sameContent(const std::string& path, const std::string& otherPath) {
  std::ifstream file(path, std::ios::binary);
  std::ifstream other(otherPath, std::ios::binary);
  std::string block(std::size_t{1} << 20, '\0');
  std::string otherBlock = block;
  do {
    file.read(block.data(), static_cast<std::streamsize>(block.size()));
    other.read(otherBlock.data(), static_cast<std::streamsize>(otherBlock.size()));
    if (file.gcount() != other.gcount() || block != otherBlock) return false;
  } while (file.gcount() > 0);
  return file.eof() && other.eof();
}

/// `copy` gives what went wrong, or nothing.
template <typename Copy>
void measureCopy(benchmark::State& state, std::size_t size, const Copy& copy) {
  makeFile("from", size);
  const char* problem = nullptr;
  for (auto _ : state) {
    problem = copy();
    if (problem != nullptr) break;
  }
  if (problem == nullptr && !sameContent("from", "to")) problem = "the copy is another";
  if (problem != nullptr) state.SkipWithError(problem);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
  fs::remove("from");
  fs::remove("to");
}

const char* unlessCopied(bool copied) {
  return copied ? nullptr : "the file was not copied";
}

/// What cp does where it cannot share the blocks: the system copies by itself.
bool copyInsideSystem() {
  const int from = open("from", O_RDONLY | O_CLOEXEC);
  const int to = open("to", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  ssize_t copied = 0;
  while ((copied = copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0)) > 0) {
  }
  close(from);
  return close(to) == 0 && copied == 0;
}

/// Answers of the server that runs cp.
enum class CpAnswer : char { copied, failed, notFound };

CpAnswer runCp(const std::string& from, const std::string& to) {
  std::string name = "cp";
  std::string source = from;
  std::string target = to;
  char* const arguments[] = {name.data(), source.data(), target.data(), nullptr};
  pid_t cp = 0;
  const int error = posix_spawnp(&cp, "cp", nullptr, nullptr, arguments, environ);
  if (error != 0) return error == ENOENT ? CpAnswer::notFound : CpAnswer::failed;
  int status = -1;
  while (waitpid(cp, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0 ? CpAnswer::copied : CpAnswer::failed;
}

/// A process outside of the confinement, but without rights of root either, that copies the one
/// file of this folder to the other whenever it is asked. It ends when its socket closes.
class CpServer {
 public:
  /// To be called before the process is confined; the files are in the folder `name`. What asks the
  /// server is the standard input, because a confined process keeps no other descriptor.
  void start(const char* name) {
    const fs::path folder = fs::current_path() / name;
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) return;
    process_ = fork();
    if (process_ == 0) {
      close(sockets[0]);
      confinement::dropRights();
      if (confinement::hasCapabilities()) _exit(1);
      serve(sockets[1], folder / "from", folder / "to");
    }
    close(sockets[1]);
    dup2(sockets[0], STDIN_FILENO);
  }

  /// What went wrong, or nothing.
  const char* copy() const {
    char answer = 0;
    if (process_ <= 0 || send(STDIN_FILENO, "", 1, MSG_NOSIGNAL) != 1 ||
        read(STDIN_FILENO, &answer, 1) != 1) {
      return "there is no server that runs cp";
    }
    if (CpAnswer{answer} == CpAnswer::notFound) return "there is no cp";
    return unlessCopied(CpAnswer{answer} == CpAnswer::copied);
  }

  void stop() {
    if (process_ <= 0) return;
    close(STDIN_FILENO);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
    process_ = 0;
  }

 private:
  [[noreturn]] static void serve(int socket, const std::string& from, const std::string& to) {
    umask(022);
    char request = 0;
    while (read(socket, &request, 1) == 1) {
      const CpAnswer answer = runCp(from, to);
      if (write(socket, &answer, 1) != 1) break;
    }
    _exit(0);
  }

  pid_t process_ = 0;
};

CpServer cpServer;

void addCopy() {
  for (const std::size_t size : {std::size_t{4} << 10, std::size_t{256} << 20}) {
    const bool large = size > 1000000;
    const std::string label = large ? "copyFile_256Mi/" : "copyFile_4Ki/";
    const auto add = [&label, size](const char* contestant, const auto& copy) {
      benchmark::RegisterBenchmark((label + contestant).c_str(), [=](benchmark::State& state) {
        measureCopy(state, size, copy);
      })->UseRealTime();
    };
    add("korvo", [] { return unlessCopied(Korvo::copyFile("from", "to") == 0); });
    add("filesystem", [] {
      std::error_code error;
      return unlessCopied(fs::copy_file("from", "to", fs::copy_options::overwrite_existing, error));
    });
    add("limit", [] { return unlessCopied(copyInsideSystem()); });
    // Starting the program is part of its time, and would be nearly all of it for a small file.
    if (large) add("cp", [] { return cpServer.copy(); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  addRemoval();
  addCopy();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::CPUInfo::Get();  // which is read from files that the child does not have
  benchmark::SystemInfo::Get();
  const auto measure = [] {
    if (chdir("/memory") != 0) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    cpServer.stop();
    return 0;
  };
  const auto prepare = [] {
    mkdir("memory", 0777);
    if (chmod("memory", 0777) != 0) return;
    mount("none", "memory", "tmpfs", 0, "mode=0777");
    cpServer.start("memory");
  };
  const int status = confinement::run(fs::temp_directory_path(), measure, prepare);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
