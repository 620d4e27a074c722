// The commands for tables, on a cluster of etcd.

#include "recordings.h"

#ifdef KORVO_ETCD_PROGRAM
#include "etcd_server.h"
#endif

#include <algorithm>

namespace {

using korvotest::expectAll;

#ifndef KORVO_WITH_ETCD
#ifdef KORVO_WITH_TABLES

TEST(Etcd, ABuildWithoutItSaysSo) {
  korvotest::write("any.rec", korvotest::portRecording().bytes);
  for (const char* const command :
       {"tables etcd://a:1/b/c", "get etcd://a:1/b/c t", "watch etcd://a:1/b/c t",
        "record etcd://a:1/b/c -o b", "replay any.rec etcd://a:1/b/c",
        "bridge unix:a etcd://a:1/b/c", "bridge etcd://a:1/b/c unix:a"}) {
    expectAll(command, 69, "",
              "korvo: this build of korvo knows no clusters of etcd: it was made without "
              "Korvo::EtcdTables, which needs gRPC (package libgrpc++-dev)\n");
  }
}

#endif
#elif defined(KORVO_ETCD_PROGRAM)

using etcdtest::Cluster;
using etcdtest::Variable;
using korvotest::Agent;
using korvotest::Background;
using korvotest::contentOf;
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

constexpr const char* rowsAtLast =
    R"({"type":7,"oid":1001,"row":{"speed":25000,"name":"eth0","tags":["core"],)"
    R"("net":"10.1.0.0/16"}})"
    "\n";

/// One server, and what is published on it.
class Etcd : public testing::Test {
 public:
  ~Etcd() override { server.tool("del --prefix korvo/"); }

 protected:
  static void SetUpTestSuite() {
    one = std::make_unique<Cluster>(1);
    one->waitUntilReady();
  }
  static void TearDownTestSuite() { one.reset(); }

  Etcd() {
    shell("rm -f *.sock *.rec");
    write("ports.rec", portRecording().bytes);
  }

  std::string key(const std::string& name) const { return "korvo/test/agent/" + name; }
  std::string valueOf(const std::string& name) const {
    const std::string text = server.tool("get --print-value-only " + key(name));
    return text.empty() ? "" : text.substr(0, text.size() - 1);
  }
  void put(const std::string& name, const std::string& value) const {
    write("value.txt", value);
    server.tool("put " + key(name) + " <value.txt");
  }
  /// The revision at which the key was written last.
  std::string revisionOf(const std::string& name) const {
    const std::string fields = server.tool("get -w fields " + key(name));
    const std::string title = "\"ModRevision\" : ";
    return std::to_string(std::stol(fields.substr(fields.find(title) + title.size())));
  }

  /// Publishes the recording there. With "--end" it goes when all is there.
  Background publish(const std::vector<std::string>& options) const {
    std::vector<std::string> words = {"replay", "ports.rec", address};
    words.insert(words.end(), options.begin(), options.end());
    return Background(words, "publisher");
  }
  void publishAllAndGo() const {
    EXPECT_EQ(korvo("replay ports.rec " + address + " --as-fast-as-possible --end").status, 0);
  }
  bool isPublished() const {
    return korvo("tables " + address).out.find("\nPublished by portAgent on ") != std::string::npos;
  }

