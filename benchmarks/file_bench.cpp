// Removing trees and copying files, beside the standard library, in one run.
//
// All of it runs in a confined child process: code that deletes files is never measured where it
// could delete something else. The files are in memory if the process may mount such a file system,
// otherwise in the folder for temporary files.

#include <Korvo/KoStrUtils.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "../tests/confinement.h"

namespace {

namespace fs = std::filesystem;

/// Eight folders in each folder down to this depth, and eight files in each of them.
void makeTree(const std::string& path, int depth) {
  fs::create_directory(path);
  for (char name = 'a'; name < 'i'; ++name) {
    std::ofstream(path + '/' + name) << "content";
    if (depth > 0) makeTree(path + "/folder" + name, depth - 1);
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
  const auto makeWide = [] { makeTree("tree", 3); };
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

template <typename Copy>
void measureCopy(benchmark::State& state, std::size_t size, const Copy& copy) {
  makeFile("from", size);
  for (auto _ : state) {
    if (!copy()) state.SkipWithError("the file was not copied");
  }
  if (fs::file_size("to") != size) state.SkipWithError("the copy is not complete");
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
  fs::remove("from");
  fs::remove("to");
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

void addCopy() {
  for (const std::size_t size : {std::size_t{4} << 10, std::size_t{256} << 20}) {
    const std::string label = size < 1000000 ? "copyFile_4Ki/" : "copyFile_256Mi/";
    benchmark::RegisterBenchmark((label + "korvo").c_str(), [size](benchmark::State& state) {
      measureCopy(state, size, [] { return Korvo::copyFile("from", "to") == 0; });
    })->UseRealTime();
    benchmark::RegisterBenchmark((label + "filesystem").c_str(), [size](benchmark::State& state) {
      measureCopy(state, size, [] {
        std::error_code error;
        return fs::copy_file("from", "to", fs::copy_options::overwrite_existing, error);
      });
    })->UseRealTime();
    benchmark::RegisterBenchmark((label + "limit").c_str(), [size](benchmark::State& state) {
      measureCopy(state, size, copyInsideSystem);
    })->UseRealTime();
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
    return 0;
  };
  const auto mountMemory = [] {
    mkdir("memory", 0777);
    if (chmod("memory", 0777) != 0) return;
    mount("none", "memory", "tmpfs", 0, "mode=0777");
  };
  const int status = confinement::run(fs::temp_directory_path(), measure, mountMemory);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
