// A program of a user under ThreadSanitizer, with a library that was built without it.
//
//   threads rows     no race: one thread lets go of a row before another writes to its buffer
//   threads units    a race of the user's own, in a unit of work

#include <Korvo/Scheduler.h>
#include <Korvo/TableRow.h>

#include <atomic>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>

namespace {

using Layout = Korvo::RowLayout<1, Korvo::Column<"name", std::string>>;
using Row = Korvo::TableRow<Layout>;

// Tells the other thread that it may go on, and nothing else: the row itself has to order what the
// two do with its bytes.
std::atomic<bool> released = false;

void shareRow() {
  Row mine;
  mine.create(1);
  mine.set<"name">("original");
  Row theirs = mine;
  std::thread reader([row = std::move(theirs)]() mutable {
    std::cout << row.view<"name">() << '\n';
    row.nullifyRow();
    released.store(true, std::memory_order_relaxed);
  });
  while (!released.load(std::memory_order_relaxed)) std::this_thread::yield();
  mine.set<"name">("replaced");
  reader.join();
  std::cout << mine.view<"name">() << '\n';
}

volatile int counter = 0;
std::atomic<int> working = 0;

struct Counter : Korvo::Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override {
    working.fetch_add(1, std::memory_order_relaxed);
    while (working.load(std::memory_order_relaxed) != 2) std::this_thread::yield();
    for (int i = 0; i < 10000; ++i) counter = counter + 1;
  }
};

void runUnit() {
  const Korvo::KoPtr<Korvo::Scheduler> scheduler(new Korvo::Scheduler("main"));
  Counter unit("counter", scheduler);
  unit.clientReadyIs(true);
  unit.runnableIs(true);
  scheduler->run(0, 0.0, true);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "rows") {
    shareRow();
    return 0;
  }
  std::thread other(runUnit);
  runUnit();
  other.join();
}
