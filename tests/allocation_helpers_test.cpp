// Addresses, texts, files and the registry when memory runs out: every allocation of every
// operation fails in turn, and what the operation works on is as before.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <Korvo/KoStrUtils.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/baseRow.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

// The host's own class.
class Korvo::RowOpsBase {};

namespace {

using namespace Korvo;
using alloctest::failEachAllocation;
using alloctest::Snapshot;

/// What operations change, and where they put their results.
struct Subject {
  IpGenAddr addr{"1.2.3.4"};
  IpGenPrefix net{"10.0.0.0/8"};
  std::vector<std::string> texts{"a text that was there before", "b"};
  std::string result = "a result that was there before";
};

Subject make() {
  return {};
}

Snapshot look(const Subject& subject) {
  Snapshot all;
  for (const IpGenAddr& addr : {subject.addr, subject.net.addr()}) {
    all.contents.append(reinterpret_cast<const char*>(addr.bytes()), 16) += ';';
  }
  all.contents += std::to_string(subject.net.mask()) + ';';
  for (const std::string& text : subject.texts) all.contents += text + ';';
  all.contents += subject.result;
  return all;
}

struct Operation {
  const char* name;
  std::function<void(Subject&)> run;
};

void expectFailures(const std::vector<Operation>& operations) {
  for (const auto& [name, run] : operations) {
    EXPECT_GT(failEachAllocation(name, make, run, look), 0U) << name << " allocates nothing";
  }
}

void expectNoAllocation(const std::vector<Operation>& operations) {
  for (const auto& [name, run] : operations) {
    EXPECT_EQ(alloctest::allocationsOf([&run = run, subject = make()]() mutable { run(subject); }),
              0U)
        << name;
  }
}

// -------------------------------------------------------------------------------------------------
// Addresses and types

const std::string noAddress = "this is not an address, and longer than a short string";

TEST(AllocationFailures, OfRefusedAddresses) {
  const std::string notNested = "10.0.0.1/8/and more that is no prefix at all";
  expectFailures({
      {"v4", [](Subject&) { IpAddr{noAddress}; }},
      {"v6", [](Subject&) { Ip6Addr{noAddress}; }},
      {"either", [](Subject& s) { s.addr = IpGenAddr(noAddress); }},
      {"two gaps", [](Subject& s) { s.result = expandV6Addr("1::2::3"); }},
      {"prefix", [](Subject& s) { s.net = IpGenPrefix("10.0.0.x/8"); }},
      {"prefix with host bits", [](Subject& s) { s.net = IpGenPrefix("10.0.0.1/8"); }},
      {"prefix without length", [](Subject& s) { s.net = IpGenPrefix("10.0.0.0"); }},
      {"prefix with three parts", [=](Subject& s) { s.net = IpGenPrefix(notNested); }},
      {"prefix too long", [](Subject& s) { s.net = IpGenPrefix("10.0.0.0/33"); }},
      {"another family", [](Subject& s) { s.net.addrIs(IpGenAddr("::1")); }},
      {"length with host bits", [](Subject& s) { s.net.maskIs(3); }},
      {"family", [](Subject& s) { s.net.afIs(ipv6_); }},
  });
}

TEST(AllocationFailures, OfPrinting) {
  // A stream tells what its buffer throws only when asked to.
  const auto print = [](Subject& s, const auto& value) {
    std::ostringstream out;
    out.exceptions(std::ios_base::badbit);
    out << value;
    s.result = std::move(out).str();
  };
  const IpGenAddr v6("2001:db8::1");
  expectFailures({
      {"v6", [=](Subject& s) { print(s, Ip6Addr(v6.bytes())); }},
      {"either", [=](Subject& s) { print(s, v6); }},
      {"none", [=](Subject& s) { print(s, IpGenAddr()); }},
      {"prefix", [=](Subject& s) { print(s, IpGenPrefix(v6, 128)); }},
      {"quoted text", [=](Subject& s) { print(s, FMT<std::string>(noAddress)); }},
      {"expanded", [](Subject& s) { s.result = expandV6Addr("2001:db8::1"); }},
  });
}

TEST(AllocationFailures, OfTypes) {
  const std::string unknown = "a type that nobody knows";
  expectFailures({
      {"no type", [=](Subject&) { korvoCppTypeNameToType(unknown); }},
      {"no number", [](Subject&) { getKorvoTypeName(static_cast<KorvoTypes>(99)); }},
      {"null row", [](Subject&) { static_cast<void>(BaseRow().rowBuf()); }},
  });
}

TEST(AllocationFailures, WhatAddressesNeedNoMemoryFor) {
  const std::string v4 = "100.100.100.100";
  const std::string v6 = "2001:db8:1111:2222:3333:4444:5555:6666";
  const std::string net = "2001:db8:1111:2222:3333:4444::/96";
  const std::string type = "IpGenPrefix";
  expectNoAllocation({
      {"parsing v4", [&](Subject& s) { s.addr = IpGenAddr(v4); }},
      {"parsing v6", [&](Subject& s) { s.addr = IpGenAddr(v6); }},
      {"parsing a prefix", [&](Subject& s) { s.net = IpGenPrefix(net); }},
      {"asking whether it is one", [&](Subject&) { validV4Addr(v4) || validV6Addr(v6); }},
      {"comparing",
       [](Subject& s) {
         const IpGenPrefix copy = s.net;
         if (copy < s.net || !copy.contains(s.net) || !(copy == s.net)) s.net.reset();
       }},
      {"hashing", [](Subject& s) { s.net.maskIs(8 + std::hash<IpGenPrefix>()(s.net) % 1); }},
      {"naming a type", [&](Subject&) { getKorvoTypeName(korvoCppTypeNameToType(type)); }},
  });
}

// -------------------------------------------------------------------------------------------------
// Texts

TEST(AllocationFailures, OfTexts) {
  const std::string text =
      " select \"a, b\" from /* a comment */ t, u where  x = 'y \\n' into T named q1; ";
  const std::string escaped = "a text longer than a short string, \\\"escaped\\\"";
  const std::string path = "/a/folder/with a name longer than a short string.tar.gz";
  using Utils = KoStrUtils;
  expectFailures({
      {"escapeString", [=](Subject& s) { s.result = Korvo::escapeString(text); }},
      {"escapeString of quotes", [=](Subject& s) { s.result = Utils::escapeString(text); }},
      {"deescapeString", [=](Subject& s) { s.result = deescapeString(escaped); }},
      {"processArrayString", [=](Subject& s) { s.texts = processArrayString(text); }},
      {"canonicalize", [=](Subject& s) { s.result = Utils::canonicalize(text); }},
      {"extractQueryName",
       [](Subject& s) {
         s.result = Utils::extractQueryName("named a_name_beyond_a_short_string");
       }},
      {"extractOutputType",
       [](Subject& s) {
         s.result = Utils::extractOutputType("into a_type_beyond_a_short_string");
       }},
      {"replaceMultiBlanks", [=](Subject& s) { s.result = Utils::replaceMultiBlanks(text); }},
      {"trim", [=](Subject& s) { s.result = Utils::trim(text); }},
      {"replaceCtrl", [=](Subject& s) { s.result = Utils::replaceCtrl(text); }},
      {"baseName",
       [=](Subject& s) {
         std::string whole = path;
         s.result = Utils::baseName(whole);
       }},
      {"addTrailingSlash",
       [](Subject& s) {
         s.result.shrink_to_fit();
         while (s.result.size() < s.result.capacity()) s.result += 'x';
         Utils::addTrailingSlash(s.result);
         s.result.resize(10);
       }},
      {"dropTail", [=](Subject& s) { s.result = Utils::dropTail(path, ".gz"); }},
      {"keepTail", [=](Subject& s) { s.result = Utils::keepTail(path, "/a"); }},
      {"stoDouble of no number", [=](Subject&) { Utils::stoDouble(path); }},
  });
}

// The cryptographic library tells only that it failed, and keeps for good what it has made by then.
// Its very first use does not survive a failure.
TEST(AllocationFailures, OfADigest) {
  const std::string expected = "a9993e364706816aba3e25717850c26c9cd0d89d";
  ASSERT_EQ(KoStrUtils::sha1("abc"), expected);
  unsigned failing = 0;
  for (const auto mode : {alloctest::Failing::once, alloctest::Failing::fromThenOn}) {
    for (unsigned n = 0, failures = 1; failures != 0; ++n) {
      std::string digest;
      try {
        const alloctest::FailureScope scope(n, mode);
        failures = 1;
        digest = KoStrUtils::sha1("abc");
        failures = scope.failures();
      } catch (const std::bad_alloc&) {
        ++failing;
      } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "SHA-1 is not available from the cryptographic library");
        ++failing;
      }
      EXPECT_TRUE(digest.empty() || digest == expected) << digest;
      EXPECT_EQ(KoStrUtils::sha1("abc"), expected);
    }
  }
  EXPECT_GT(failing, 1U);
}

