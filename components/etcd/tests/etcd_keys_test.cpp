// What stands in the cluster, and addresses and settings. Without a server.

#include <Korvo/EtcdTables.h>
#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "../src/EtcdAddress.h"
#include "../src/EtcdKeys.h"

namespace {

using Korvo::detail::EtcdAddress;
using Korvo::detail::EtcdKeys;
using Korvo::detail::EtcdMark;
using Korvo::detail::EtcdSettings;

TEST(EtcdEngine, RefusesOptionsOutOfRange) {
  using std::chrono::seconds;
  for (const seconds lease : {seconds(1), seconds(3601)}) {
    EXPECT_THROW(Korvo::EtcdEngine({.lease = lease}), Korvo::KoInvalidArgument);
  }
  EXPECT_THROW(Korvo::EtcdEngine({.mostOperations = 1}), Korvo::KoInvalidArgument);
  const Korvo::EtcdEngine engine({.lease = seconds(2), .mostOperations = 2});
  EXPECT_EQ(engine.counters().transactions, 0U);
}

TEST(EtcdKeys, RowsStandUnderTheirTablesAndOids) {
  const EtcdKeys keys("korvo/net/agent/");
  EXPECT_EQ(keys.row("net/port", 42), "korvo/net/agent/net/port/row/0000002a");
  EXPECT_EQ(keys.row("net/port", 0xFFFFFFFF), "korvo/net/agent/net/port/row/ffffffff");
  EXPECT_EQ(keys.layout("net/port"), "korvo/net/agent/net/port/layout");
  EXPECT_EQ(keys.mark(), "korvo/net/agent/mark");
  EXPECT_EQ(keys.owner(), "korvo/net/agent/owner");
  EXPECT_EQ(EtcdKeys::endOf("korvo/net/agent/"), "korvo/net/agent0");
}

// Rows of "a/row" would stand among those of "a".
TEST(EtcdKeys, NamesOfTablesAreOneLineAndNoPlaceOfRows) {
  for (const std::string name : {"port", "net/port", "row", "net/row-1", "net/rows/port", "ä ö"}) {
    EXPECT_TRUE(EtcdKeys::mayName(name)) << name;
  }
  for (const std::string name : {"", "net/row", "net/row/port", "/row", "net\nport", "a\x7f"}) {
    EXPECT_FALSE(EtcdKeys::mayName(name)) << name;
  }
}

TEST(EtcdKeys, KeysOfRowsAreKnown) {
  const EtcdKeys keys("korvo/net/agent/");
  for (const Korvo::oid_t oid : {0U, 1U, 0x2AU, 0xFFFFFFFFU}) {
    const std::string key = keys.row("a/row/b", oid);
    const auto row = keys.rowOf(key);
    ASSERT_TRUE(row) << key;
    EXPECT_EQ(row->table, "a/row/b");
    EXPECT_EQ(row->oid, oid);
  }
  for (const std::string key :
       {"korvo/net/agent/mark", "korvo/net/agent/net/port/layout", "korvo/net/agent/p/row/2a",
        "korvo/net/agent/p/row/0000002A", "korvo/net/agent/p/row/0000002g",
        "korvo/net/agent/p/row/00000002a", "korvo/net/other/p/row/0000002a",
        "korvo/net/agent/p/rows/0000002a", "", "korvo/net/agent/"}) {
    EXPECT_FALSE(keys.rowOf(key)) << key;
  }
}

TEST(EtcdKeys, MarksAreReadAsTheyAreWritten) {
  EtcdMark mark;
  mark.history = 0xFEDCBA9876543210;
  mark.sequence = 7;
  mark.part = 3;
  mark.cut = 99;
  mark.batches = 12;
  mark.tables = {{"net/port", 5, 0xABC}, {"a name", 0, 0}, {"kept name", 0, 0, true}};
  const std::string text = mark.encode();
  EXPECT_EQ(text,
            "korvo 1 history fedcba9876543210 sequence 7 part 3 cut 99 batches 12\n"
            "5 0000000000000abc net/port\n"
            "0 0000000000000000 a name\n"
            "kept kept name\n");
  const auto read = EtcdMark::decode(text);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->encode(), text);
  EXPECT_EQ(read->tables.size(), 3U);
  ASSERT_NE(read->find("a name"), nullptr);
  EXPECT_EQ(read->find("kept name"), nullptr);
  EXPECT_EQ(read->absence("agent", "kept name"),
            "agent keeps what is there of table kept name, and does not tell it for now");
  EXPECT_EQ(read->find("name"), nullptr);
  EXPECT_EQ(read->absence("agent", "name"), "agent has no table name");
  // Each shorter text is none, but where a line ends.
  for (std::size_t length = 0; length < text.size(); ++length) {
    const bool isWhole = length != 0 && text[length - 1] == '\n';
    EXPECT_EQ(EtcdMark::decode(text.substr(0, length)).has_value(), isWhole) << length;
  }
  EXPECT_FALSE(EtcdMark::decode("korvo 2" + text.substr(7)));
  EXPECT_FALSE(EtcdMark::decode("other 1" + text.substr(7)));
}