  static inline std::unique_ptr<Cluster> one;
  const Cluster& server = *one;
  std::string address = server.address();
};

TEST_F(Etcd, TablesAreListed) {
  const Background publisher = publish({"--subscribers", "9"});
  ASSERT_TRUE(waitFor([&] { return isPublished(); })) << publisher.err();
  const std::string plain = R"( | sed -E 's/ on .*, process [0-9]+, [0-9a-f]+/ on H/')";
  const std::string revision = revisionOf("mark");
  expectOut("tables " + address + plain, "agent: 2 tables, batch 1, revision " + revision +
                                             "\n"
                                             "Published by portAgent on H\n"
                                             "\n"
                                             "table     rows  fingerprint  layout\n"
                                             "net/port     2  7c866ca7     type 7, 4 columns\n"
                                             "net/link     0  a4fb8089     type 2, 2 columns\n");
  const std::string masked = R"( | sed -E 's/"epoch":"[0-9a-f]{16}"/E/; s/ on .*, process )"
                             R"([0-9]+, [0-9a-f]+"/ on H"/')";
  expectOut(
      "tables --json " + address + masked,
      R"({"publisher":"agent",E,"sequence":1,"complete":true,"tables":[)"
      R"({"name":"net/port","rows":2,)"
      R"("fingerprint":"7c866ca71d2e186f0e9bbe7dbd99d5de062d1a66",)"
      R"("layout":"row 7 base 28 {\u000a  speed uint64_t @8\u000a  name string_t @16\u000a)"
      R"(  tags string_t[] @20\u000a  net IpGenPrefix @24\u000a}\u000a"},)"
      R"({"name":"net/link","rows":0,)"
      R"("fingerprint":"a4fb808961c3da73833c84c1512fd2d77dfbcd4d",)"
      R"("layout":"row 2 base 13 {\u000a  up bool @8\u000a  peer IpGenAddr @9\u000a}\u000a"}],)"
      R"("owner":"portAgent on H","revision":)" +
          revision + "}\n");
  const Outcome listed = korvo("tables --layouts " + address);
  EXPECT_TRUE(listed.out.ends_with("\n\n# net/port\n" + std::string(portLayout) + "\n# net/link\n" +
                                   linkLayout))
      << listed.out;
}

TEST_F(Etcd, RowsAndChangesAreShown) {
  Background publisher = publish({"--speed", "2", "--subscribers", "0"});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").status == 0; }));
  expectOut("get --json " + address + " net/port", rowsAtLast);
  expectOut("get " + address + " net/port --covers 10.1.2.3",
            " oid  speed  name  tags      net\n"
            "1001  25000  eth0  [\"core\"]  10.1.0.0/16\n");
  expectAll("get " + address + " net/port 7", 1, "", "korvo: no row of net/port has the oid 7\n");
  expectAll("get " + address + " net/prt", 69, "",
            "korvo: no table net/prt: agent has net/port, net/link\n");

  Background watch({"watch", "--changes", address, "net/port"}, "watch");
  Background json({"watch", "--json", address, "net/port"}, "json");
  ASSERT_TRUE(waitFor([&] { return json.out().find("current") != std::string::npos; }));
  EXPECT_EQ(publisher.end(SIGTERM), 0);
  // It lets go of its name at once.
  ASSERT_TRUE(waitFor([&] { return watch.err().find("is stale") != std::string::npos; }));
  publishAllAndGo();
  EXPECT_EQ(watch.end(SIGTERM), 0);
  EXPECT_EQ(json.end(SIGINT), 0);
  EXPECT_TRUE(watch.err().starts_with("korvo: net/port is stale: agent is not there\n"))
      << watch.err();
  // The rows came back as they were: nobody is told anything of them.
  EXPECT_EQ(watch.out(), "");
  EXPECT_EQ(json.out().substr(0, json.out().find("stale")),
            R"({"state":"loading","text":"nothing has come from the publisher yet"})"
            "\n"
            R"({"change":"added","oid":1001,"row":{"speed":25000,"name":"eth0","tags":["core"],)"
            R"("net":"10.1.0.0/16"}})"
            "\n"
            R"({"state":"current"})"
            "\n"
            R"({"state":")");
}

TEST_F(Etcd, RowsStayWithoutTheirPublisher) {
  publishAllAndGo();
  const Outcome listed = korvo("tables " + address);
  EXPECT_EQ(listed.status, 0);
  EXPECT_NE(listed.out.find("\nNobody publishes it: rows stay as they are.\n"), std::string::npos)
      << listed.out;
  expectAll("get --json " + address + " net/port", 0, rowsAtLast,
            "korvo: net/port is stale: agent is not there\n");
  expectAll("get " + address + " net/port 7", 1, "",
            "korvo: net/port is stale: agent is not there\n"
            "korvo: no row of net/port has the oid 7\n");
}

