// Changes what it works on before the allocation that may fail.

#include "../../tests/allocation_failures.h"

#include <memory>

TEST(CanaryTest, ChangesTooEarly) {
  struct Subject {
    int number = 0;
    std::unique_ptr<int> block;
  };
  alloctest::failEachAllocation(
      "canary", [] { return Subject(); },
      [](Subject& subject) {
        subject.number = 1;
        subject.block = std::make_unique<int>(2);
      },
      [](const Subject& subject) {
        return alloctest::Snapshot{std::to_string(subject.number), {}};
      });
}
