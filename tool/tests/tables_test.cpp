// The commands for tables of other processes.

#include "recordings.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <sstream>
#include <thread>

namespace {

using korvotest::Agent;
using korvotest::Background;
using korvotest::contentOf;
using korvotest::expectAll;
using korvotest::expectOut;
using korvotest::korvo;
using korvotest::linkLayout;
using korvotest::Outcome;
using korvotest::portLayout;
using korvotest::portRecording;
using korvotest::Recording;
using korvotest::shell;
using korvotest::waitFor;
using korvotest::write;

#ifndef KORVO_WITH_TABLES

TEST(Tables, ABuildWithoutThemSaysSo) {
  for (const char* const command : {"tables unix:a", "get unix:a t", "watch unix:a t",
                                    "record unix:a -o b", "replay a", "bridge unix:a unix:b"}) {
    expectAll(command, 69, "",
              "korvo: this build of korvo knows no tables of other processes: it was made without "
              "Korvo::Tables, which needs libuv (package libuv1-dev)\n");
  }
}

#else

std::string sorted(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  std::string all;
  for (const std::string& line : lines) all += line + '\n';
  return all;
}

class Tables : public testing::Test {
 protected:
  Tables() { shell("rm -f agent.sock *.rec"); }

  /// The tables as they are at first.
  static Agent atFirst() { return Agent(portRecording(), {"--subscribers", "9"}); }
  /// As they are at last.
  static Agent atLast() {
    Agent agent(portRecording(), {"--as-fast-as-possible"});
    agent.waitForEnd();
    return agent;
  }
};

TEST_F(Tables, AreListed) {
  const Agent agent = atFirst();
  expectOut("tables unix:agent.sock",
            "portAgent: 2 tables, 0 subscribers, batch 1\n"
            "\n"
            "table     rows  changed  fingerprint  layout\n"
            "net/port     2        1  7c866ca7     type 7, 4 columns\n"
            "net/link     0        0  a4fb8089     type 2, 2 columns\n");
  Background watch({"watch", "unix:agent.sock", "net/port"}, "watch");
  const std::string expected =
      "portAgent: 2 tables, 1 subscriber, batch 1\n"
      "\n"
      "table     rows  changed  fingerprint  layout\n"
      "net/port     2        1  7c866ca7     type 7, 4 columns\n"
      "net/link     0        0  a4fb8089     type 2, 2 columns\n"
      "\n"
      "subscriber  lag  lag rows  merged  refused  unsent  reconnects  tables    last reason\n"
      "korvo         0         0       0        0       0           0  net/port\n";
  EXPECT_TRUE(waitFor([&] { return korvo("tables unix:agent.sock").out == expected; }))
      << korvo("tables unix:agent.sock").out;
  EXPECT_EQ(watch.end(SIGTERM), 0);
  const Outcome listed = korvo("tables --layouts unix:agent.sock");
  EXPECT_EQ(listed.status, 0);
  EXPECT_TRUE(listed.out.ends_with(
      "\n\nThe last connection that ended: the subscriber ended: the subscriber ended\n"
      "\n# net/port\n" +
      std::string(portLayout) + "\n# net/link\n" + linkLayout))
      << listed.out;
}

TEST_F(Tables, AreListedAsJson) {
  const Agent agent = atFirst();
  const Outcome listed =
      korvo("tables --json unix:agent.sock | sed 's/\"epoch\":\"[0-9a-f]*\"/E/'");
  EXPECT_EQ(
      listed.out,
      R"({"publisher":"portAgent",E,"sequence":1,"complete":true,"tables":[)"
      R"({"name":"net/port","rows":2,"sequence":1,)"
      R"("fingerprint":"7c866ca71d2e186f0e9bbe7dbd99d5de062d1a66",)"
      R"("layout":"row 7 base 28 {\u000a  speed uint64_t @8\u000a  name string_t @16\u000a)"
      R"(  tags string_t[] @20\u000a  net IpGenPrefix @24\u000a}\u000a"},)"
      R"({"name":"net/link","rows":0,"sequence":0,)"
      R"("fingerprint":"a4fb808961c3da73833c84c1512fd2d77dfbcd4d",)"
      R"("layout":"row 2 base 13 {\u000a  up bool @8\u000a  peer IpGenAddr @9\u000a}\u000a"}],)"
      R"("subscribers":[],"lastReason":""})"
      "\n");
}