TEST_F(Etcd, WhatIsRecordedIsWhatASocketTells) {
  write("agent.rec", portRecording().bytes);
  const Agent agent(portRecording(), {"--as-fast-as-possible"});
  agent.waitForEnd();
  publishAllAndGo();
  EXPECT_EQ(korvo("record unix:agent.sock net/port net/link -o socket.rec --first 1").status, 0);
  EXPECT_EQ(korvo("record " + address + " net/port net/link -o etcd.rec --first 1").status, 0);
  // But for the publisher's name and the times.
  const auto lines = [](const std::string& file) {
    return shell("korvo replay --json " + file + " | sed 's/\"time\":\"[^\"]*\"//'").out;
  };
  EXPECT_EQ(lines("socket.rec"), lines("etcd.rec"));
  EXPECT_NE(lines("etcd.rec"), "");
  std::string socket = contentOf("socket.rec");
  std::string etcd = contentOf("etcd.rec");
  const std::size_t row = socket.find("eth0");
  ASSERT_NE(row, std::string::npos);
  EXPECT_NE(etcd.find(socket.substr(row - 40, 70)), std::string::npos);
}

TEST_F(Etcd, WhatIsNotThereIsTold) {
  const std::string head = "korvo: " + address + ": ";
  expectAll("tables " + address, 69, "", head + "nothing is published under korvo/test/agent/\n");
  expectAll("get " + address + " net/port", 69, "",
            head + "nothing is published under korvo/test/agent/\n");
  put("owner", "somebody");
  expectAll("tables " + address, 69, "", head + "somebody has not loaded its rows yet\n");
  put("mark", "none");
  expectAll("tables " + address, 69, "", head + "the mark of agent has another form\n");

  EXPECT_EQ(korvo("tables etcd://127.0.0.1:1,127.0.0.1:2/test/agent").status, 69);
  // Of several members one is enough.
  expectAll("tables etcd://127.0.0.1:1," + server.member(0) + "/test/nobody", 69, "",
            "korvo: etcd://127.0.0.1:1," + server.member(0) +
                "/test/nobody: nothing is published under korvo/test/nobody/\n");
}

TEST_F(Etcd, AddressesThatAreNoneAreMistakes) {
  for (const std::string& command :
       {std::string("tables etcd://nowhere"), std::string("get etcd://nowhere net/port"),
        std::string("watch etcd://nowhere net/port"),
        std::string("record etcd://nowhere -o no.rec"),
        std::string("replay ports.rec etcd://nowhere"),
        std::string("bridge etcd://nowhere unix:copy.sock"),
        std::string("bridge unix:nobody.sock etcd://nowhere")}) {
    expectAll(command, 64, "",
              "korvo: Not etcd://HOST:PORT[,...]/SYSTEM/PUBLISHER - (etcd://nowhere) (see korvo " +
                  command.substr(0, command.find(' ')) + " --help)\n");
  }
}

TEST_F(Etcd, StatesBetweenAreNotShown) {
  publishAllAndGo();
  const std::string mark = valueOf("mark");
  const std::string cut = revisionOf("mark");
  // Somebody came, and has not told a state.
  put("owner", "somebody");
  const Outcome claimed = korvo("tables " + address);
  EXPECT_NE(claimed.out.find("\nPublished by somebody, which has not loaded its rows yet\n"),
            std::string::npos)
      << claimed.out;
  // A batch of several transactions is under way.
  const auto partOf = [&](const std::string& ofCut) {
    std::string text = mark;
    const std::string numbers = "part 0 cut 0";
    return text.replace(text.find(numbers), numbers.size(), "part 1 cut " + ofCut);
  };
  put("mark", partOf(cut));
  const Outcome between = korvo("tables " + address);
  EXPECT_NE(between.out.find(": 2 tables, batch 1, revision " + cut + "\n"), std::string::npos)
      << between.out << between.err;
  server.compact();
  expectAll("tables " + address, 69, "", "korvo: " + address + ": the last state was compacted\n");
  put("mark", partOf("0"));
  expectAll("tables " + address, 69, "",
            "korvo: " + address + ": somebody has not written all its rows yet\n");
  put("mark", partOf(revisionOf("mark")));
  expectAll("tables " + address, 69, "", "korvo: " + address + ": the last state has no mark\n");

  // A layout that nobody understands.
  put("net/port/layout", "row of ports");
  put("mark", mark);
  EXPECT_NE(korvo("tables " + address).out.find("  not understood\n"), std::string::npos);
  EXPECT_EQ(korvo("get " + address + " net/port").status, 65);
  EXPECT_EQ(korvo("get " + address + " net/link 5").status, 0);
}