TEST(AllocationFailures, OfAppendingPieces) {
  const std::string text =
      "one piece that is longer than a short string,,b,another one that is longer than that,";
  const std::string quoted = "'a quoted text longer than a short string'";
  expectFailures({
      {"splitString", [=](Subject& s) { splitString(text, ',', s.texts); }},
      {"split", [=](Subject& s) { KoStrUtils::split(text, ',', s.texts); }},
      {"splitString of an element", [](Subject& s) { splitString(s.texts[0], ' ', s.texts); }},
      {"split of an element", [](Subject& s) { KoStrUtils::split(s.texts[0], 'x', s.texts); }},
      {"extractEnquotedString",
       [=](Subject& s) { KoStrUtils::extractEnquotedString(s.texts, quoted, 0); }},
  });
}

TEST(AllocationFailures, WhatTextsNeedNoMemoryFor) {
  const std::string number = "123456789012345678901234567890";
  expectNoAllocation({
      {"numbers",
       [&](Subject&) {
         if (KoStrUtils::stoDouble(number) < 0.0 || KoStrUtils::stoUint64_t(number) == 0) return;
       }},
      {"comparing", [&](Subject&) { KoStrUtils::iequals(number, noAddress); }},
  });
}

// -------------------------------------------------------------------------------------------------
// Files. Removal is tested where it is confined.