TEST_F(Tables, RowsAreGot) {
  const Agent agent = atFirst();
  expectOut("get unix:agent.sock net/port",
            " oid  speed  name     tags      net\n"
            "1001   1000  eth0     [\"core\"]  10.1.0.0/16\n"
            "1002   1000  \"eth 1\"  []        10.1.2.0/24\n");
  expectOut("get --json unix:agent.sock net/port 1002",
            R"({"type":7,"oid":1002,"row":{"speed":1000,"name":"eth 1","tags":[],)"
            R"("net":"10.1.2.0/24"}})"
            "\n");
  expectOut("get unix:agent.sock net/port --where 'name=eth 1'",
            " oid  speed  name     tags  net\n"
            "1002   1000  \"eth 1\"  []    10.1.2.0/24\n");
  expectOut("get --json unix:agent.sock net/port --where net=10.1.2.0/24 | cut -c1-21",
            "{\"type\":7,\"oid\":1002,\n");
  expectOut("get --json unix:agent.sock net/port --covers 10.1.2.3 | cut -c1-21",
            "{\"type\":7,\"oid\":1001,\n{\"type\":7,\"oid\":1002,\n");
  expectOut("get --json unix:agent.sock net/port --covers 10.1.0.0/20 | cut -c1-21",
            "{\"type\":7,\"oid\":1001,\n");
  // A table of no rows has columns all the same, and is no mistake.
  expectOut("get unix:agent.sock net/link", "");
}

TEST_F(Tables, RowsThatAreNotThere) {
  const Agent agent = atFirst();
  expectAll("get unix:agent.sock net/port 7", 1, "", "korvo: no row of net/port has the oid 7\n");
  expectAll("get unix:agent.sock net/port --where name=lo", 1, "",
            "korvo: no row of net/port has name lo\n");
  expectAll("get unix:agent.sock net/port --covers 11.0.0.1", 1, "",
            "korvo: no row of net/port has a prefix that covers 11.0.0.1/32\n");
  expectAll("get unix:agent.sock net/port --covers ::1", 1, "",
            "korvo: no row of net/port has a prefix that covers ::1/128\n");
}

TEST_F(Tables, MistakesAreTold) {
  const Agent agent = atFirst();
  const auto see = [](const char* command) {
    return std::string(" (see korvo ") + command + " --help)\n";
  };
  expectAll("tables unix:nobody.sock", 69, "",
            "korvo: unix:nobody.sock: connect nobody.sock: No such file or directory\n");
  expectAll("tables nowhere", 64, "", "korvo: Unknown address - (nowhere)" + see("tables"));
  expectAll("tables carrier:there", 64, "",
            "korvo: Unknown address - (carrier:there)" + see("tables"));
  expectAll("replay agent.rec nowhere", 64, "",
            "korvo: Unknown address - (nowhere)" + see("replay"));
  for (const char* const command : {"get", "watch"}) {
    expectAll(std::string(command) + " unix:agent.sock net/prt", 69, "",
              "korvo: no table net/prt: portAgent has net/port, net/link\n");
  }
  expectAll("record unix:agent.sock net/prt -o no.rec", 69, "",
            "korvo: no table net/prt: portAgent has net/port, net/link\n");
  EXPECT_EQ(contentOf("no.rec"), "");
  expectAll("get unix:agent.sock net/port --where nam=x", 64, "",
            "korvo: no column has the name nam; there are speed, name, tags, net" + see("get"));
  expectAll("get unix:agent.sock net/port --where name", 64, "",
            "korvo: --where: COLUMN=VALUE, not name" + see("get"));
  EXPECT_EQ(korvo("get unix:agent.sock net/port --where speed=fast").status, 64);
  EXPECT_EQ(korvo("get unix:agent.sock net/port --covers nowhere").status, 65);
  expectAll("get unix:agent.sock net/link --covers 10.0.0.1", 64, "",
            "korvo: --covers: no column has prefixes" + see("get"));
  EXPECT_EQ(korvo("get unix:agent.sock net/port x").status, 64);
  EXPECT_EQ(korvo("get unix:agent.sock").status, 64);
  EXPECT_EQ(korvo("tables --timeout 0 unix:agent.sock").status, 64);
  // A second publisher at the address.
  expectAll("replay agent.rec unix:agent.sock", 69, "",
            "korvo: unix:agent.sock: bind agent.sock: Address already in use\n");
}