TEST_F(Etcd, StatesAreToldHoweverMuchOthersWriteAndForget) {
  publishAllAndGo();
  const std::string cut = revisionOf("mark");
  server.tool("put others/key value");
  server.compact();
  const Outcome listed = korvo("tables --timeout 5 " + address);
  EXPECT_NE(listed.out.find(": 2 tables, batch 1, revision " + cut + "\n"), std::string::npos)
      << listed.out << listed.err;
  EXPECT_EQ(korvo("get --json " + address + " net/port").out, rowsAtLast);
  server.tool("del others/key");
}

TEST_F(Etcd, LayoutsThatOthersWriteAreToldAndGoneOnFrom) {
  const Background publisher = publish({"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }));
  const std::string layout = valueOf("net/port/layout");
  Background watch({"watch", "--changes", address, "net/port"}, "watch");
  Background bridge({"bridge", address, "unix:copy.sock"}, "bridge");
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:copy.sock net/port").status == 0; }));
  ASSERT_TRUE(waitFor([&] { return korvo("tables --timeout 1 " + address).status == 0; }));
  put("net/port/layout", "row of ports");
  ASSERT_TRUE(waitFor([&] {
    return bridge.err().find("left out: its layout: ") != std::string::npos;
  })) << bridge.err();
  const std::string told = "expected a row type from 0 to 65535\n";
  ASSERT_TRUE(waitFor([&] {
    return watch.err().find("the layout of net/port: ") != std::string::npos &&
           watch.err().ends_with(told);
  })) << watch.err();
  EXPECT_EQ(watch.wait(), 65);
  put("net/port/layout", layout);
  ASSERT_TRUE(waitFor([&] { return bridge.err().ends_with("is current: 2 tables, 2 rows\n"); }))
      << bridge.err();
  EXPECT_EQ(bridge.end(SIGTERM), 0);
}

TEST_F(Etcd, UsersAreAskedForTheirPasswords) {
  publishAllAndGo();
  server.tool("user add root:top");
  server.tool("user grant-role root root");
  server.tool("auth enable");
  const Outcome unknown = korvo("tables " + address);
  EXPECT_EQ(unknown.status, 69);
  EXPECT_NE(unknown.err.find("user name is empty"), std::string::npos) << unknown.err;
  write("settings", "user = root\npassword = top\n");
  shell("chmod 600 settings");
  const Variable settings("KORVO_ETCD_SETTINGS", "settings");
  EXPECT_EQ(korvo("tables " + address).status, 0);
  EXPECT_EQ(korvo("get --json " + address + " net/port").out, rowsAtLast);
  {
    const Variable password("KORVO_ETCD_PASSWORD", "wrong");
    const Outcome wrong = korvo("tables " + address);
    EXPECT_EQ(wrong.status, 69);
    EXPECT_NE(wrong.err.find("authentication failed"), std::string::npos) << wrong.err;
    // Who waits says for what.
    Background bridge({"bridge", address, "unix:copy.sock"}, "bridge");
    Background replay({"replay", "ports.rec", address, "--as-fast-as-possible"}, "replay");
    const std::string fault = server.member(0) + ": etcdserver: authentication failed, ";
    ASSERT_TRUE(waitFor([&] { return bridge.err().ends_with("; it is waited for\n"); }));
    EXPECT_TRUE(bridge.err().starts_with("korvo: " + address + ": " + fault)) << bridge.err();
    ASSERT_TRUE(waitFor([&] { return replay.err().find(fault) != std::string::npos; }));
    EXPECT_EQ(bridge.end(SIGINT), 0);
    EXPECT_EQ(replay.end(SIGTERM), 0);
  }
  {
    const Variable ca("KORVO_ETCD_CA", "ports.rec");
    expectAll("tables " + address, 64, "",
              "korvo: No certificate or key, as PEM, is in it - (ports.rec) (see korvo tables "
              "--help)\n");
  }
  expectAll("tables etcd://root:top@" + server.member(0) + "/test/agent", 64, "",
            "korvo: A user does not belong into an address: KORVO_ETCD_SETTINGS names a file for "
            "it - (etcd://root:top@" +
                server.member(0) + "/test/agent) (see korvo tables --help)\n");
  server.tool("--user root:top auth disable");
}

// ---------------------------------------------------------------------------------------------
// Bridges

/// What a recording tells of tables and rows, in no order.
std::vector<std::string> recordsOf(const std::string& file) {
  const std::string bytes = contentOf(file);
  std::vector<std::string> records;
  for (std::size_t at = 16; at + 8 <= bytes.size();) {
    const std::size_t length = 4 + Korvo::loadField<std::uint32_t>(bytes.data() + at);
    const char type = bytes[at + 4];
    if (type == 2 || type == 4) records.push_back(bytes.substr(at, length));
    at += length;
  }
  std::sort(records.begin(), records.end());
  return records;
}

class Bridges : public Etcd {
 protected:
  static std::vector<std::string> published(const std::string& at) {
    const std::string file = "bridged.rec";
    shell("rm -f " + file);
    EXPECT_EQ(korvo("record " + at + " net/port net/link -o " + file + " --first 1").status, 0);
    return recordsOf(file);
  }
  static bool says(const Background& process, const std::string& text) {
    return waitFor([&] { return (process.out() + process.err()).find(text) != std::string::npos; });
  }
  /// The revisions of all keys of rows.
  std::string revisionsOfRows() const {
    std::string all;
    for (const char* const row : {"net/port/row/000003e9", "net/link/row/00000005"}) {
      all += revisionOf(row) + ' ';
    }
    return all;
  }
};

TEST_F(Bridges, LeadToAClusterAndBack) {
  const Agent agent(portRecording(), {"--subscribers", "2"});
  Background there({"bridge", "unix:agent.sock", address}, "there");
  ASSERT_TRUE(says(there, "korvo: portAgent is current: 2 tables, 2 rows\n")) << there.err();
  ASSERT_TRUE(waitFor([&] { return isPublished(); })) << there.err();
  Background back({"bridge", "--json", address, "unix:back.sock"}, "back");
  ASSERT_TRUE(says(back, "\"state\":\"current\"")) << back.out() << back.err();
  const Background second({"watch", "unix:agent.sock", "net/port"}, "second");
  agent.waitForEnd();
  // All changes come along, and what is gone is gone.
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:back.sock net/link 5").status == 0; }));
  const std::vector<std::string> expected = published("unix:agent.sock");
  ASSERT_EQ(expected.size(), 4U);
  EXPECT_EQ(published(address), expected);
  EXPECT_EQ(published("unix:back.sock"), expected);
  const std::string row = valueOf("net/port/row/000003e9");
  EXPECT_TRUE(std::ranges::any_of(expected, [&](const auto& r) { return r.ends_with(row); }));
  EXPECT_EQ(server.tool("get --keys-only " + key("net/port/row/000003ea")), "");

  EXPECT_EQ(back.end(SIGINT), 0);
  EXPECT_TRUE(back.out().ends_with("\"batches\":" + back.out().substr(back.out().rfind(':') + 1)));
  EXPECT_EQ(there.end(SIGTERM), 0);
  EXPECT_TRUE(there.err().ends_with(" batches\n")) << there.err();
  // The name is free at once.
  EXPECT_EQ(server.tool("get " + key("owner")), "");
}

TEST_F(Bridges, OutliveTheirSources) {
  auto agent = std::make_unique<Agent>(portRecording(), std::vector<std::string>{});
  agent->waitForEnd();
  Background bridge({"bridge", "unix:agent.sock", address}, "bridge");
  ASSERT_TRUE(says(bridge, "is current: 2 tables, 2 rows\n")) << bridge.err();
  ASSERT_TRUE(waitFor(
      [&] { return isPublished() && korvo("get " + address + " net/link 5").err.empty(); }));
  const std::string revisions = revisionsOfRows();
  Background watch({"watch", "--changes", address, "net/port"}, "watch");

  // Nobody takes rows for current that the source does not tell any more.
  agent->process->end(SIGKILL);
  ASSERT_TRUE(says(bridge, "korvo: net/port is stale: ")) << bridge.err();
  ASSERT_TRUE(waitFor([&] {
    return korvo("get " + address + " net/link 5").err.starts_with("korvo: net/link is stale: ");
  }));
  agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }))
      << bridge.err();
  EXPECT_EQ(watch.end(SIGTERM), 0);

  // Nor is anything written twice by the next bridge.
  EXPECT_EQ(bridge.end(SIGKILL), -SIGKILL);
  const std::string before = revisionsOfRows();
  Background second({"bridge", "unix:agent.sock", address}, "second");
  ASSERT_TRUE(says(second, "another publisher has the name agent: portAgent on ")) << second.err();
  server.tool("del " + key("owner"));  // as the end of its lease would
  ASSERT_TRUE(says(second, address + ": goes on\n")) << second.err();
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }));
  EXPECT_EQ(revisionsOfRows(), before);
  EXPECT_EQ(second.end(SIGTERM), 0);
  EXPECT_NE(revisions, "");
}

