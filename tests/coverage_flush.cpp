// Keeps the coverage counters of processes that do not end in the ordinary way. The death tests and
// the confined tests run lines that only such processes reach.

#include "coverage_flush.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>

extern "C" void __gcov_dump(void);

namespace {

// abort() runs no exit handlers, so the counters are written when its signal arrives.
extern "C" void writeCountersOnAbort(int) {
  __gcov_dump();
}

[[maybe_unused]] const auto previousHandler = std::signal(SIGABRT, writeCountersOnAbort);

}  // namespace

void korvoWriteCoverage() {
  __gcov_dump();
}

void korvoCollectCoverage(const char* root) {
  namespace fs = std::filesystem;
  static int count = 0;
  const fs::path target =
      fs::path(KORVO_COVERAGE_DIR) / (std::to_string(getpid()) + '-' + std::to_string(++count));
  std::error_code error;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root, error)) {
    if (entry.path().extension() != ".gcda") continue;
    const fs::path copy = target / fs::relative(entry.path(), root);
    fs::create_directories(copy.parent_path());
    fs::copy_file(entry.path(), copy);
  }
}