TEST_F(Tables, AnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket to another user";
  const Agent agent = atFirst();
  ASSERT_EQ(chown("agent.sock", 65534, 65534), 0);
  // Root without the rights that make it more than any user; the program's files stay readable.
  const Outcome result = shell(
      "setpriv --bounding-set=-dac_override,-dac_read_search "
      "\"$(command -v korvo)\" tables unix:agent.sock");
  EXPECT_NE(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("Permission denied"), std::string::npos) << result.err;
}

TEST_F(Tables, AServerThatIsNoneIsToldOfAndNotWaitedFor) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "agent.sock");
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 9), 0);
  std::thread server([listener] {
    const int first = accept(listener, nullptr, nullptr);
    const std::string garbage = "HTTP/1.1 400 Bad Request\r\n\r\n";
    EXPECT_EQ(::write(first, garbage.data(), garbage.size()), static_cast<ssize_t>(garbage.size()));
    const int second = accept(listener, nullptr, nullptr);
    char bytes[1000];
    while (read(second, bytes, sizeof bytes) > 0) {
    }
    close(first);
    close(second);
  });
  expectAll("tables unix:agent.sock", 69, "",
            "korvo: unix:agent.sock: not understood: frame of 1347703880 bytes\n");
  // And one that says nothing.
  expectAll("tables --timeout 1 unix:agent.sock", 69, "",
            "korvo: unix:agent.sock: no answer for 1 second\n");
  server.join();
  close(listener);
}

TEST_F(Tables, ChangesAreWatched) {
  const Agent agent(portRecording(), {"--subscribers", "1"});
  const Outcome result = korvo("watch --first 4 unix:agent.sock net/port");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(sorted(result.out),
            "added 1001  speed=1000  name=eth0  tags=[\"core\"]  net=10.1.0.0/16\n"
            "added 1002  speed=1000  name=\"eth 1\"  tags=[]  net=10.1.2.0/24\n"
            "changed 1001  speed=1000 -> 25000\n"
            "removed 1002\n");
}

TEST_F(Tables, ChangesAloneAreWatchedAsJson) {
  const Agent agent(portRecording(), {"--subscribers", "1"});
  expectOut("watch --json --changes --first 2 unix:agent.sock net/port",
            R"({"state":"loading","text":"nothing has come from the publisher yet"})"
            "\n"
            R"({"state":"current"})"
            "\n"
            R"({"change":"changed","oid":1001,"row":{"speed":25000,"name":"eth0","tags":["core"],)"
            R"("net":"10.1.0.0/16"},"before":{"speed":1000}})"
            "\n"
            R"({"change":"removed","oid":1002})"
            "\n");
}

