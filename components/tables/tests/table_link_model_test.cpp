// Random batches over links that fail, with a checker: each state that a subscriber is told was a
// state of the publisher (atomic), they come in the publisher's order (ordered), and in the end
// both are the same (converging). What waits for a subscriber is bounded all the time.

#include "table_link_support.h"

#include <random>

#include "table_states.h"

namespace {

using namespace tabletest;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;
using Korvo::TableState;

/// The publisher's layout of a table whose copy has another one.
struct WideLayout
    : Korvo::RowLayout<7, Korvo::Column<"extra", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"speed", std::int16_t>> {};
using Wide = Korvo::TableRow<WideLayout>;

class Story {
 public:
  explicit Story(unsigned seed) : random_(seed) { startAgent(); }

  void steps(int count) {
    for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) step();
  }

  /// Everything works again, and comes to rest.
  void finish() {
    link.isDownIs(false);
    link.pieceIs(100000);
    link.roomIs(65536);
    agent_->publisher.completeIs(true);
    remember();
    loop->advance(seconds(60));
    EXPECT_EQ(copyState(), state());
    EXPECT_EQ(ports.state(), TableState::current) << ports.stateText();
    EXPECT_EQ(wide.state(), TableState::current) << wide.stateText();
    EXPECT_EQ(subscriber.status().digestFaults, 0U);
    EXPECT_EQ(subscriber.status().refusedRows, 0U);
  }

  void batch() {
    Korvo::Batch batch(agent_->ports, agent_->links, agent_->wide);
    const int changes = between(1, 6);
    for (int i = 0; i < changes; ++i) {
      const auto oid = static_cast<oid_t>(between(1, 25));
      const std::string name(static_cast<std::size_t>(between(0, 40)),
                             static_cast<char>('a' + between(0, 3)));
      switch (between(0, 5)) {
        case 0:
          batch.remove(agent_->ports, oid);
          break;
        case 1:
          batch.remove(agent_->wide, oid);
          break;
        case 2:
          batch.put(agent_->links, tabletest::link(oid, between(0, 1) == 1));
          break;
        case 3: {
          Wide row;
          row.create(oid);
          row.set<"name">(name);
          row.set<"speed">(static_cast<std::int16_t>(between(-5, 5)));
          batch.put(agent_->wide, row);
          break;
        }
        default:
          batch.put(agent_->ports, port(oid, name, between(0, 3)));
      }
    }
    batch.commit();
    remember();
  }

  Korvo::TestLink link;
  std::shared_ptr<Korvo::TestLoop> loop = std::make_shared<Korvo::TestLoop>();

 private:
  struct Tables {
    explicit Tables(const std::shared_ptr<Korvo::TestLoop>& loop)
        : ports("net/port"), links("net/link"), wide("net/wide"), publisher("agent", loop) {
      publisher.add(ports);
      publisher.add(links);
      publisher.add(wide);
    }
    Table<Port> ports;
    Table<Link> links;
    Table<Wide> wide;
    Korvo::TablePublisher publisher;
  };

  int between(int from, int to) { return std::uniform_int_distribution(from, to)(random_); }

  template <typename Ports, typename Links, typename Wides>
  static std::string stateOf(const Ports& ports, const Links& links, const Wides& wide) {
    std::string text;
    for (const auto& [oid, row] : contents(ports)) text += row;
    for (const auto& [oid, row] : contents(links)) text += row;
    std::map<oid_t, std::string> wides;
    for (const auto& row : wide) {
      wides[row.rowOid()] =
          row.template get<"name">() + ' ' + std::to_string(row.template get<"speed">());
    }
    for (const auto& [oid, row] : wides) text += std::to_string(oid) + row + '\n';
    return text;
  }
  std::string state() const { return stateOf(agent_->ports, agent_->links, agent_->wide); }
  std::string copyState() const { return stateOf(ports, links, wide); }

  void remember() {
    if (agent_->publisher.complete()) states_.remember(state());
  }

  void look() {
    if (states_.isNext(copyState(), seen_)) return;
    ADD_FAILURE() << "a state that never was, or an older one";
  }

  void startAgent() {
    agent_.emplace(loop);
    agent_->publisher.accept(link.publisherEnd());
  }