TEST_F(Bridges, OutliveTheirClusters) {
  publishAllAndGo();
  server.tool("put " + key("owner") + " nobody");
  Background bridge({"bridge", address, "unix:copy.sock"}, "bridge");
  // Rows that nobody publishes are passed on to nobody.
  ASSERT_TRUE(says(bridge, "korvo: net/port is stale: ")) << bridge.err();
  EXPECT_NE(korvo("tables unix:copy.sock").out.find("not all rows are there yet"),
            std::string::npos);
  EXPECT_EQ(korvo("get --timeout 1 unix:copy.sock net/port").status, 69);
  server.tool("del " + key("owner"));
  const Background publisher = publish({});
  ASSERT_TRUE(says(bridge, "agent is current: 2 tables, ")) << bridge.err();
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:copy.sock net/link 5").status == 0; }));
  Background watch({"watch", "--changes", "unix:copy.sock", "net/port"}, "watch");
  ASSERT_TRUE(waitFor([&] {
    return korvo("tables unix:copy.sock").out.find("1 subscriber") != std::string::npos;
  }));

  one->kill(0);
  ASSERT_TRUE(says(watch, "net/port is stale: ")) << watch.err();
  one->start(0);
  one->waitUntilReady();
  ASSERT_TRUE(says(watch, "net/port is current\n")) << watch.err() << bridge.err();
  EXPECT_EQ(watch.out(), "");
  EXPECT_EQ(watch.end(SIGTERM), 0);
  EXPECT_EQ(bridge.end(SIGTERM), 0);
}