TEST_F(Tables, WatchingOutlivesItsPublisher) {
  auto agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--subscribers", "9"});
  Background watch({"watch", "unix:agent.sock", "net/port"}, "watch");
  const auto lines = [&] {
    const std::string out = watch.out();
    return std::count(out.begin(), out.end(), '\n');
  };
  ASSERT_TRUE(waitFor([&] { return lines() == 2; }));
  agent->process->end(SIGKILL);
  ASSERT_TRUE(waitFor([&] { return watch.err().find("stale") != std::string::npos; }))
      << watch.err() << watch.out() << watch.end(SIGTERM);
  EXPECT_EQ(watch.err().substr(0, 26), "korvo: net/port is stale: ");
  // Another one, with other rows: only the differences are told.
  agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return lines() == 4; })) << watch.out() << watch.err();
  EXPECT_NE(watch.out().find("\nchanged 1001  speed=1000 -> 25000\n"), std::string::npos);
  EXPECT_NE(watch.out().find("\nremoved 1002\n"), std::string::npos);
  ASSERT_TRUE(waitFor([&] { return watch.err().find("is current") != std::string::npos; }));
  EXPECT_EQ(watch.end(SIGINT), 0);
}

TEST_F(Tables, WatchingLearnsAnotherLayout) {
  auto agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--subscribers", "9"});
  Background watch({"watch", "unix:agent.sock", "net/port"}, "watch");
  ASSERT_TRUE(waitFor([&] { return watch.out().find("added 1002") != std::string::npos; }));
  agent->process->end(SIGTERM);
  Recording other;
  other.publisher("portAgent")
      .table(0, "net/port", "row 7 base 12 { mtu uint32_t @8 }")
      .row(0, 9, R"({"mtu":1500})")
      .mark(0);
  agent = std::make_unique<Agent>(other, std::vector<std::string>{"--subscribers", "9"});
  ASSERT_TRUE(waitFor([&] { return watch.out().find("added 9  mtu=1500\n") != std::string::npos; }))
      << watch.out() << watch.err();
  EXPECT_NE(watch.err().find("is refused: net/port has another layout at portAgent\n"),
            std::string::npos)
      << watch.err();
  EXPECT_EQ(watch.end(SIGTERM), 0);
}

TEST_F(Tables, ClosedOutputIsTold) {
  const Agent agent = atFirst();
  for (const char* const command :
       {"tables unix:agent.sock", "get unix:agent.sock net/port", "watch unix:agent.sock net/port",
        "replay agent.rec", "record unix:agent.sock -o -"}) {
    EXPECT_EQ(korvo(std::string(command) + " >&-").status, 74) << command;
    EXPECT_EQ(korvo(std::string(command) + " >/dev/full").status, 74) << command;
  }
}

// ---------------------------------------------------------------------------------------------
// Recordings

constexpr const char* printed =
    "2023-11-14T22:13:20.000000Z  net/port  added 1001  speed=1000  name=eth0  tags=[\"core\"]  "
    "net=10.1.0.0/16\n"
    "2023-11-14T22:13:20.000000Z  net/port  added 1002  speed=1000  name=\"eth 1\"  tags=[]  "
    "net=10.1.2.0/24\n"
    "2023-11-14T22:13:20.250000Z  net/port  changed 1001  speed=1000 -> 25000\n"
    "2023-11-14T22:13:20.500000Z  net/port  removed 1002\n"
    "2023-11-14T22:13:20.500000Z  net/link  added 5  up=true  peer=10.1.0.9\n";

TEST_F(Tables, ARecordingIsPrinted) {
  write("a.rec", portRecording().bytes);
  expectOut("replay a.rec", printed);
  expectOut("replay - <a.rec", printed);
  expectOut("replay --json a.rec | tail -n 2",
            R"({"time":"2023-11-14T22:13:20.500000Z","table":"net/port","change":"removed",)"
            R"("oid":1002})"
            "\n"
            R"({"time":"2023-11-14T22:13:20.500000Z","table":"net/link","change":"added","oid":5,)"
            R"("row":{"up":true,"peer":"10.1.0.9"}})"
            "\n");
}

