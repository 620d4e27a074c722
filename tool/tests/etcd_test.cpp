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
using korvotest::shell;
using korvotest::waitFor;
using korvotest::write;

constexpr const char* rowsAtLast =
    R"({"type":7,"oid":1001,"row":{"speed":25000,"name":"eth0","tags":["core"],)"
    R"("net":"10.1.0.0/16"}})"
    "\n";

/// One server, and what is published on it.
class Etcd : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    one = std::make_unique<Cluster>(1);
    one->waitUntilReady();
  }
  static void TearDownTestSuite() { one.reset(); }

  Etcd() {
    shell("rm -f agent.sock *.rec");
    write("ports.rec", portRecording().bytes);
  }
  ~Etcd() override { server.tool("del --prefix korvo/"); }

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
            R"({"state":"loading","text":"not connected"})"
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
  expectAll("tables etcd://nowhere", 69, "",
            "korvo: etcd://nowhere: Not etcd://HOST:PORT[,...]/SYSTEM/PUBLISHER - "
            "(etcd://nowhere)\n");
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
  }
  expectAll("tables etcd://root:top@" + server.member(0) + "/test/agent", 69, "",
            "korvo: etcd://root:top@" + server.member(0) +
                "/test/agent: A user does not belong into an address: KORVO_ETCD_SETTINGS names a "
                "file for it - (etcd://root:top@" +
                server.member(0) + "/test/agent)\n");
  server.tool("--user root:top auth disable");
}

#endif

}  // namespace