TEST(AllocationFailures, OfCopyingAFileHurtNothing) {
  const std::string from = testing::TempDir() + "korvo_allocation_from";
  const std::string to = testing::TempDir() + "korvo_allocation_to";
  std::ofstream(from) << "content";
  {
    const alloctest::FailureScope scope(0, alloctest::Failing::fromThenOn);
    EXPECT_EQ(copyFile(from, to), 0);
    EXPECT_EQ(scope.failures(), 0U);
  }
  std::ifstream copy(to);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(copy), {}), "content");
  std::remove(from.c_str());
  std::remove(to.c_str());
}

// -------------------------------------------------------------------------------------------------
// The registry

const std::string oldName = "the name of the system before it changed";
const std::string newName = "the name of the system after it changed, which is a longer one";

/// The registry's state, as far as it can be seen.
struct Registry {
  std::shared_ptr<int> factoryState = std::make_shared<int>(0);
  std::string result;
};

Registry makeRegistry() {
  sysnameIs("");
  sysnameIs(oldName);
  Registry state;
  rowOpsFactoryIs([counter = state.factoryState](const std::string& name, unsigned char) {
    ++*counter;
    return name.empty() ? nullptr : std::make_shared<RowOpsBase>();
  });
  return state;
}

Snapshot lookAtRegistry(const Registry& state) {
  return {sysname() + ';' + std::to_string(state.factoryState.use_count()) + ';' + state.result,
          {}};
}