TEST_F(Tables, WhatIsRecordedIsReplayed) {
  const Agent agent(portRecording(), {"--subscribers", "1"});
  Background record({"record", "unix:agent.sock", "-o", "b.rec"}, "record");
  agent.waitForEnd();
  const auto printedNow = [] { return korvo("replay b.rec | sed 's/^[^ ]*  //'").out; };
  ASSERT_TRUE(waitFor([&] { return printedNow().find("net/link") != std::string::npos; }));
  EXPECT_EQ(record.end(SIGINT), 0);
  EXPECT_EQ(record.err(), "korvo: recorded 5 changes in 3 batches\n");
  EXPECT_EQ(contentOf("b.rec").substr(0, 8), "KORVOREC");
  EXPECT_EQ(sorted(printedNow()),
            "net/link  added 5  up=true  peer=10.1.0.9\n"
            "net/port  added 1001  speed=1000  name=eth0  tags=[\"core\"]  net=10.1.0.0/16\n"
            "net/port  added 1002  speed=1000  name=\"eth 1\"  tags=[]  net=10.1.2.0/24\n"
            "net/port  changed 1001  speed=1000 -> 25000\n"
            "net/port  removed 1002\n");
  // A recording is not written over.
  expectAll("record unix:agent.sock -o b.rec", 74, "", "korvo: b.rec: File exists\n");
}

TEST_F(Tables, ARecordingOfAReplayIsTheRecording) {
  const Agent agent(portRecording(), {"--subscribers", "1"});
  EXPECT_EQ(korvo("record --first 3 unix:agent.sock net/port net/link -o c.rec").err,
            "korvo: recorded 5 changes in 3 batches\n");
  // But for the times, and the order of the first rows.
  std::string ours = portRecording().bytes;
  std::string theirs = contentOf("c.rec");
  ASSERT_EQ(ours.size(), theirs.size());
  std::sort(ours.begin(), ours.end());
  std::sort(theirs.begin(), theirs.end());
  EXPECT_EQ(korvo("replay c.rec | sed 's/^[^ ]*  //' | sort").out,
            korvo("replay agent.rec | sed 's/^[^ ]*  //' | sort").out);
}

TEST_F(Tables, AReplayKeepsTheTimes) {
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  write("a.rec", portRecording().bytes);
  expectOut("replay --end a.rec unix:agent.sock", "");
  const double recorded = seconds();
  EXPECT_GT(recorded, 0.5);
  expectOut("replay --end --speed 0.5 a.rec unix:agent.sock", "");
  const double slow = seconds() - recorded;
  EXPECT_GT(slow, 1.0);
  expectOut("replay --end --speed 1e9 a.rec unix:agent.sock", "");
  expectOut("replay --end --as-fast-as-possible a.rec unix:agent.sock", "");
  EXPECT_NE(access("agent.sock", F_OK), 0);  // nothing is left behind
}

TEST_F(Tables, ATornRecordingIsTakenUpToItsLastMark) {
  const std::string whole = portRecording().bytes;
  const std::string all = printed;
  constexpr const char* tornText = "korvo: torn.rec: ends in the middle of a batch: the last ";
  int torn = 0;
  for (std::size_t cut = 1; cut < whole.size() - 16; cut += 7) {
    write("torn.rec", whole.substr(0, whole.size() - cut));
    const Outcome result = korvo("replay torn.rec");
    EXPECT_TRUE(all.starts_with(result.out)) << cut;
    const bool isAtAMark = result.err.empty();
    EXPECT_EQ(result.status, isAtAMark ? 0 : 1) << cut;
    EXPECT_TRUE(isAtAMark || result.err.starts_with(tornText)) << cut << result.err;
    torn += isAtAMark ? 0 : 1;
  }
  EXPECT_GT(torn, 10);
  // A server of it tells the same, and publishes what there is.
  write("torn.rec", whole.substr(0, whole.size() - 1));
  expectAll("replay --end --as-fast-as-possible torn.rec unix:agent.sock", 1, "",
            "korvo: torn.rec: ends in the middle of a batch: the last 60 bytes do not count\n");
}

