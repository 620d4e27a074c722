// A process that aborts writes no coverage counters. The death tests run lines that only such a
// process reaches, so the counters are written when the signal arrives.

#include <csignal>

extern "C" void __gcov_dump(void);

namespace {

extern "C" void writeCountersOnAbort(int) {
  __gcov_dump();
}

[[maybe_unused]] const auto previousHandler = std::signal(SIGABRT, writeCountersOnAbort);

}  // namespace
