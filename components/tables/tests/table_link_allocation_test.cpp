// Every allocation of a connection's life failed in turn: whatever it hits, nothing half is seen,
// and both sides come together again.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include "table_link_support.h"

namespace {

using namespace tabletest;
using alloctest::Failing;
using alloctest::FailureScope;

class TableLinkAllocationTest : public LinkTest {};

TEST_F(TableLinkAllocationTest, FailuresOfEitherSideAreGotOver) {
  unsigned int failures = 1;
  unsigned int n = 0;
  for (; failures != 0; ++n) {
    SCOPED_TRACE(n);
    agent.emplace(loop);
    viewer.emplace(loop);
    connect();
    agent->putMany(1, 6);
    if (n % 2 == 0) loop->runUntilQuiet();
    agent->put(port(2, "changed", 0, "10.0.0.0/8"), tabletest::link(1, true));
    agent->remove(3);
    {
      const FailureScope scope(n, Failing::once);
      try {
        loop->advance(seconds(6));
      } catch (const std::bad_alloc&) {
        // Left by the loop: a unit or a timer had no place.
      }
      failures = scope.failures();
    }
    EXPECT_TRUE(viewer->ports.empty() || contents(viewer->ports) == contents(agent->ports) ||
                viewer->ports.size() == 5);
    loop->advance(seconds(60));
    expectSame();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(n, 100U);
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