TEST_F(Tables, DamagedRecordingsAreTold) {
  const auto expectFailure = [](const std::string& bytes, const std::string& what) {
    write("bad.rec", bytes);
    for (const char* const address : {"", " unix:agent.sock"}) {
      const Outcome result = korvo(std::string("replay --as-fast-as-possible bad.rec") + address);
      EXPECT_EQ(result.status, 65) << what;
      EXPECT_EQ(result.err, "korvo: bad.rec: " + what + "\n");
    }
  };
  const std::string head = Recording().bytes;
  expectFailure("", "is no recording");
  expectFailure("KORVOREX" + head.substr(8), "is no recording");
  expectFailure("KORVOREC\x02" + head.substr(9),
                "a recording of version 2, and this korvo knows version 1");
  const auto table = [](const std::string& layout = portLayout) {
    return Recording().table(0, "net/port", layout);
  };
  expectFailure(head + std::string(8, '\0'), "byte 16: a record of 0 bytes");
  expectFailure(head + std::string(8, '\x7f'), "byte 16: a record of 2139062143 bytes");
  expectFailure(Recording().record(9, 0, "").bytes, "byte 16: a record of type 9");
  expectFailure(Recording().record(3, 0, "x").bytes,
                "byte 16: a record that is too short or too long");
  expectFailure(Recording().record(2, 0, "\x09net").bytes,
                "byte 16: a record that is too short or too long");
  expectFailure(Recording().record(5, 0, "x").bytes, "byte 16: half an oid");
  expectFailure(Recording().record(4, 0, "x").bytes, "byte 16: a row without its header");
  expectFailure(Recording().record(6, 0, std::string(16, '\1')).bytes,
                "byte 16: a mark of 72340172838076673 records behind 0");
  expectFailure(Recording().whole(3).mark(0).bytes, "byte 16: no table has the number 3");
  expectFailure(table().table(1, "net/port", portLayout).mark(0).bytes,
                "byte 139: two tables have the name net/port");
  write("bad.rec", table().record(4, 0, std::string(40, '\1')).mark(0).bytes);
  EXPECT_EQ(korvo("replay bad.rec").status, 65);
  EXPECT_EQ(korvo("replay bad.rec").err.substr(0, 25), "korvo: bad.rec: byte 139:");
  EXPECT_EQ(korvo("replay no.rec").status, 66);
  EXPECT_EQ(korvo("replay --speed 0 a.rec").status, 64);
  EXPECT_EQ(korvo("replay --speed nan a.rec").status, 64);
}

TEST_F(Tables, NoByteOfARecordingIsBelieved) {
  const std::string whole = portRecording().bytes;
  for (std::size_t at = 16; at < whole.size(); at += 11) {
    std::string bytes = whole;
    bytes[at] = static_cast<char>(bytes[at] ^ (at % 2 == 0 ? 0x80 : 0x01));
    write("bad.rec", bytes);
    const Outcome result = korvo("replay bad.rec");
    // A value that is another one, an end that is torn, or the place of what is wrong.
    EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 65)
        << at << ": " << result.status;
    EXPECT_EQ(result.err.empty() || result.err.starts_with("korvo: bad.rec: "), true)
        << at << ": " << result.err;
  }
}

TEST_F(Tables, ARecordingMayChangeALayoutInTheMiddle) {
  Recording recording;
  recording.publisher("portAgent")
      .table(0, "net/port", portLayout)
      .whole(0)
      .row(0, 1, R"({"name":"eth0"})")
      .mark(0)
      .table(0, "net/port", "row 7 base 12 { mtu uint32_t @8 }")
      .whole(0)
      .row(0, 1, R"({"mtu":1500})")
      .mark(100);
  write("a.rec", recording.bytes);
  expectOut("replay a.rec",
            "2023-11-14T22:13:20.000000Z  net/port  added 1  speed=0  name=eth0  tags=[]  "
            "net=null\n"
            "2023-11-14T22:13:20.100000Z  net/port  added 1  mtu=1500\n");
  const Agent agent(recording, {"--as-fast-as-possible"});
  agent.waitForEnd();
  expectOut("get unix:agent.sock net/port", "oid   mtu\n  1  1500\n");
}

