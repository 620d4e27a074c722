// What goes over a link, byte for byte, and what each side does with bytes that it must not get.
// The frames are written here by hand, from the description of the protocol.

#include "table_link_support.h"
#include "wire_frames.h"

#include <algorithm>

namespace {

using namespace tabletest;
using namespace wire;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableState;

/// An end of a link, driven by hand.
class RawEnd {
 public:
  void streamIs(std::unique_ptr<Korvo::ByteStream> stream) { stream_ = std::move(stream); }
  bool hasStream() const { return stream_ != nullptr; }
  void send(const std::string& bytes) {
    const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    stream_->write(&part, 1);
  }
  /// What came since the last call; frames by their types: "welcome whole row mark ".
  std::string receive() {
    static const char* const names[] = {"?",    "hello", "welcome", "whole", "row",    "del",
                                        "mark", "pulse", "ack",     "note",  "refuse", "bye"};
    char buffer[4096];
    for (;;) {
      const auto result = stream_->read(buffer, sizeof buffer);
      bytes_.append(buffer, result.count);
      isOpen = result.isOpen;
      if (result.count == 0) break;
    }
    std::string types;
    while (bytes_.size() >= 8) {
      const auto length = Korvo::loadField<std::uint32_t>(bytes_.data()) + 4;
      if (bytes_.size() < length) break;
      const auto type = static_cast<unsigned char>(bytes_[4]);
      types += std::string(names[type]) + ' ';
      last = bytes_.substr(8, length - 8);
      if (type == mark && marked == 0) marked = Korvo::loadField<std::uint64_t>(last.data());
      if (type == refuse) types += last.substr(1) + ' ';
      if (type == note) types += last.substr(5) + ' ';
      if (type == bye) types += last.substr(2) + ' ';
      bytes_.erase(0, length);
    }
    return types;
  }

  bool isOpen = true;
  std::string last;          ///< the body of the last frame
  std::uint64_t marked = 0;  ///< the sequence of the first mark