TEST_F(Bridges, FollowTheTablesOfTheirSources) {
  auto agent = std::make_unique<Agent>(portRecording(), std::vector<std::string>{});
  agent->waitForEnd();
  Background bridge({"bridge", "-q", "unix:agent.sock", address}, "bridge");
  Background ports({"bridge", "-q", "unix:agent.sock", "unix:ports.sock", "net/port"}, "ports");
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }));
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:ports.sock net/port").status == 0; }));
  EXPECT_EQ(korvo("get unix:ports.sock net/link").status, 69);

  agent->process->end(SIGKILL);
  Recording other;
  other.publisher("portAgent")
      .table(0, "net/port", linkLayout)
      .table(1, "net/more", linkLayout)
      .row(0, 7, R"({"up":true})")
      .row(1, 8, R"({"up":false})")
      .mark(0);
  agent = std::make_unique<Agent>(other, std::vector<std::string>{});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/more 8").err.empty(); }));
  EXPECT_EQ(korvo("get --json " + address + " net/port").out,
            R"({"type":2,"oid":7,"row":{"up":true,"peer":null}})"
            "\n");
  EXPECT_EQ(korvo("get " + address + " net/link").status, 69);
  EXPECT_EQ(server.tool("get --prefix --keys-only " + key("net/link/")), "");
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:ports.sock net/port 7").status == 0; }));
  EXPECT_EQ(bridge.end(SIGTERM), 0);
  EXPECT_EQ(ports.end(SIGTERM), 0);
  EXPECT_EQ(bridge.err() + bridge.out() + ports.err() + ports.out(), "");
}