// ---------------------------------------------------------------------------------------------
// On a terminal

/// korvo watch on a terminal of its own.
class Terminal {
 public:
  Terminal(unsigned short lines, unsigned short columns) {
    terminal_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    EXPECT_EQ(grantpt(terminal_), 0);
    EXPECT_EQ(unlockpt(terminal_), 0);
    char name[100];
    EXPECT_EQ(ptsname_r(terminal_, name, sizeof name), 0);
    const std::string program = korvotest::variable("KORVO");
    sizeIs(lines, columns);
    child_ = fork();
    if (child_ != 0) return;
    setsid();
    const int side = open(name, O_RDWR);  // NOLINT: kept open
    dup2(side, STDOUT_FILENO);
    setenv("TERM", "xterm", 1);  // NOLINT(concurrency-mt-unsafe): a child of one thread
    execl(program.c_str(), program.c_str(), "watch", "unix:agent.sock", "net/port", nullptr);
    _exit(127);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    if (child_ > 0) end(SIGKILL);
    close(terminal_);
  }

  void sizeIs(unsigned short lines, unsigned short columns) const {
    const winsize size{lines, columns, 0, 0};
    EXPECT_EQ(ioctl(terminal_, TIOCSWINSZ, &size), 0);
  }
  /// All that was written until now.
  const std::string& written() {
    char bytes[4096];
    for (ssize_t count; (count = read(terminal_, bytes, sizeof bytes)) > 0;) {
      written_.append(bytes, static_cast<std::size_t>(count));
    }
    return written_;
  }
  /// The lines as they stand when the last drawing was complete, without their colours.
  std::vector<std::string> screen() {
    const std::string& all = written();
    const std::size_t end = all.rfind("\x1b[J");
    if (end == std::string::npos) return {};
    const std::size_t begin = all.rfind("\x1b[H", end);
    std::string drawn = all.substr(begin + 3, end - begin - 3);
    std::vector<std::string> lines = {""};
    for (std::size_t at = 0; at < drawn.size();) {
      if (drawn[at] == '\x1b') {
        at = drawn.find_first_of("mK", at) + 1;
      } else if (drawn.compare(at, 3, "\r\r\n") == 0) {  // the terminal adds one
        lines.emplace_back();
        at += 3;
      } else {
        lines.back() += drawn[at++];
      }
    }
    return lines;
  }
  int end(int signal) {
    kill(child_, signal);
    int status = 0;
    EXPECT_TRUE(waitFor([&] {
      written();  // it may wait for room
      return waitpid(child_, &status, WNOHANG) == child_;
    }));
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  int terminal_ = -1;
  pid_t child_ = -1;
  std::string written_;
};

using Lines = std::vector<std::string>;

class DrawnTables : public korvotest::OnATerminal {
 protected:
  DrawnTables() { shell("rm -f agent.sock"); }
};

TEST_F(DrawnTables, FollowWhatIsPublished) {
  const Agent agent(portRecording(), {"--subscribers", "2"});
  Terminal terminal(24, 60);
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 5; })) << terminal.written();
  EXPECT_EQ(terminal.screen(), (Lines{"net/port of portAgent: 2 rows, 0 changes, current", "",
                                      " oid  speed  name     tags      net",
                                      "1001   1000  eth0     [\"core\"]  10.1.0.0/16",
                                      "1002   1000  \"eth 1\"  []        10.1.2.0/24"}));
  // Another subscriber: the replay goes on.
  const Background second({"watch", "unix:agent.sock", "net/port"}, "second");
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 4; })) << terminal.written();
  ASSERT_TRUE(waitFor([&] { return terminal.screen()[0].find("2 changes") != std::string::npos; }));
  EXPECT_EQ(terminal.screen(), (Lines{"net/port of portAgent: 1 row, 2 changes, current", "",
                                      " oid  speed  name  tags      net",
                                      "1001  25000  eth0  [\"core\"]  10.1.0.0/16"}));
  // A smaller window.
  terminal.sizeIs(24, 20);
  ASSERT_TRUE(waitFor([&] { return terminal.screen()[3] == "1001  25000  eth0  ["; }));
  EXPECT_EQ(terminal.screen()[0], "net/port of portAgen");
  EXPECT_EQ(terminal.end(SIGINT), 0);
  // A screen of its own, without a cursor, is given back.
  const std::string& all = terminal.written();
  EXPECT_TRUE(all.starts_with("\x1b[?1049h\x1b[?25l\x1b[?7l"));
  EXPECT_TRUE(all.ends_with("\x1b[?7h\x1b[?25h\x1b[?1049l")) << all;
}

