// What goes wrong with servers of etcd, and what it is called.

#include "etcd_test_support.h"

namespace {

using namespace etcdtest;

bool says(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

/// Certificates for 127.0.0.1, made for the test.
class Certificates {
 public:
  Certificates() {
    make("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=ca -keyout ca.key -out ca.pem");
    make("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=other -keyout o.key -out other.pem");
    for (const std::string name : {"server", "agent"}) {
      make("req -newkey rsa:2048 -nodes -subj /CN=" + name + " -keyout " + name + ".key -out " +
           name + ".csr");
      std::ofstream(folder_.file("ext")) << "subjectAltName=IP:127.0.0.1\n";
      make("x509 -req -days 2 -in " + name + ".csr -CA ca.pem -CAkey ca.key -CAcreateserial " +
           "-extfile ext -out " + name + ".pem");
    }
  }
  std::string file(const std::string& name) const { return folder_.file(name); }

 private:
  void make(const std::string& words) const {
    const std::string command = "cd " + folder_.file("") + " && openssl " + words + " >log 2>&1";
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
  }
  Folder folder_;
};

TEST(EtcdFaults, TlsWithCertificatesOfBothSides) {
  const Certificates made;
  Cluster cluster(1,
                  {"--cert-file", made.file("server.pem"), "--key-file", made.file("server.key"),
                   "--trusted-ca-file", made.file("ca.pem"), "--client-cert-auth"},
                  "tls");
  {
    const Variable ca("KORVO_ETCD_CA", made.file("ca.pem"));
    const Variable certificate("KORVO_ETCD_CERTIFICATE", made.file("agent.pem"));
    const Variable key("KORVO_ETCD_KEY", made.file("agent.key"));
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one")});
    Copy copy(cluster.address());
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << copy.text() << publisher.problem();
  }
  // Another one's signature, and no certificate of ours.
  {
    const Variable ca("KORVO_ETCD_CA", made.file("other.pem"));
    Copy copy(cluster.address());
    ASSERT_TRUE(runUntil([&] { return !copy.subscriber.status().lastReason.empty(); }, copy));
    runFor(milliseconds(1000), copy);
    EXPECT_EQ(copy.ports.state(), TableState::loading) << copy.text();
    EXPECT_LT(copy.subscriber.status().connections, 20U);
  }
  {
    const Variable ca("KORVO_ETCD_CA", made.file("ca.pem"));
    Copy copy(cluster.address());
    runFor(milliseconds(1000), copy);
    EXPECT_EQ(copy.ports.state(), TableState::loading) << copy.text();
    EXPECT_FALSE(copy.subscriber.status().lastReason.empty());
  }
}

TEST(EtcdFaults, UserAndPasswordComeFromAFile) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  for (const std::string words :
       {"user add root:top", "user grant-role root root", "role add korvo",
        "role grant-permission korvo readwrite --prefix=true korvo/test/", "user add agent:secret",
        "user grant-role agent korvo", "auth enable"}) {
    cluster.tool(words);
  }
  const Folder folder;
  const auto settings = [&](const std::string& text) {
    std::ofstream(folder.file("settings")) << text;
    std::filesystem::permissions(folder.file("settings"), std::filesystem::perms::owner_read |
                                                              std::filesystem::perms::owner_write);
    return Variable("KORVO_ETCD_SETTINGS", folder.file("settings"));
  };
  {
    const Variable file = settings("# who we are\nuser = agent\npassword = secret\n");
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one")});
    Copy copy(cluster.address());
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << copy.text() << publisher.problem();

    // Another system is not this user's.
    const std::string other = "etcd://" + cluster.members() + "/other/agent";
    Publisher elsewhere(other);
    Copy reader(other);
    ASSERT_TRUE(runUntil([&] { return says(elsewhere.problem(), "permission denied"); }, elsewhere))
        << elsewhere.problem();
    ASSERT_TRUE(runUntil(
        [&] { return says(reader.subscriber.status().lastReason, "permission denied"); }, reader))
        << reader.text();
  }
  {
    const Variable file = settings("user = agent\npassword = wrong\n");
    Publisher publisher(cluster.address());
    ASSERT_TRUE(
        runUntil([&] { return says(publisher.problem(), "authentication failed"); }, publisher))
        << publisher.problem();
  }
  Publisher nobody(cluster.address());
  ASSERT_TRUE(runUntil([&] { return says(nobody.problem(), "user name is empty"); }, nobody))
      << nobody.problem();
}

TEST(EtcdFaults, AServerWithoutSpaceIsToldAndWaitedFor) {
  Cluster cluster(1, {"--quota-backend-bytes", "1000000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::uint64_t before = engine()->counters().retried;
  for (int i = 0; i < 120 && publisher.problem().empty(); ++i) {
    publisher.put({port(2, std::string(30000, static_cast<char>('a' + i % 26)), i + 1)});
    runFor(milliseconds(20), publisher, copy);
  }
  ASSERT_TRUE(says(publisher.problem(), "database space exceeded")) << publisher.problem();
  runFor(milliseconds(2000), publisher, copy);
  EXPECT_TRUE(says(publisher.problem(), "database space exceeded")) << publisher.problem();
  EXPECT_LT(engine()->counters().retried - before, 20U) << "asked in a tight loop";

  // Operators make room.
  cluster.compact();
  cluster.tool("defrag");
  cluster.tool("alarm disarm");
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

TEST(EtcdFaults, RequestsThatTheServerRefusesAreMadeSmaller) {
  Cluster cluster(1, {"--max-txn-ops", "16", "--max-request-bytes", "100000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  publisher.putGeneration(1, 1000);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  EXPECT_TRUE(copy.isWhole);
  std::vector<Port> large;
  for (oid_t oid = 1; oid <= 10; ++oid) large.push_back(port(oid, std::string(30000, 'x')));
  publisher.put(large);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

TEST(EtcdFaults, ARowThatNoServerTakesIsTold) {
  Cluster cluster(1, {"--max-request-bytes", "20000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, std::string(30000, 'x'))});
  ASSERT_TRUE(runUntil([&] { return says(publisher.problem(), "too large"); }, publisher))
      << publisher.problem();
  const std::uint64_t before = engine()->counters().retried;
  runFor(milliseconds(1000), publisher);
  EXPECT_LT(engine()->counters().retried - before, 10U) << "asked in a tight loop";
}

TEST(EtcdFaults, TransactionsThatAreSentAgainAreMadeOnce) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  const auto before = engine()->counters();
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  int generation = 0;
  const auto change = [&] {
    publisher.put({port(1, "one", ++generation)});
    runFor(milliseconds(3), publisher, copy);
  };
  // The server is held up while transactions are under way, for longer than they are waited for.
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 50; ++i) change();
    cluster.stop(0);
    for (int i = 0; i < 800; ++i) change();
    cluster.resume(0);
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << copy.text() << publisher.problem();
  }
  ASSERT_TRUE(
      runUntil([&] { return publisher.publisher.subscribers().at(0).lag == 0; }, publisher));
  const auto after = engine()->counters();
  const std::uint64_t again = after.retried - before.retried + after.recognised - before.recognised;
  EXPECT_GT(again, 0U);
  // Each transaction writes the mark, once.
  const std::string fields = cluster.tool("get korvo/test/agent/mark -w fields");
  EXPECT_TRUE(says(
      fields, "\"Version\" : " + std::to_string(after.transactions - before.transactions) + "\n"))
      << fields << after.transactions - before.transactions << " transactions, "
      << after.retried - before.retried << " sent again, " << after.recognised - before.recognised
      << " found to be made";
}

TEST(EtcdFaults, AnotherClusterAtTheAddressIsAnotherHistory) {
  auto first = std::make_unique<Cluster>(1);
  first->waitUntilReady();
  Publisher publisher(first->address());
  publisher.put({port(1, "one"), port(2, "two")});
  Copy copy(first->address());
  ASSERT_TRUE(
      runUntil([&] { return copy.equals(publisher) && copy.changes == 2; }, publisher, copy))
      << copy.text();
  first->kill(0);
  first->forget(0);
  first->start(0);
  first->waitUntilReady();
  publisher.put({port(2, "zwei")});
  const std::size_t told = copy.changes;
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  runFor(milliseconds(100), publisher, copy);  // readers are told in their own turns
  EXPECT_EQ(copy.changes, told + 1);
  EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
}

TEST(EtcdFaults, ARestoredCopyOfTheClusterIsBroughtUpToDate) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one"), port(2, "two")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::string saved = cluster.folder().file("saved");
  cluster.tool("snapshot save " + saved);
  publisher.remove({1});
  publisher.put({port(3, "three")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  cluster.kill(0);
  cluster.restore(0, saved);
  cluster.start(0);
  cluster.waitUntilReady();
  ASSERT_TRUE(runUntil([&] { return !copy.isCurrent(); }, publisher, copy)) << copy.text();
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  const std::string rows = cluster.tool("get --prefix --keys-only korvo/test/agent/net/port/row/");
  EXPECT_FALSE(says(rows, "00000001")) << rows;
  EXPECT_TRUE(says(rows, "00000003")) << rows;
}

// The library that shifts clocks and the address sanitizer do not start together.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVO_CLOCKS_STAY
#endif
#endif
#ifndef KORVO_CLOCKS_STAY
/// In a process of its own, whose clock of the day goes to where a file says.
TEST(EtcdFaults, AClockThatJumpsDoesNoHarm) {
  const std::string name = "EtcdFaults.AClockThatJumpsDoesNoHarm";
  const char* const clock = std::getenv("KORVO_TEST_CLOCK");
  if (clock == nullptr) {
    const std::string library = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
    ASSERT_TRUE(std::filesystem::exists(library)) << "package libfaketime";
    const Folder folder;
    std::ofstream(folder.file("clock")) << "+0";
    const Variable preload("LD_PRELOAD", library);
    const Variable order("ASAN_OPTIONS", "verify_asan_link_order=0");
    const Variable file("FAKETIME_TIMESTAMP_FILE", folder.file("clock"));
    const Variable cache("FAKETIME_NO_CACHE", "1");
    const Variable steady("FAKETIME_DONT_FAKE_MONOTONIC", "1");
    const Variable self("KORVO_TEST_CLOCK", folder.file("clock"));
    Program child({"/proc/self/exe", "--gtest_filter=" + name}, folder.file("log"));
    const int status = child.wait();
    EXPECT_EQ(status, 0) << std::ifstream(folder.file("log")).rdbuf();
    return;
  }
  unsetenv("LD_PRELOAD");  // servers look at the machine's clock
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  for (const char* const offset : {"+1000000", "-1000000", "+3600"}) {
    std::ofstream(clock) << offset;
    publisher.put({port(2, offset)});
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
    cluster.kill(0);
    runFor(milliseconds(500), publisher, copy);
    EXPECT_FALSE(copy.isCurrent());
    publisher.put({port(3, offset)});
    cluster.start(0);
    cluster.waitUntilReady();
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << offset << ' ' << copy.text() << publisher.problem();
  }
}
#endif

}  // namespace