  /// The publisher ends and comes back, with its history or without.
  void restart(bool keepsHistory) {
    const std::uint64_t epoch = agent_->publisher.epoch();
    const std::uint64_t sequence = agent_->publisher.sequence();
    std::vector<Port> savedPorts(agent_->ports.begin(), agent_->ports.end());
    std::vector<Link> savedLinks(agent_->links.begin(), agent_->links.end());
    std::vector<Wide> savedWide(agent_->wide.begin(), agent_->wide.end());
    const bool wasComplete = agent_->publisher.complete();
    agent_.reset();
    if (between(0, 1) == 0) loop->advance(milliseconds(between(0, 10000)));
    agent_.emplace(loop);
    agent_->publisher.completeIs(false);
    if (!keepsHistory) agent_->publisher.accept(link.publisherEnd());
    Korvo::Batch batch(agent_->ports, agent_->links, agent_->wide);
    for (const Port& row : savedPorts) batch.put(row);
    batch.commit();
    if (!keepsHistory) loop->advance(milliseconds(between(0, 3000)));
    for (const Link& row : savedLinks) batch.put(row);
    for (const Wide& row : savedWide) batch.put(row);
    batch.commit();
    if (keepsHistory) {
      if (sequence >= agent_->publisher.sequence()) agent_->publisher.historyIs(epoch, sequence);
      agent_->publisher.accept(link.publisherEnd());
    }
    agent_->publisher.completeIs(wasComplete);
  }

  void step() {
    switch (between(0, 30)) {
      case 0:
        link.cut();
        break;
      case 1:
        link.cutAfter(static_cast<std::uint64_t>(between(1, 2000)));
        break;
      case 2:
        link.cutAfterToPublisher(static_cast<std::uint64_t>(between(1, 200)));
        break;
      case 3:
        link.pieceIs(static_cast<std::size_t>(between(0, 2) == 0 ? 1 : between(1, 300)));
        break;
      case 4:
        link.roomIs(static_cast<std::size_t>(between(0, 400)));
        break;
      case 5:
        link.roomIs(65536);
        break;
      case 6:
        link.isDownIs(between(0, 1) == 1);
        break;
      case 7:
        restart(between(0, 1) == 1);
        break;
      case 8:
        agent_->publisher.completeIs(between(0, 2) != 0);
        remember();
        break;
      case 9:
      case 10:
        loop->advance(milliseconds(between(1, 8000)));
        break;
      case 11:
      case 12:
      case 13:
      case 14:
      case 15:
      case 16:
      case 17:
        loop->run(between(1, 10), 0.0, true);
        break;
      default:
        batch();
    }
    for (const auto& connected : agent_->publisher.subscribers()) {
      EXPECT_LE(connected.unsent, 256U * 1024);
    }
  }

  std::mt19937 random_;
  std::optional<Tables> agent_;
  States states_;
  std::size_t seen_ = 0;

 public:
  Table<Port> ports{"net/port"};
  Table<Link> links{"net/link"};
  Table<Port> wide{"net/wide"};
  Korvo::TableSubscriber subscriber{loop, {.name = "viewer"}};
  TableReader<Port> portReader{ports, loop, [this](const Korvo::Changes<Port>&) { look(); }};
  TableReader<Link> linkReader{links, loop, [this](const Korvo::Changes<Link>&) { look(); }};
  TableReader<Port> wideReader{wide, loop, [this](const Korvo::Changes<Port>&) { look(); }};

  void connect() {
    subscriber.add(ports);
    subscriber.add(links);
    subscriber.add(wide);
    subscriber.connect(link.subscriberEnd());
  }
};

TEST(TableLinkModelTest, RandomBatchesOverLinksThatFail) {
  for (unsigned seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE(seed);
    Story story(seed);
    story.connect();
    story.steps(300);
    story.finish();
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

struct Traffic {
  std::uint64_t toSubscriber;
  std::uint64_t toPublisher;
};

/// First rows and changes, which go over the link in some thousand bytes. Returns what went before
/// the link had nothing to do any more.
Traffic shortStory(Story& story) {
  for (int i = 0; i < 4; ++i) story.batch();
  story.connect();
  story.loop->runUntilQuiet();
  for (int i = 0; i < 3; ++i) {
    story.batch();
    story.loop->runUntilQuiet();
  }
  const Traffic traffic{story.link.bytesToSubscriber(), story.link.bytesToPublisher()};
  story.finish();
  return traffic;
}

TEST(TableLinkModelTest, CutAtEveryByteToTheSubscriber) {
  Story whole(7);
  const std::uint64_t bytes = shortStory(whole).toSubscriber;
  ASSERT_GT(bytes, 500U);
  for (std::uint64_t at = 1; at <= bytes; ++at) {
    SCOPED_TRACE(at);
    Story story(7);
    story.link.cutAfter(at);
    shortStory(story);
    ASSERT_EQ(story.link.connections(), 2U);
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

TEST(TableLinkModelTest, CutAtEveryByteToThePublisher) {
  Story whole(7);
  const std::uint64_t bytes = shortStory(whole).toPublisher;
  ASSERT_GT(bytes, 100U);
  for (std::uint64_t at = 1; at <= bytes; ++at) {
    SCOPED_TRACE(at);
    Story story(7);
    story.link.cutAfterToPublisher(at);
    shortStory(story);
    ASSERT_EQ(story.link.connections(), 2U);
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

TEST(TableLinkModelTest, OneByteAtATime) {
  Story story(11);
  story.link.pieceIs(1);
  story.link.roomIs(1);
  shortStory(story);
  EXPECT_EQ(story.link.connections(), 1U);
}

}  // namespace