TEST_F(DrawnTables, GoAsFarAsThereIsRoom) {
  Recording recording;
  recording.publisher("portAgent").table(0, "net/port", portLayout);
  for (Korvo::oid_t oid = 1; oid <= 100; ++oid) recording.row(0, oid, "{}");
  recording.mark(0);
  const Agent agent(recording, {"--subscribers", "9"});
  Terminal terminal(8, 80);
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 8; })) << terminal.written();
  const Lines lines = terminal.screen();
  EXPECT_EQ(lines[0], "net/port of portAgent: 100 rows, 0 changes, current");
  EXPECT_EQ(lines[3].substr(0, 3), "  1");
  EXPECT_EQ(lines[7], "96 more rows");
  terminal.sizeIs(1, 1);
  ASSERT_TRUE(waitFor([&] { return terminal.screen() == Lines{"n"}; }));
  EXPECT_EQ(terminal.end(SIGTERM), 0);
}

TEST_F(DrawnTables, NothingInARowCommandsTheTerminal) {
  Recording recording;
  recording.publisher("evil\x1b[2Jname")
      .table(0, "net/port", portLayout)
      .row(0, 1, R"({"name":"\u001b]0;title\u0007\u009b2J\r\n\t\u007f","tags":["\u001b[31m"]})")
      .mark(0);
  const Agent agent(recording, {"--subscribers", "9"});
  Terminal terminal(24, 200);
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 4; })) << terminal.written();
  const Lines lines = terminal.screen();
  EXPECT_EQ(lines[0], "net/port of evil\\u001b[2Jname: 1 row, 0 changes, current");
  for (const std::string& line : lines) {
    for (const char c : line) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    EXPECT_EQ(line.find("\u009b"), std::string::npos);
  }
  EXPECT_NE(lines[3].find("\\u001b]0;title"), std::string::npos) << lines[3];
  EXPECT_EQ(terminal.end(SIGINT), 0);
  for (const char* const command :
       {"tables unix:agent.sock", "get unix:agent.sock net/port", "replay agent.rec",
        "watch --first 1 unix:agent.sock net/port"}) {
    const std::string out = korvo(command).out;
    EXPECT_FALSE(out.empty());
    for (const char c : out) {
      EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 || c == '\n') << command;
    }
  }
}

TEST_F(DrawnTables, StayWhilePublishersComeAndGo) {
  auto agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--subscribers", "9"});
  Terminal terminal(24, 120);
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 5; }));
  agent->process->end(SIGKILL);
  ASSERT_TRUE(waitFor([&] { return terminal.screen()[0].find(", stale: ") != std::string::npos; }));
  EXPECT_EQ(terminal.screen().size(), 5U);  // the rows stay
  agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return terminal.screen().size() == 4; }));
  EXPECT_EQ(terminal.end(SIGINT), 0);
}

#endif

}  // namespace