TEST_F(Bridges, WaitForTheirSources) {
  Background bridge({"bridge", "unix:agent.sock", "unix:copy.sock"}, "bridge");
  Background json({"bridge", "--json", "unix:agent.sock", "unix:json.sock"}, "json");
  const std::string fault =
      "unix:agent.sock: connect agent.sock: No such file or directory; it is waited for";
  ASSERT_TRUE(says(bridge, "korvo: " + fault + "\n")) << bridge.err();
  ASSERT_TRUE(says(json, R"({"state":"loading","text":")" + fault + "\"}\n")) << json.out();
  EXPECT_EQ(json.end(SIGTERM), 0);
  const Agent agent(portRecording(), {"--as-fast-as-possible"});
  ASSERT_TRUE(says(bridge, "is current: 2 tables, ")) << bridge.err();
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:copy.sock net/link 5").status == 0; }));
  EXPECT_EQ(bridge.end(SIGTERM), 0);
}

TEST_F(Bridges, WaitForTheTablesOfTheirSources) {
  Recording none;
  none.publisher("portAgent");
  auto agent = std::make_unique<Agent>(none, std::vector<std::string>{});
  Background all({"bridge", "unix:agent.sock", "unix:all.sock"}, "all");
  Background two({"bridge", "unix:agent.sock", "unix:two.sock", "net/link", "net/port"}, "two");
  ASSERT_TRUE(says(all, "korvo: portAgent has no tables; it is waited for\n")) << all.err();
  const std::string noLink = "korvo: no table net/link: portAgent has ";
  ASSERT_TRUE(says(two, noLink + "none; it is waited for\n")) << two.err();

  // Who named tables has none of them before all are there.
  agent->process->end(SIGKILL);
  Recording ports;
  ports.publisher("portAgent").table(0, "net/port", portLayout).row(0, 7, "{}").mark(0);
  agent = std::make_unique<Agent>(ports, std::vector<std::string>{});
  ASSERT_TRUE(says(all, "is current: 1 table, 1 row\n")) << all.err();
  ASSERT_TRUE(says(two, noLink + "net/port; it is waited for\n")) << two.err();
  EXPECT_EQ(korvo("tables unix:two.sock").status, 69);

  agent->process->end(SIGKILL);
  agent =
      std::make_unique<Agent>(portRecording(), std::vector<std::string>{"--as-fast-as-possible"});
  ASSERT_TRUE(says(all, "is current: 2 tables, ")) << all.err();
  ASSERT_TRUE(says(two, "is current: 2 tables, ")) << two.err();
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:two.sock net/link 5").status == 0; }));
  EXPECT_EQ(all.end(SIGTERM), 0);
  EXPECT_EQ(two.end(SIGINT), 0);
  // Each was said once.
  EXPECT_EQ(all.err().rfind("has no tables"), all.err().find("has no tables"));
  EXPECT_EQ(two.err().rfind(noLink + "net/port;"), two.err().find(noLink + "net/port;"));
}