 private:
  std::unique_ptr<Korvo::ByteStream> stream_;
  std::string bytes_;
};

// ---------------------------------------------------------------------------------------------

class PublisherWireTest : public LinkTest {
 protected:
  PublisherWireTest() {
    agent->publisher.accept(link.publisherEnd());
    raw.streamIs(link.subscriberEnd()->connect());
  }
  std::string answer(const std::string& bytes) {
    raw.send(bytes);
    loop->runUntilQuiet();
    return raw.receive();
  }
  RawEnd raw;
};

TEST_F(PublisherWireTest, TellsRowsAsTheyLieInMemory) {
  const Port sent = port(5, "eth5", 10);
  agent->put(sent);
  EXPECT_EQ(answer(helloFrame<PortLayout>()), "welcome whole row mark ");
  agent->put(port(6, "eth6"));
  agent->remove(5);
  EXPECT_EQ(answer(""), "del row mark ");
  EXPECT_EQ(raw.last.substr(0, 24), Bytes().u64(3).u64(2).u64(1).get());  // one batch was merged
  agent->remove(6);
  EXPECT_EQ(answer(""), "del mark ");
  EXPECT_EQ(raw.last, Bytes().u64(4).u64(1).u64(0).u16(1).u16(3).u64(0).u64(0).get());
}

// What comes and goes between two marks is told as it stands: last value, or gone.
TEST_F(PublisherWireTest, ChangesBetweenTwoMarksAreMerged) {
  agent->put(port(1, "a"), port(2, "b"));
  answer(helloFrame<PortLayout>());
  agent->put(port(1, "x"));
  agent->put(port(1, "y"));
  agent->remove(2);
  agent->put(port(2, "again"));  // one row
  agent->put(port(3, "came"));
  agent->remove(3);  // and went: no row
  const std::string types = answer("");
  EXPECT_EQ(types, "row row mark ");
  EXPECT_EQ(raw.last.substr(0, 24), Bytes().u64(7).u64(2).u64(5).get());
}

// A slow round is brought to an end with the rows as they stand after two seconds of it.
TEST_F(PublisherWireTest, RoundThatLastsTooLongComesToAMark) {
  agent->putMany(1, 4000);
  link.roomIs(2000);
  raw.send(helloFrame<PortLayout>());
  std::string types;
  std::uint64_t batches = 1;
  while (types.find("mark") == std::string::npos && batches < 200) {
    agent->put(port(1, "v" + std::to_string(++batches)));
    loop->advance(milliseconds(100));
    types += raw.receive();
  }
  ASSERT_NE(types.find("mark"), std::string::npos);
  EXPECT_GE(raw.marked, 20U);
  EXPECT_LE(raw.marked, 35U);
  EXPECT_GT(batches, 50U);
}

TEST_F(PublisherWireTest, RefusedRowsAreCounted) {
  answer(helloFrame<PortLayout>());
  answer(frame(ack, 0, Bytes().u64(0).u64(3).get()));
  EXPECT_EQ(agent->publisher.subscribers().at(0).refused, 3U);
}

TEST_F(PublisherWireTest, SaysWhichProtocolsItKnows) {
  EXPECT_EQ(answer(helloFrame<PortLayout>(3, 3)), "bye protocol 1 here, 3 there ");
  EXPECT_FALSE(raw.isOpen);
}

TEST_F(PublisherWireTest, TakesTheHighestCommonProtocol) {
  EXPECT_EQ(answer(helloFrame<PortLayout>(0, 9)), "welcome whole mark ");
}

TEST_F(PublisherWireTest, RefusesWhatIsNoHello) {
  EXPECT_EQ(answer(frame(ack, 0, std::string(16, '\0'))), "bye no HELLO ");
}

TEST_F(PublisherWireTest, RefusesOthersMagic) {
  EXPECT_EQ(answer(frame(hello, 0, "GET / HTTP/1.1 and so on")), "bye not a subscriber ");
}

TEST_F(PublisherWireTest, RefusesLengthsBeforeTheBytesHaveCome) {
  EXPECT_EQ(answer(Bytes().u32(0x7FFFFFFF).u8(hello).u8(0).u16(0).get()),
            "bye frame of 2147483647 bytes ");
}

TEST_F(PublisherWireTest, LateHelloIsRefused) {
  loop->advance(seconds(6));
  EXPECT_EQ(raw.receive(), "bye no HELLO ");
}

TEST_F(PublisherWireTest, HelloOfAByteAWhileIsNotWaitedFor) {
  std::string types;
  for (const char each : helloFrame<PortLayout>().substr(0, 60)) {
    raw.send({&each, 1});
    loop->advance(milliseconds(100));
    types += raw.receive();
    if (!raw.isOpen) break;
  }
  EXPECT_EQ(types, "bye no HELLO ");
}

TEST_F(PublisherWireTest, SkipsUnknownFramesThatMayBeSkipped) {
  answer(helloFrame<PortLayout>());
  EXPECT_EQ(answer(frame(0x85, 9, "whatever")), "");
  EXPECT_EQ(answer(frame(0x45, 9, "whatever")), "bye frame of type 69 ");
}

TEST_F(PublisherWireTest, RefusesAcksOfWhatWasNotSent) {
  answer(helloFrame<PortLayout>());
  EXPECT_EQ(answer(frame(ack, 0, Bytes().u64(99).u64(0).get())), "bye ACK of what was not sent ");
}

// Each of its numbers would cost a walk of its own through the table, and hold its rows.
TEST_F(PublisherWireTest, RefusesATableThatIsAskedForTwice) {
  Bytes tables;
  for (unsigned number = 0; number < 2; ++number) {
    tables.u16(number).text("net/port").u16(7).raw(std::string(20, 'f')).u64(0).u64(0);
  }
  EXPECT_EQ(answer(frame(hello, 0,
                         Bytes()
                             .raw("KORVOTAB")
                             .u16(1)
                             .u16(1)
                             .u32(0)
                             .u32(5000)
                             .text("raw")
                             .u16(2)
                             .raw(tables.get())
                             .get())),
            "bye a table twice ");
}

TEST_F(PublisherWireTest, RefusedTableIsToldNoMore) {
  answer(helloFrame<PortLayout>());
  agent->put(port(1, "a"));
  EXPECT_EQ(answer(frame(refuse, 3, Bytes().text("no").get())), "");
  agent->put(port(2, "a"));
  EXPECT_EQ(answer(""), "");
}

TEST_F(PublisherWireTest, TellsOfRowsThatASubscriberRefused) {
  std::string told;
  std::string traced;
  struct Channel final : Velto::DebugChannel {
    explicit Channel(std::string& to) : text(to) { levelMaskIs(1U << 5); }
    void trace(std::ostringstream& traced, unsigned int, const char*, unsigned int,
               const char*) override {
      text += traced.str();
    }
    std::string& text;
  };
  agent->publisher.debugChannelIs(new Channel(traced), true);
  agent->publisher.onRefusedRow([&](const Korvo::TablePublisher::RefusedRow& refused) {
    told = refused.subscriber + ' ' + refused.table + ' ' + std::to_string(refused.oid) + ' ' +
           refused.reason;
    agent.reset();  // and may end the publisher
  });
  answer(helloFrame<PortLayout>());
  answer(frame(note, 3, Bytes().u32(17).text("too long").get()));
  EXPECT_EQ(told, "raw net/port 17 too long");
  EXPECT_EQ(traced, ": raw cannot take row 17 of net/port: too long");
  EXPECT_FALSE(agent.has_value());
}

// A subscriber that complains of every row: what does not fit is not told, and its number is known.
TEST_F(PublisherWireTest, ThousandNotesWaitToBeTold) {
  int told = 0;
  agent->publisher.onRefusedRow([&](const auto&) { ++told; });
  answer(helloFrame<PortLayout>());
  std::string notes;
  for (std::uint32_t oid = 0; oid < 1500; ++oid) {
    notes += frame(note, 3, Bytes().u32(oid).text("").get());
  }
  EXPECT_EQ(answer(notes + frame(ack, 0, Bytes().u64(0).u64(1500).get())), "");
  EXPECT_EQ(told, 1000);
  EXPECT_EQ(agent->publisher.subscribers().at(0).refused, 1500U);
}

// Names are what subscribers choose: those that were seen last are remembered.
TEST_F(PublisherWireTest, FourThousandNamesAreRemembered) {
  const auto come = [&](int number) {
    raw.streamIs(link.subscriberEnd()->connect());
    const std::string name = std::to_string(100000 + number);
    std::string hello = helloFrame<PortLayout>();
    hello.replace(hello.find("\3raw"), 4, "\6" + name);
    hello[0] = static_cast<char>(hello[0] + 3);
    answer(hello);
    return agent->publisher.subscribers().at(0).reconnects;
  };
  for (int number = 0; number < 4097; ++number) ASSERT_EQ(come(number), 0U);
  EXPECT_EQ(come(1), 1U);
  EXPECT_EQ(come(0), 0U);  // forgotten
  EXPECT_EQ(come(4096), 1U);
}

TEST_F(PublisherWireTest, SubscriberThatTakesNothingIsClosedAndTheOthersBytesAreBounded) {
  agent->putMany(1, 5000);
  link.roomIs(1000);
  raw.send(helloFrame<PortLayout>());
  loop->runUntilQuiet();
  EXPECT_LE(agent->publisher.subscribers().at(0).unsent, 256U * 1024);
  loop->advance(seconds(20));
  EXPECT_EQ(agent->publisher.subscribers().size(), 0U);
  EXPECT_EQ(agent->publisher.lastReason(), "nothing was received for 15 seconds");
}

// It cannot say anything while it applies what it was told.
TEST_F(PublisherWireTest, SubscriberMayBeSilentLongerForEachRowThatItApplies) {
  agent->putMany(1, 20001);
  std::string told;
  for (std::string more = answer(helloFrame<PortLayout>()); !more.empty(); more = raw.receive()) {
    told = more;
    loop->runUntilQuiet();
  }
  ASSERT_TRUE(told.ends_with("mark ")) << told;
  loop->advance(milliseconds(15500));
  EXPECT_EQ(agent->publisher.subscribers().size(), 1U);
  answer(frame(ack, 0, Bytes().u64(raw.marked).u64(0).get()));
  loop->advance(seconds(14));
  EXPECT_EQ(agent->publisher.subscribers().size(), 1U);
  loop->advance(seconds(1));
  EXPECT_EQ(agent->publisher.subscribers().size(), 0U);
}

// What has not been begun is not sent any more, and what has been is sent to its end.
TEST_F(PublisherWireTest, GoodbyeFollowsTheFrameThatWasBegun) {
  for (const std::size_t room : {0U, 1U, 7U, 8U, 9U, 777U, 1000U}) {
    SCOPED_TRACE(room);
    Korvo::TestLink narrow;
    RawEnd end;
    Agent sender(loop);
    sender.putMany(1, 100, "a name of some length, ");
    sender.publisher.accept(narrow.publisherEnd());
    end.streamIs(narrow.subscriberEnd()->connect());
    narrow.roomIs(room);
    end.send(helloFrame<PortLayout>());
    loop->runUntilQuiet();
    Table<Link> another("net/another");
    sender.publisher.add(another);
    loop->runUntilQuiet();
    narrow.roomIs(65536);
    std::string told;
    for (int turn = 0; turn < 3; ++turn) {
      told += end.receive();
      loop->runUntilQuiet();
    }
    EXPECT_TRUE(told.ends_with("bye there is another table ")) << told;
    EXPECT_LT(std::ranges::count(told, ' '), 50) << told;
    EXPECT_FALSE(end.isOpen);
  }
}

TEST_F(PublisherWireTest, MoreSubscribersThanAllowedAreToldSo) {
  agent.emplace(loop, Korvo::PublisherOptions{.mostSubscribers = 1});
  agent->publisher.accept(link.publisherEnd());
  raw.streamIs(link.subscriberEnd()->connect());
  RawEnd second;
  second.streamIs(link.subscriberEnd()->connect());
  EXPECT_EQ(answer(helloFrame<PortLayout>()), "welcome whole mark ");
  EXPECT_EQ(second.receive(), "bye too many subscribers ");
}

// ---------------------------------------------------------------------------------------------

class SubscriberWireTest : public testing::Test {
 protected:
  SubscriberWireTest() {
    link.publisherEnd()->takerIs(
        [this](std::unique_ptr<Korvo::ByteStream> stream) { raw.streamIs(std::move(stream)); });
    subscriber.onProblem([this](const Korvo::TableSubscriber::Problem& problem) {
      problems += problem.text + "; ";
    });
    subscriber.add(ports);
    subscriber.connect(link.subscriberEnd());
    loop->runUntilQuiet();
    EXPECT_EQ(raw.receive(), "hello ");
  }
  std::string answer(const std::string& bytes) {
    raw.send(bytes);
    loop->runUntilQuiet();
    return raw.receive();
  }
  /// Comes to a mark with one row.
  void begin(const Port& first) {
    answer(welcomeFrame<PortLayout>() + frame(whole, 0, "") + rowFrame(first) +
           markFrame(10, 2, 1, digestOf(first)));
    ASSERT_EQ(ports.state(), TableState::current) << subscriber.status().lastReason;
  }
  std::string names() const {
    std::map<oid_t, std::string> all;
    for (const Port& row : ports) all[row.rowOid()] = row.get<"name">();
    std::string text;
    for (const auto& [oid, name] : all) text += std::to_string(oid) + ' ' + name + "; ";
    return text;
  }
  std::shared_ptr<Korvo::TestLoop> loop = std::make_shared<Korvo::TestLoop>();
  Korvo::TestLink link;
  RawEnd raw;
  std::string problems;
  Table<Port> ports{"net/port"};
  Korvo::TableSubscriber subscriber{loop, {.name = "viewer"}};
};

TEST_F(SubscriberWireTest, AcknowledgesMarks) {
  begin(port(1, "a"));
  EXPECT_EQ(raw.last, Bytes().u64(10).u64(0).get());
}

// However many marks it sends: one acknowledgement waits, and tells the last of them.
TEST_F(SubscriberWireTest, PublisherThatReadsNothingMakesNothingGrow) {
  begin(port(1, "a"));
  constexpr std::uint64_t marks = 10000;
  for (std::uint64_t i = 1; i <= marks; ++i) {
    raw.send(markFrame(10 + i, 0, 1, digestOf(port(1, "a"))));
    loop->runUntilQuiet();
  }
  EXPECT_EQ(subscriber.status().marks, 1 + marks);
  std::size_t acks = 0;
  for (int turn = 0; turn < 3; ++turn) {
    const std::string types = raw.receive();
    acks += static_cast<std::size_t>(std::ranges::count(types, ' '));
    loop->runUntilQuiet();
  }
  EXPECT_LT(acks, 65536 / 24 + 10);  // what the link holds
  EXPECT_EQ(raw.last, Bytes().u64(10 + marks).u64(0).get());
}

TEST_F(SubscriberWireTest, RowsAppearAtTheMarkOnly) {
  begin(port(1, "a"));
  EXPECT_EQ(answer(rowFrame(port(2, "b")) + frame(del, 0, Bytes().u32(1).get())), "");
  EXPECT_EQ(ports.size(), 1U);
  EXPECT_TRUE(ports.contains(1));
  EXPECT_EQ(answer(markFrame(11, 2, 1, digestOf(port(2, "b")))), "ack ");
  EXPECT_FALSE(ports.contains(1));
  EXPECT_TRUE(ports.contains(2));
}

TEST_F(SubscriberWireTest, UnmarkedRoundIsDroppedWithTheLink) {
  begin(port(1, "a"));
  answer(rowFrame(port(2, "b")));
  link.cut();
  loop->advance(seconds(20));
  EXPECT_EQ(raw.receive(), "hello ");
  // It asks from the last mark on.
  EXPECT_EQ(raw.last.substr(raw.last.size() - 16), Bytes().u64(epoch).u64(10).get());
  EXPECT_EQ(answer(welcomeFrame<PortLayout>() + markFrame(10, 0, 1, digestOf(port(1, "a")))),
            "ack ");
  EXPECT_EQ(ports.size(), 1U);
}

TEST_F(SubscriberWireTest, WrongCountEndsTheConnection) {
  begin(port(1, "a"));
  EXPECT_EQ(answer(rowFrame(port(2, "b")) + markFrame(11, 2, 2, 0)),
            "bye a mark of 2 frames behind 1 ");
  EXPECT_EQ(ports.size(), 1U);
  EXPECT_EQ(ports.state(), TableState::stale);
}

TEST_F(SubscriberWireTest, SecondBadFrameAtAPositionAsksForAllRows) {
  begin(port(1, "a"));
  answer(frame(row, 0, "short"));
  loop->advance(seconds(6));
  EXPECT_EQ(raw.receive(), "hello ");
  EXPECT_EQ(raw.last.substr(raw.last.size() - 16), Bytes().u64(epoch).u64(10).get());
  EXPECT_EQ(answer(welcomeFrame<PortLayout>() + frame(row, 0, "short")),
            "bye a row of another length than its frame ");
  loop->advance(seconds(6));
  EXPECT_EQ(raw.receive(), "hello ");
  EXPECT_EQ(raw.last.substr(raw.last.size() - 16, 8), Bytes().u64(0).get());
  EXPECT_EQ(problems, "all rows are asked for: a row of another length than its frame; ");
}

TEST_F(SubscriberWireTest, SequenceThatGoesBackEndsTheConnection) {
  begin(port(1, "a"));
  EXPECT_EQ(answer(markFrame(9, 0, 1, digestOf(port(1, "a")))), "bye the sequence went back ");
}

// Lesson: a position in another history is not gone on from.
TEST_F(SubscriberWireTest, OtherHistoryHasToTellAllRows) {
  begin(port(1, "a"));
  link.cut();
  loop->advance(seconds(6));
  raw.receive();
  std::string other = welcomeFrame<PortLayout>();
  other[8 + 2 + 4 + 4 + 5] = 0x55;  // the epoch's first byte
  EXPECT_EQ(answer(other + markFrame(12, 0, 1, digestOf(port(1, "a")))),
            "bye a table was not told as a whole ");
}

TEST_F(SubscriberWireTest, OtherDigestAsksForAllRows) {
  begin(port(1, "a"));
  EXPECT_EQ(answer(rowFrame(port(2, "b")) + markFrame(11, 1, 2, 1)),
            "bye the rows of net/port are not the publisher's ");
  EXPECT_EQ(ports.size(), 1U);
  EXPECT_EQ(subscriber.status().digestFaults, 1U);
  loop->advance(seconds(6));
  EXPECT_EQ(raw.receive(), "hello ");
  EXPECT_EQ(raw.last.substr(raw.last.size() - 16, 8), Bytes().u64(0).get());
}

// A bad row is refused alone: its old value stays, and both sides are told.
TEST_F(SubscriberWireTest, BadRowIsReportedAndTheOthersGoOn) {
  begin(port(1, "a"));
  Port bad = port(1, "longer");
  bad.rwRowBuf()[8 + 4 + 2] = 0xFF;  // where the name stands
  bad.rwRowBuf()[8 + 4 + 2 + 1] = 0xFF;
  const std::string notes = answer(rowFrame(bad) + rowFrame(port(2, "b")));
  EXPECT_EQ(notes.substr(0, 5), "note ") << notes;
  answer(markFrame(11, 2, 2, digestOf(bad) ^ digestOf(port(2, "b"))));
  EXPECT_EQ(ports.find(1).get<"name">(), "a");
  EXPECT_EQ(ports.find(2).get<"name">(), "b");
  EXPECT_EQ(subscriber.status().refusedRows, 1U);
  EXPECT_NE(problems, "");
  EXPECT_EQ(ports.state(), TableState::current);
}

// The digest is of the bytes as they were sent, also where the table has others or none.
TEST_F(SubscriberWireTest, DigestCountsRowsWhoseBytesAreNotInTheTable) {
  const Port held = port(1, "eth1");
  Port alike = port(1, "a longer name");
  alike.set<"name">("eth1");  // where the longer one stood
  const Port other = port(3, "c");
  Port bad = port(2, "b");
  bad.rowTypeIs(99);
  begin(held);
  EXPECT_EQ(answer(rowFrame(alike) + rowFrame(bad) + rowFrame(other) +
                   markFrame(11, 3, 3, digestOf(alike) ^ digestOf(bad) ^ digestOf(other))),
            "note another row type ack ");
  EXPECT_EQ(names(), "1 eth1; 3 c; ");
  // Both are told anew, one to be as it was in the table, and the other to be gone.
  EXPECT_EQ(answer(rowFrame(held) + frame(del, 0, Bytes().u32(2).u32(4).get()) +
                   markFrame(12, 2, 2, digestOf(held) ^ digestOf(other))),
            "ack ");
  Port better = port(2, "b");
  EXPECT_EQ(answer(rowFrame(bad) + rowFrame(better) + rowFrame(alike) + rowFrame(port(4, "d")) +
                   frame(del, 0, Bytes().u32(4).u32(3).get()) +
                   markFrame(13, 5, 2, digestOf(alike) ^ digestOf(better))),
            "note another row type ack ");
  EXPECT_EQ(names(), "1 eth1; 2 b; ");
  EXPECT_EQ(answer(rowFrame(bad) + markFrame(14, 1, 2, digestOf(alike) ^ digestOf(bad))),
            "note another row type ack ");
  EXPECT_EQ(names(), "1 eth1; 2 b; ") << "the former value stays";
  EXPECT_EQ(answer(frame(del, 0, Bytes().u32(2).get()) + markFrame(15, 1, 1, digestOf(alike))),
            "ack ");
  EXPECT_EQ(names(), "1 eth1; ");
}

TEST_F(SubscriberWireTest, LayoutThatIsNotItsFingerprintsIsRefused) {
  EXPECT_EQ(answer(welcomeFrame<PortLayout>(Korvo::layoutText(LinkLayout::info))),
            "refuse the layout is not that of its fingerprint ");
  EXPECT_EQ(ports.state(), TableState::refused);
}

TEST_F(SubscriberWireTest, WelcomesThatAreNoneEndTheConnection) {
  std::string other = welcomeFrame<PortLayout>();
  other[8] = 9;
  std::string number = welcomeFrame<PortLayout>();
  number[8 + 10 + 5 + 16 + 2] = 7;  // behind the versions, the name, the positions and the count
  std::string none = welcomeFrame<PortLayout>().substr(0, 8 + 10 + 5 + 16) + std::string(2, '\0');
  none[0] = static_cast<char>(none.size() - 4);
  none[1] = 0;
  for (const auto& [bytes, text] :
       {std::pair(other, "protocol 9"), std::pair(number, "table number 7"),
        std::pair(none, "a table is left out")}) {
    EXPECT_EQ(answer(bytes), std::string("bye ") + text + ' ');
    loop->advance(seconds(6));
    EXPECT_EQ(raw.receive(), "hello ");
  }
  EXPECT_EQ(ports.state(), TableState::loading);
}

TEST_F(SubscriberWireTest, MarksOfTablesThatAreNotThereEndTheConnection) {
  begin(port(1, "a"));
  const auto markOf = [](unsigned first, unsigned second) {
    Bytes body;
    body.u64(11).u64(0).u64(0).u16(2);
    for (const unsigned table : {first, second}) {
      body.u16(table).u64(1).u64(digestOf(port(1, "a")));
    }
    return frame(mark, 0, body.get());
  };
  EXPECT_EQ(answer(markOf(0, 0)), "bye table number 0 ");
  loop->advance(seconds(6));
  begin(port(1, "a"));
  EXPECT_EQ(answer(markOf(0, 5)), "bye table number 5 ");
  loop->advance(seconds(6));
  begin(port(1, "a"));
  EXPECT_EQ(answer(frame(mark, 0, Bytes().u64(11).u64(0).u64(0).u16(0).get())),
            "bye a mark without a table ");
}

// Its bytes pass the check, and it is another table's.
TEST_F(SubscriberWireTest, RowOfAnotherTypeIsRefusedAlone) {
  begin(port(1, "a"));
  Port other = port(2, "b");
  Korvo::storeField<std::uint16_t>(other.rwRowBuf() + Korvo::rowTypeOffset, 9);
  const Port good = port(3, "c");
  EXPECT_EQ(answer(rowFrame(other) + rowFrame(good) +
                   markFrame(11, 2, 3, digestOf(port(1, "a")) ^ digestOf(other) ^ digestOf(good))),
            "note another row type ack ");
  EXPECT_EQ(ports.size(), 2U);
  EXPECT_FALSE(ports.contains(2));
}

TEST_F(SubscriberWireTest, WholeForgetsWhatTheRoundTold) {
  begin(port(1, "a"));
  EXPECT_EQ(answer(rowFrame(port(3, "c")) + frame(whole, 0, "") + rowFrame(port(2, "b")) +
                   markFrame(11, 3, 1, digestOf(port(2, "b")))),
            "ack ");
  EXPECT_EQ(oids(ports), std::vector<oid_t>{2});
}

TEST_F(SubscriberWireTest, PublisherThatIsNoneIsLeft) {
  EXPECT_EQ(answer("HTTP/1.1 400 Bad Request\r\n\r\n"), "bye frame of 1347703880 bytes ");
  EXPECT_EQ(ports.state(), TableState::loading);
}

TEST_F(SubscriberWireTest, PulsesKeepTheConnectionAndTheStateIsLoading) {
  answer(welcomeFrame<PortLayout>());
  for (int i = 0; i < 20; ++i) {
    loop->advance(seconds(5));
    answer(frame(pulse, 0, ""));
  }
  EXPECT_EQ(link.connections(), 1U);
  EXPECT_EQ(ports.state(), TableState::loading);
}

}  // namespace
