// Every allocation of a connection's life failed in turn: whatever it hits, nothing half is seen,
// and both sides come together again.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <Korvo/LearnedTable.h>
#include <Korvo/TableBrowser.h>

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

// A question ends once, with a whole answer or a failure, and the next one is answered.
TEST_F(TableLinkAllocationTest, QuestionsAreGotOver) {
  unsigned int failures = 1;
  unsigned int n = 0;
  for (; failures != 0; ++n) {
    SCOPED_TRACE(n);
    agent.emplace(loop);
    viewer.emplace(loop);
    connect();
    agent->putMany(1, 6);
    loop->runUntilQuiet();
    Korvo::TestLink asking;
    agent->publisher.accept(asking.publisherEnd());
    Korvo::TableBrowser browser(loop, {.name = "asker"});
    browser.connect(asking.subscriberEnd());
    int ends = 0;
    std::size_t tables = 0;
    std::size_t subscribers = 0;
    browser.onAnswer([&](const Korvo::PublisherInfo& info) {
      ++ends;
      tables = info.tables.size();
      subscribers = info.subscribers.size();
    });
    browser.onFailure([&](const std::string& text) {
      ++ends;
      EXPECT_NE(text, "");
    });
    {
      const FailureScope scope(n, Failing::once);
      try {
        browser.ask();
        loop->advance(seconds(20));
      } catch (const std::bad_alloc&) {
        // The question could not be asked, or its end not told.
      }
      failures = scope.failures();
    }
    loop->advance(seconds(20));
    EXPECT_LE(ends, 1);
    EXPECT_TRUE(tables == 0 || (tables == 2 && subscribers == 1)) << tables;
    ends = 0;
    browser.ask();
    loop->advance(seconds(20));
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(tables, 2U);
    expectSame();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(n, 50U);
}

// So is a table that was learned, from its making to its rows.
TEST_F(TableLinkAllocationTest, LearnedTablesAreGotOver) {
  const Korvo::PublisherInfo::Table told{"net/port", Korvo::fingerprint(PortLayout::info),
                                         Korvo::layoutText(PortLayout::info)};
  unsigned int failures = 1;
  unsigned int n = 0;
  for (; failures != 0; ++n) {
    SCOPED_TRACE(n);
    agent.emplace(loop);
    viewer.emplace(loop);
    agent->putMany(1, 6);
    agent->publisher.accept(link.publisherEnd());
    std::optional<Korvo::LearnedTable> table;
    std::optional<Korvo::TableSubscriber> subscriber;
    std::optional<Korvo::LearnedReader> reader;
    std::size_t changes = 0;
    const auto build = [&] {
      if (!table) table.emplace(told);
      if (!subscriber) {
        Korvo::TableSubscriber& made = subscriber.emplace(
            loop, Korvo::SubscriberOptions{.name = "viewer", .takesOtherLayouts = false});
        try {
          made.add(*table);
          made.connect(link.subscriberEnd());
        } catch (...) {
          subscriber.reset();
          throw;
        }
      }
      if (!reader) {
        reader.emplace(*table, loop, [&](Korvo::LearnedChanges& all) {
          while (all.next()) ++changes;
        });
      }
      loop->advance(seconds(6));
    };
    {
      const FailureScope scope(n, Failing::once);
      try {
        build();
      } catch (const std::bad_alloc&) {
        // What is missing is made below.
      }
      failures = scope.failures();
    }
    build();
    loop->advance(seconds(60));
    EXPECT_EQ(table->state(), Korvo::TableState::current) << table->stateText();
    EXPECT_EQ(table->size(), 5U);
    EXPECT_EQ(changes, 5U);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(n, 50U);
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