TEST_F(Bridges, LeaveOutTablesThatTheyDoNotUnderstand) {
  const Background publisher = publish({"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }));
  const std::string layout = valueOf("net/port/layout");
  put("net/port/layout", "row of ports");
  Background bridge({"bridge", address, "unix:copy.sock"}, "bridge");
  ASSERT_TRUE(says(bridge, "korvo: net/port is left out: its layout: ")) << bridge.err();
  ASSERT_TRUE(says(bridge, "is current: 1 table, ")) << bridge.err();
  EXPECT_EQ(korvo("get unix:copy.sock net/link 5").status, 0);
  Background named({"bridge", address, "unix:named.sock", "net/link", "net/port"}, "named");
  ASSERT_TRUE(says(named, "is current: 1 table, ")) << named.err();
  // As soon as it is understood, it comes along.
  put("net/port/layout", layout);
  ASSERT_TRUE(says(bridge, "is current: 2 tables, ")) << bridge.err();
  ASSERT_TRUE(says(named, "is current: 2 tables, ")) << named.err();
  ASSERT_TRUE(waitFor([&] { return korvo("get unix:copy.sock net/port").status == 0; }));
  EXPECT_EQ(bridge.end(SIGTERM), 0);
}

TEST_F(Bridges, KeepWhatTheyLeaveOut) {
  const Background publisher = publish({"--as-fast-as-possible"});
  ASSERT_TRUE(waitFor([&] { return korvo("get " + address + " net/link 5").err.empty(); }));
  const std::string layout = valueOf("net/port/layout");
  const std::string mark = valueOf("mark");
  const std::string copy = server.address("copy");
  const auto row = [&] {
    return server.tool("get -w fields korvo/test/copy/net/port/row/000003e9 | grep ModRevision");
  };
  auto bridge =
      std::make_unique<Background>(std::vector<std::string>{"bridge", address, copy}, "bridge");
  ASSERT_TRUE(says(*bridge, "is current: 2 tables, ")) << bridge->err();
  ASSERT_TRUE(waitFor([&] { return korvo("get " + copy + " net/port").err.empty(); }));
  const std::string written = row();
  ASSERT_NE(written, "");

  // Whether it was there when the bridge began, or came later.
  const std::string kept = "korvo: no table net/port: copy has net/link\n";
  const auto isKept = [&] { return korvo("get " + copy + " net/port").err == kept; };
  put("net/port/layout", "row of ports");
  put("mark", mark);
  ASSERT_TRUE(says(*bridge, "korvo: net/port is left out: its layout: ")) << bridge->err();
  ASSERT_TRUE(waitFor(isKept)) << bridge->err();
  EXPECT_EQ(row(), written);
  EXPECT_EQ(bridge->end(SIGTERM), 0);
  bridge =
      std::make_unique<Background>(std::vector<std::string>{"bridge", address, copy}, "bridge");
  ASSERT_TRUE(says(*bridge, "is current: 1 table, ")) << bridge->err();
  ASSERT_TRUE(waitFor([&] { return korvo("get " + copy + " net/link 5").err.empty(); }));
  EXPECT_TRUE(isKept());
  EXPECT_EQ(row(), written);

  put("net/port/layout", layout);
  put("mark", mark);
  ASSERT_TRUE(says(*bridge, "is current: 2 tables, ")) << bridge->err();
  ASSERT_TRUE(waitFor([&] { return korvo("get " + copy + " net/port").err.empty(); }));
  EXPECT_EQ(row(), written);

  // What the source has no more goes, also if it was left out before.
  put("net/port/layout", "row of ports");
  put("mark", mark);
  ASSERT_TRUE(waitFor(isKept)) << bridge->err();
  const std::size_t ports = mark.find('\n') + 1;
  ASSERT_TRUE(mark.substr(0, mark.find('\n', ports)).ends_with(" net/port"));
  put("mark", mark.substr(0, ports) + mark.substr(mark.find('\n', ports) + 1));
  ASSERT_TRUE(waitFor([&] {
    return server.tool("get --prefix --keys-only korvo/test/copy/net/port").empty();
  })) << bridge->err();
  EXPECT_EQ(bridge->end(SIGTERM), 0);
}

TEST_F(Bridges, MistakesAreTold) {
  const Agent agent(portRecording(), {"--subscribers", "9"});
  expectAll("bridge unix:agent.sock unix:agent.sock", 64, "",
            "korvo: a bridge leads from one address to another one (see korvo bridge --help)\n");
  expectAll("bridge unix:agent.sock nowhere", 64, "",
            "korvo: Unknown address - (nowhere) (see korvo bridge --help)\n");
  EXPECT_EQ(korvo("bridge unix:agent.sock etcd://nowhere").status, 64);
  const Background first({"bridge", "unix:agent.sock", "unix:first.sock"}, "first");
  ASSERT_TRUE(says(first, "is current")) << first.err();
  expectAll("bridge unix:agent.sock unix:first.sock", 69, "",
            "korvo: unix:first.sock: bind first.sock: Address already in use\n");
  Background json({"bridge", "--json", "unix:agent.sock", "etcd://127.0.0.1:1/test/agent"}, "json");
  ASSERT_TRUE(says(json, "{\"problem\":\"127.0.0.1:1: ")) << json.out() << json.err();
  EXPECT_EQ(json.end(SIGTERM), 0);
}

#endif

}  // namespace