class RegistryAllocationFailures : public testing::Test {
 protected:
  ~RegistryAllocationFailures() override {
    sysnameIs("");
    rowOpsFactoryIs(nullptr);
  }
};

TEST_F(RegistryAllocationFailures, OfTheDatabasesOwnTables) {
  const std::string table = "korvo/koCtrl/input/query";
  // Its tables are completed at first use: when that fails, the next use completes them.
  unsigned failing = 0;
  for (unsigned n = 0;; ++n) {
    const alloctest::FailureScope scope(n, alloctest::Failing::fromThenOn);
    try {
      EXPECT_TRUE(isInfrastructureTable(table));
      break;
    } catch (const std::bad_alloc&) {
      ++failing;
    }
  }
  EXPECT_GE(failing, 3U);
  EXPECT_GT(failEachAllocation(
                "isInfrastructureTable", makeRegistry,
                [=](Registry& s) { s.result = isInfrastructureTable(table) ? "yes" : "no"; },
                lookAtRegistry),
            0U);
  EXPECT_EQ(alloctest::allocationsOf([] { initializeInfrastructurePrefixes(); }), 0U);
}

TEST_F(RegistryAllocationFailures, OfTheSystemName) {
  EXPECT_GT(failEachAllocation(
                "sysname", makeRegistry, [](Registry& s) { s.result = sysname(); }, lookAtRegistry),
            0U);
  EXPECT_GT(failEachAllocation(
                "sysnameIs", makeRegistry, [](Registry&) { sysnameIs(newName); }, lookAtRegistry),
            0U);
}

TEST_F(RegistryAllocationFailures, OfRowOperations) {
  EXPECT_GT(failEachAllocation(
                "getRowOps", makeRegistry,
                [](Registry& s) { s.result = getRowOps("x", 1) != nullptr ? "made" : "none"; },
                [](const Registry& s) {
                  return Snapshot{s.result, {}};
                }),
            0U);
  EXPECT_GT(failEachAllocation(
                "rowOpsFactoryIs", makeRegistry,
                [](Registry&) {
                  const std::string large(100, 'x');
                  rowOpsFactoryIs([large](const std::string&, unsigned char) { return nullptr; });
                },
                lookAtRegistry),
            0U);
}

// The last, since what is registered stays. Every callback gets copies of both names: the failure
// of one counts as the callback's, and the new name stands by then.
TEST_F(RegistryAllocationFailures, OfCallbacks) {
  static int told = 0;
  static unsigned long lengths = 0;
  const auto callback = [](const std::string& from, const std::string& to) {
    ++told;
    lengths = from.size() + to.size();
  };
  unsigned failing = 0;
  for (unsigned n = 0; n == failing; ++n) {
    const std::function<void(const std::string&, const std::string&)> given = callback;
    const long before = alloctest::liveBlocks();
    const alloctest::FailureScope scope(n, alloctest::Failing::once);
    try {
      EXPECT_EQ(registerSysnameCallback("", given), 1);
    } catch (const std::bad_alloc&) {
      ++failing;
    }
    if (n < failing) {
      EXPECT_EQ(alloctest::liveBlocks(), before);
    }
  }
  EXPECT_GT(failing, 0U);

  failing = 0;
  bool toldOfAll = false;
  for (unsigned n = 0; !toldOfAll; ++n) {
    makeRegistry();
    told = 0;
    try {
      const alloctest::FailureScope scope(n, alloctest::Failing::once);
      sysnameIs(newName);
      toldOfAll = true;
    } catch (const std::bad_alloc&) {
      ++failing;
      EXPECT_EQ(told, 0);
    }
    EXPECT_TRUE(sysname() == oldName || sysname() == newName) << sysname();
    told = 0;
    sysnameIs(oldName + newName);
    EXPECT_EQ(told, 1);
  }
  EXPECT_GT(failing, 0U);
  EXPECT_GT(lengths, 0U);
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
