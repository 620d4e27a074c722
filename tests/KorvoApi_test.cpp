// The process-wide registry. Its state is never reset, so each test of it runs in a process of its
// own: a forked child that exits with 0 if nothing failed in it.

#include <Korvo/KorvoApi.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Korvo {

/// The host's part.
class RowOpsBase {
 public:
  explicit RowOpsBase(std::string table) : table_(std::move(table)) {}
  const std::string& table() const { return table_; }

 private:
  std::string table_;
};

namespace {

// What static initialisers of another translation unit than the library's see.
struct AtLoad {
  AtLoad() {
    nameAtLoad = sysname();
    knownAtLoad = isInfrastructureTable("korvo/koCtrl/input/client");
    isolatedAtLoad = requireSysnameChangeNotifications();
  }
  // Runs at exit, when the library's own static objects may be gone already.
  ~AtLoad() {
    if (!isInfrastructureTable("korvo/koCtrl/client")) std::abort();
    sysnameIs(sysname() + "-late");
  }
  std::string nameAtLoad;
  bool knownAtLoad;
  bool isolatedAtLoad;
} atLoad;

/// Runs the test's body in a child process and fails with what failed there.
void inOwnProcess(const std::function<void()>& body) {
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// ---------------------------------------------------------------------------------------------
// Load

TEST(KorvoApi, IsUsableFromStaticInitialisers) {
  EXPECT_EQ(atLoad.nameAtLoad, "");
  EXPECT_TRUE(atLoad.knownAtLoad);
  EXPECT_FALSE(atLoad.isolatedAtLoad);
}

// ---------------------------------------------------------------------------------------------
// System name

using Change = std::pair<std::string, std::string>;
using Changes = std::vector<Change>;

TEST(KorvoApi, CallbacksAreToldOfRenamesOnly) {
  inOwnProcess([] {
    Changes changes;
    EXPECT_EQ(registerSysnameCallback("any",
                                      [&](const std::string& from, const std::string& to) {
                                        EXPECT_EQ(sysname(), to);
                                        changes.emplace_back(from, to);
                                      }),
              1);
    EXPECT_EQ(sysname(), "");
    sysnameIs("");
    EXPECT_TRUE(changes.empty());
    sysnameIs("alpha");
    EXPECT_EQ(sysname(), "alpha");
    EXPECT_TRUE(changes.empty());
    sysnameIs("alpha");
    EXPECT_TRUE(changes.empty());
    sysnameIs("beta");
    EXPECT_EQ(changes, (Changes{{"alpha", "beta"}}));
    sysnameIs("");
    EXPECT_EQ(changes, (Changes{{"alpha", "beta"}, {"beta", ""}}));
    sysnameIs("gamma");
    EXPECT_EQ(changes.size(), 2U);
    EXPECT_EQ(sysname(), "gamma");
  });
}

TEST(KorvoApi, CallbacksRunInTheOrderOfTheirRegistrationWhateverTheirKeys) {
  inOwnProcess([] {
    std::string order;
    const auto noting = [&](char name) {
      return [&order, name](const std::string&, const std::string&) { order += name; };
    };
    EXPECT_EQ(registerSysnameCallback("same", noting('1')), 1);
    EXPECT_EQ(registerSysnameCallback("same", noting('2')), 2);
    EXPECT_EQ(registerSysnameCallback("", noting('3')), 3);
    sysnameIs("alpha");
    sysnameIs("beta");
    EXPECT_EQ(order, "123");
    sysnameIs("gamma");
    EXPECT_EQ(order, "123123");
  });
}

TEST(KorvoApi, EachCallGetsItsOwnCopies) {
  inOwnProcess([] {
    std::vector<Change> seen;
    std::vector<const void*> addresses;
    const auto spoiling = [&](const std::string& from, const std::string& to) {
      seen.emplace_back(from, to);
      addresses.push_back(&from);
      addresses.push_back(&to);
      const_cast<std::string&>(from) = "spoilt";
      const_cast<std::string&>(to) = "spoilt";
    };
    registerSysnameCallback("", spoiling);
    registerSysnameCallback("", spoiling);
    std::string name = "alpha";
    sysnameIs(name);
    name = "beta";
    sysnameIs(name);
    EXPECT_EQ(seen, (Changes{{"alpha", "beta"}, {"alpha", "beta"}}));
    EXPECT_EQ(sysname(), "beta");
    EXPECT_EQ(name, "beta");
  });
}

TEST(KorvoApi, ACallbackMayRegisterOthersForLaterChanges) {
  inOwnProcess([] {
    std::string order;
    int registered = 0;
    registerSysnameCallback("", [&](const std::string&, const std::string&) {
      const std::string big(100, '.');  // held by the closure while the list grows
      for (int i = 0; i < 100; ++i) {
        registered = registerSysnameCallback(
            "", [&order](const std::string&, const std::string&) { order += 'n'; });
      }
      order += 'a' + static_cast<char>(big.size() - 100);
    });
    registerSysnameCallback("", [&](const std::string&, const std::string&) { order += 'b'; });
    sysnameIs("alpha");
    sysnameIs("beta");
    EXPECT_EQ(order, "ab");
    EXPECT_EQ(registered, 102);
    order.clear();
    sysnameIs("gamma");
    EXPECT_EQ(order, "ab" + std::string(100, 'n'));
    EXPECT_EQ(registered, 202);
  });
}

TEST(KorvoApi, ACallbackMayRenameAgain) {
  inOwnProcess([] {
    Changes changes;
    std::string name = "beta";
    registerSysnameCallback("", [&](const std::string&, const std::string& to) {
      if (to != "beta") return;
      name = "changed";  // what the caller passed by reference
      sysnameIs("gamma");
    });
    registerSysnameCallback("", [&](const std::string& from, const std::string& to) {
      changes.emplace_back(from, to);
    });
    sysnameIs("alpha");
    sysnameIs(name);
    EXPECT_EQ(changes, (Changes{{"beta", "gamma"}, {"alpha", "beta"}}));
    EXPECT_EQ(sysname(), "gamma");
  });
}

TEST(KorvoApi, AnEmptyCallbackThrowsAtTheNextRename) {
  inOwnProcess([] {
    int before = 0;
    int after = 0;
    registerSysnameCallback("", [&](const std::string&, const std::string&) { ++before; });
    EXPECT_EQ(registerSysnameCallback("", nullptr), 2);
    EXPECT_EQ(registerSysnameCallback("", [&](const std::string&, const std::string&) { ++after; }),
              3);
    sysnameIs("alpha");
    EXPECT_THROW(sysnameIs("beta"), std::bad_function_call);
    EXPECT_EQ(sysname(), "beta");
    EXPECT_EQ(before, 1);
    EXPECT_EQ(after, 0);
  });
}

TEST(KorvoApi, WhatACallbackThrowsEndsTheRound) {
  inOwnProcess([] {
    int before = 0;
    int after = 0;
    registerSysnameCallback("", [&](const std::string&, const std::string&) { ++before; });
    registerSysnameCallback("", [&](const std::string&, const std::string& to) {
      if (to == "beta") throw std::runtime_error("not beta");
    });
    registerSysnameCallback("", [&](const std::string&, const std::string&) { ++after; });
    sysnameIs("alpha");
    EXPECT_THROW(sysnameIs("beta"), std::runtime_error);
    EXPECT_EQ(sysname(), "beta");
    EXPECT_EQ(before, 1);
    EXPECT_EQ(after, 0);
    sysnameIs("gamma");
    EXPECT_EQ(before, 2);
    EXPECT_EQ(after, 1);
  });
}

// ---------------------------------------------------------------------------------------------
// Isolation

TEST(KorvoApi, AProcessIsIsolatedOnceItSaysSo) {
  inOwnProcess([] {
    EXPECT_FALSE(requireSysnameChangeNotifications());
    runMeInIsolatedDatabase();
    EXPECT_TRUE(requireSysnameChangeNotifications());
    runMeInIsolatedDatabase();
    sysnameIs("alpha");
    EXPECT_TRUE(requireSysnameChangeNotifications());
  });
}

TEST(KorvoApi, AnEmptyNameIsNoName) {
  inOwnProcess([] {
    sysnameIs("alpha");
    EXPECT_FALSE(requireSysnameChangeNotifications());
    sysnameIs("");
    runMeInIsolatedDatabase();
    EXPECT_TRUE(requireSysnameChangeNotifications());
  });
}

testing::Matcher<const std::string&> assertionLine(const std::string& signature,
                                                   const std::string& condition) {
  return testing::MatchesRegex("[^:]*: src/KorvoApi\\.cpp:[0-9]+: " + signature + ": Assertion `" +
                               condition + "' failed\\.\n");
}

TEST(KorvoApiDeathTest, IsolationComesBeforeTheName) {
  const auto late = [] {
    sysnameIs("alpha");
    runMeInIsolatedDatabase();
  };
  EXPECT_EXIT(
      late(), testing::KilledBySignal(SIGABRT),
      assertionLine("void Korvo::runMeInIsolatedDatabase\\(\\)", "_sysname_\\.empty\\(\\)"));
}

// ---------------------------------------------------------------------------------------------
// Row operations

TEST(KorvoApiDeathTest, RowOperationsNeedAFactory) {
  const auto line = assertionLine("Korvo::RowOps_p_t Korvo::getRowOps\\(const string&, uint8_t\\)",
                                  "rowOpsFactory_ != __null");
  EXPECT_EXIT(getRowOps("t", 0), testing::KilledBySignal(SIGABRT), line);
  const auto removed = [] {
    rowOpsFactoryIs([](const std::string&, unsigned char) { return nullptr; });
    rowOpsFactoryIs(nullptr);
    getRowOps("t", 0);
  };
  EXPECT_EXIT(removed(), testing::KilledBySignal(SIGABRT), line);
}

TEST(KorvoApi, RowOperationsComeFromTheFactoryEachTime) {
  inOwnProcess([] {
    std::vector<std::pair<std::string, int>> asked;
    rowOpsFactoryIs([&](const std::string& table, unsigned char selector) -> RowOps_p_t {
      asked.emplace_back(table, selector);
      if (table.empty()) return nullptr;
      return std::make_shared<RowOpsBase>(table);
    });
    EXPECT_TRUE(asked.empty());
    const RowOps_p_t first = getRowOps("t", 3);
    const RowOps_p_t second = getRowOps("t", 255);
    EXPECT_EQ(first->table(), "t");
    EXPECT_NE(first, second);
    EXPECT_EQ(getRowOps("", 0), nullptr);
    EXPECT_EQ(asked, (std::vector<std::pair<std::string, int>>{{"t", 3}, {"t", 255}, {"", 0}}));
  });
}

TEST(KorvoApi, TheResultIsHandedOnAsItStands) {
  inOwnProcess([] {
    const auto shared = std::make_shared<RowOpsBase>("t");
    rowOpsFactoryIs([&](const std::string&, unsigned char) { return shared; });
    EXPECT_EQ(getRowOps("a", 0), shared);
    EXPECT_EQ(getRowOps("b", 1), shared);
    EXPECT_EQ(shared.use_count(), 1);
  });
}

TEST(KorvoApi, ASecondFactoryReplacesTheFirst) {
  inOwnProcess([] {
    struct Last {
      ~Last() {
        // Destroyed when the new one is in place.
        if (alive) *seen = getRowOps("from the old one's end", 0)->table();
      }
      std::string* seen;
      bool alive = true;
    };
    std::string seen;
    auto last = std::make_shared<Last>();
    last->seen = &seen;
    rowOpsFactoryIs([last](const std::string&, unsigned char) -> RowOps_p_t {
      return std::make_shared<RowOpsBase>("first");
    });
    last.reset();
    EXPECT_EQ(getRowOps("t", 0)->table(), "first");
    rowOpsFactoryIs([](const std::string&, unsigned char) -> RowOps_p_t {
      return std::make_shared<RowOpsBase>("second");
    });
    EXPECT_EQ(seen, "second");
    EXPECT_EQ(getRowOps("t", 0)->table(), "second");
  });
}

TEST(KorvoApi, AFactoryMayInstallItsSuccessorWhileItRuns) {
  inOwnProcess([] {
    bool gone = false;
    struct Capture {
      ~Capture() { *gone = true; }
      bool* gone;
      std::string name;
    };
    auto capture = std::make_shared<Capture>();
    capture->gone = &gone;
    capture->name = "a name that is longer than a short string";
    rowOpsFactoryIs([capture, &gone](const std::string& table, unsigned char) -> RowOps_p_t {
      rowOpsFactoryIs([](const std::string&, unsigned char) -> RowOps_p_t {
        return std::make_shared<RowOpsBase>("successor");
      });
      EXPECT_EQ(getRowOps("inner", 0)->table(), "successor");
      EXPECT_FALSE(gone);
      return std::make_shared<RowOpsBase>(capture->name + table);
    });
    capture.reset();
    EXPECT_EQ(getRowOps("t", 0)->table(), "a name that is longer than a short stringt");
    EXPECT_TRUE(gone);
    EXPECT_EQ(getRowOps("t", 0)->table(), "successor");
  });
}

TEST(KorvoApi, AFactoryMayRemoveItselfAndThrow) {
  inOwnProcess([] {
    const std::string captured = "a name that is longer than a short string";
    rowOpsFactoryIs([captured](const std::string&, unsigned char) -> RowOps_p_t {
      rowOpsFactoryIs(nullptr);
      throw std::invalid_argument(captured);
    });
    EXPECT_THROW(getRowOps("t", 0), std::invalid_argument);
    rowOpsFactoryIs([](const std::string&, unsigned char) { return nullptr; });
    EXPECT_EQ(getRowOps("t", 0), nullptr);
  });
}

/// What a factory counts in itself it finds again at the next call.
TEST(KorvoApi, AFactoryKeepsItsState) {
  inOwnProcess([] {
    rowOpsFactoryIs([count = 0](const std::string&, unsigned char) mutable -> RowOps_p_t {
      return std::make_shared<RowOpsBase>(std::to_string(++count));
    });
    EXPECT_EQ(getRowOps("t", 0)->table(), "1");
    EXPECT_EQ(getRowOps("t", 0)->table(), "2");
  });
}

TEST(KorvoApi, WhatTheFactoryThrowsReachesTheCaller) {
  inOwnProcess([] {
    rowOpsFactoryIs([](const std::string& table, unsigned char) -> RowOps_p_t {
      throw std::invalid_argument(table);
    });
    EXPECT_THROW(getRowOps("t", 0), std::invalid_argument);
    EXPECT_THROW(getRowOps("t", 0), std::invalid_argument);
  });
}

// ---------------------------------------------------------------------------------------------
// Infrastructure tables

const std::vector<std::string> kTables = {
    "korvo/metadata/koClass",
    "korvo/metadata/koTable",
    "korvo/metadata/koColumn",
    "korvo/metadata/koConstraint",
    "korvo/metadata/koType",
    "korvo/metadata/koDefault",
    "korvo/metadata/koRowOps",
    "korvo/metadata/SystemDescription",
    "korvo/koCtrl/query",
    "korvo/koCtrl/query_pub",
    "korvo/koCtrl/query_param_types",
    "korvo/koCtrl/subscription",
    "korvo/koCtrl/publication",
    "korvo/koCtrl/query_instance",
    "korvo/koCtrl/query_parameter",
    "korvo/koCtrl/QueryStatus",
    "korvo/koCtrl/client",
    "korvo/koCtrl/client_instance",
    "korvo/koCtrl/table_instance",
    "korvo/External/Subscription",
    "korvo/External/Publication",
};

TEST(KorvoApi, KnowsItsTablesAndTheirInputForms) {
  ASSERT_EQ(kTables.size(), 21U);
  for (const std::string& table : kTables) {
    EXPECT_TRUE(isInfrastructureTable(table)) << table;
    std::string input = table;
    input.insert(input.rfind('/'), "/input");
    EXPECT_TRUE(isInfrastructureTable(input)) << input;
  }
}

TEST(KorvoApi, KnowsNoNameThatIsNearlyOne) {
  for (const std::string& table : kTables) {
    std::string input = table;
    input.insert(input.rfind('/'), "/input");
    for (const std::string& name : {table, input}) {
      for (std::size_t i = 0; i < name.size(); ++i) {
        std::string near = name;
        near[i] = static_cast<char>(near[i] ^ 0x20);
        EXPECT_FALSE(isInfrastructureTable(near)) << near;
        near = name;
        near.erase(i, 1);
        EXPECT_FALSE(isInfrastructureTable(near)) << near;
        near = name;
        near.insert(i, 1, 'x');
        EXPECT_FALSE(isInfrastructureTable(near)) << near;
      }
      EXPECT_FALSE(isInfrastructureTable(name + "/")) << name;
      EXPECT_FALSE(isInfrastructureTable(name + "x")) << name;
      EXPECT_FALSE(isInfrastructureTable("/" + name)) << name;
    }
  }
}

TEST(KorvoApi, OtherNames) {
  const std::string names[] = {
      "",
      "/",
      "query",
      "korvo",
      "korvo/koCtrl",
      "korvo/koCtrl/",
      "korvo/koCtrl/queries",
      "korvo/koCtrl/input",
      "korvo/koCtrl/input/",
      "korvo/koCtrl/input/queries",
      "korvo/metadata/inputs/koTable",
      "korvo/metadata/Xinput/koTable",
      "korvo/metadata/input/input/koTable",
      "korvo/metadata/input/koCtrl/koTable",
      "korvo/metadata/input/query",  // a table of another directory
      "korvo/koCtrl/koTable",
      "/input/x",   // the last '/' before position 7
      "x/input/x",  // and at it
      "input/query",
      "/input/query",
      "//input/query",
      "user/input/client",
      "korvo/koctrl/query",
      "korvo/koCtrl/INPUT/query",
      "korvo/koCtrl/input/query/input/query",
  };
  for (const std::string& name : names) EXPECT_FALSE(isInfrastructureTable(name)) << name;
  const std::string zero("korvo/koCtrl/query\0x", 20);
  EXPECT_FALSE(isInfrastructureTable(zero));
}

TEST(KorvoApi, PrefixesCanBeInitialisedDirectlyAndAgain) {
  inOwnProcess([] {
    initializeInfrastructurePrefixes();
    EXPECT_TRUE(isInfrastructureTable("korvo/External/input/Publication"));
    initializeInfrastructurePrefixes();
    EXPECT_TRUE(isInfrastructureTable("korvo/External/input/Publication"));
    EXPECT_FALSE(isInfrastructureTable("korvo/external/input/Publication"));
  });
}

}  // namespace
}  // namespace Korvo