TEST(EtcdAddress, NamesMembersSystemAndPublisher) {
  const EtcdAddress one("etcd://127.0.0.1:2379/net/agent");
  EXPECT_EQ(one.members, std::vector<std::string>{"127.0.0.1:2379"});
  EXPECT_EQ(one.prefix(), "korvo/net/agent/");
  const EtcdAddress three("etcd://a:1,b:65535,[::1]:3/net/agent");
  EXPECT_EQ(three.members, (std::vector<std::string>{"a:1", "b:65535", "[::1]:3"}));
  for (const std::string text :
       {"", "etcd:", "etcd://", "etcd://a:1", "etcd://a:1/net", "etcd://a:1/net/",
        "etcd://a:1//agent", "etcd://a:1/net/agent/more", "etcd://a/net/agent",
        "etcd://a:/net/agent", "etcd://a:0/net/agent", "etcd://a:65536/net/agent",
        "etcd://a:x/net/agent", "etcd://a:1,/net/agent", "etcd://:1/net/agent", "unix:/run/agent",
        "etcd://a:1/n t/agent", "etcd://user:word@a:1/net/agent"}) {
    EXPECT_THROW(EtcdAddress{text}, Korvo::KoInvalidArgument) << text;
  }
}

class Settings : public testing::Test {
 protected:
  Settings() {
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no folder");
  }
  ~Settings() override {
    unsetenv("KORVO_ETCD_SETTINGS");
    unsetenv("KORVO_ETCD_USER");
    unlink(path().c_str());
    rmdir(folder_.c_str());
  }
  std::string path() const { return folder_ + "/settings"; }
  EtcdSettings read(const std::string& text,
                    std::filesystem::perms rights = std::filesystem::perms::owner_read |
                                                    std::filesystem::perms::owner_write) const {
    std::ofstream(path()) << text;
    std::filesystem::permissions(path(), rights);
    setenv("KORVO_ETCD_SETTINGS", path().c_str(), 1);
    return EtcdSettings::fromEnvironment();
  }

 private:
  std::string folder_ = "/tmp/korvo_settings_XXXXXX";
};

TEST_F(Settings, ComeFromAFileAndThenTheEnvironment) {
  EtcdSettings all = read("# a comment\n\nuser = agent\npassword= a = b \nca =/ca.pem\n");
  EXPECT_EQ(all.user, "agent");
  EXPECT_EQ(all.password, "a = b");
  EXPECT_EQ(all.ca, "/ca.pem");
  EXPECT_TRUE(all.wantsTls());
  read("user = agent\n");
  Korvo::EtcdEngine().check("etcd://a:1/net/agent");
  setenv("KORVO_ETCD_USER", "other", 1);
  EXPECT_EQ(EtcdSettings::fromEnvironment().user, "other");
}

TEST_F(Settings, OfAnotherFormAreRefusedWithoutTheirValue) {
  try {
    read("pasword = secret\n");
    FAIL();
  } catch (const Korvo::KoInvalidArgument& error) {
    EXPECT_EQ(std::string(error.what()).find("secret"), std::string::npos) << error.what();
    EXPECT_NE(std::string(error.what()).find("pasword"), std::string::npos) << error.what();
  }
  EXPECT_THROW(read("user\n"), Korvo::KoInvalidArgument);
  EXPECT_THROW(
      read("user = a\n", std::filesystem::perms::owner_read | std::filesystem::perms::others_read),
      Korvo::KoInvalidArgument);
  // Who checks an address learns it, too, and that a file is not there.
  const Korvo::EtcdEngine engine;
  EXPECT_THROW(engine.check("etcd://a:1/net"), Korvo::KoInvalidArgument);
  read("ca = /nowhere/at/all\n");
  EXPECT_THROW(engine.check("etcd://a:1/net/agent"), Korvo::KoInvalidArgument);
  setenv("KORVO_ETCD_SETTINGS", "/nowhere/at/all", 1);
  EXPECT_THROW(engine.check("etcd://a:1/net/agent"), Korvo::KoInvalidArgument);
  EXPECT_THROW(EtcdSettings::fromEnvironment(), Korvo::KoInvalidArgument);
}

}  // namespace
