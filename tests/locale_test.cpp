// Texts that the library makes itself are the same whatever the global locale is: one that groups
// digits and writes a decimal comma changes no byte of them.

#include <Korvo/KoStrUtils.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/Scheduler.h>
#include <Korvo/rowCheck.h>

#include <gtest/gtest.h>

#include <clocale>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

/// The system's own leak: it never frees the path that LOCPATH gives it.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:argz_add_sep";
}

namespace {

using namespace Korvo;

/// 1.234.567,5 and words for the truth values.
class Grouping : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\1\2\3"; }
  std::string do_truename() const override { return "wahr"; }
  std::string do_falsename() const override { return "falsch"; }
};

using Inner = RowLayout<12345, Column<"numbers", std::uint64_t>, Column<"text", std::string>>;
using Layout = RowLayout<54321, Column<"u64", std::uint64_t>, Column<"i32", std::int32_t>,
                         Column<"real", double>, Column<"single", float>, Column<"flag", bool>,
                         Column<"v4", IpAddr>, Column<"v6", Ip6Addr>, Column<"text", std::string>,
                         Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
                         Column<"nets", std::vector<IpGenPrefix>>, Column<"inner", Nested<Inner>>>;

template <typename Action>
std::string messageOf(const Action& action) {
  try {
    action();
  } catch (const KoBaseException& e) {
    return std::string(e.name()) + ": " + e.what();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "nothing was thrown";
}

class Recorder : public Velto::DebugChannel {
 public:
  Recorder() { levelMaskIs(~0U); }
  void trace(std::ostringstream& text, unsigned int, const char*, unsigned int,
             const char*) override {
    all += text.str() + '\n';
  }
  std::string all;
};

/// Every text that the library makes without a stream of the caller's.
std::vector<std::string> texts() {
  std::vector<std::string> all;
  TableRow<Layout> row;
  row.create(4000000001U);
  all.push_back(row.toString());
  row.set<"u64">(18446744073709551615U);
  row.set<"i32">(-1234567);
  row.set<"real">(1234567.5);
  row.set<"single">(-0.25F);
  row.set<"flag">(true);
  row.set<"v4">(IpAddr("10.200.30.4"));
  row.set<"v6">(Ip6Addr("2001:db8::ffff"));
  row.set<"text">("Grüße\n\xFF");
  row.set<"addr">(IpGenAddr("192.168.100.200"));
  row.set<"net">(IpGenPrefix("2001:db8::/100"));
  row.set<"nets">({IpGenPrefix("10.0.0.0/24"), IpGenPrefix()});
  TableRow<Inner> inner;
  inner.create(1000000);
  inner.set<"numbers">(1000000);
  row.set<"inner">(inner);
  all.push_back(row.toString());
  all.push_back(row.toJson());
  all.push_back(row.get<"inner">().toString());
  all.push_back(SubRowReference().toString());

  const RowFault fault{RowFaultKind::overlap, 12345};
  all.push_back(fault.text());

  all.push_back(messageOf([] { IpAddr("1000000"); }));
  all.push_back(messageOf([] { IpGenPrefix("10.0.0.1/8"); }));
  all.push_back(messageOf([] { IpGenPrefix("10.0.0.0/33000"); }));
  all.push_back(messageOf([&] {
    byte_t received[2000] = {0xFF, 0x7F};
    row.adopt(received, sizeof received);
  }));
  all.push_back(messageOf([&] { row.set<"text">(std::string(40000, 'x')); }));
  all.push_back(messageOf([&] { row.columnOffset("1234567"); }));
  all.push_back(messageOf([] { korvoCppTypeNameToType("1234567"); }));
  all.push_back(messageOf([] { getKorvoTypeName(static_cast<KorvoTypes>(1234567)); }));
  all.push_back(messageOf([] { static_cast<void>(BaseRow().rowBuf()); }));

  all.push_back(KoStrUtils::sha1("1234567.5"));
  all.push_back(expandV6Addr("2001:db8::1234"));
  all.push_back(Korvo::escapeString("1234567\t\"Grüße\""));
  all.push_back(KoStrUtils::canonicalize("select 1234567.5 /* 1 */ \"ä b\""));

  // Traces: counts, identities, a time limit.
  Recorder recorder;
  struct Unit : Schedulable {
    using Schedulable::Schedulable;
    void run(bool) override {}
  };
  const auto scheduler = std::make_shared<Scheduler>("s");
  scheduler->debugChannelIs(&recorder, false);
  std::vector<std::unique_ptr<Unit>> units;
  for (int i = 0; i < 1500; ++i) {
    units.push_back(std::make_unique<Unit>("u", scheduler));
    units.back()->clientReadyIs(true);
    recorder.all.clear();
    units.back()->runnableIs(true);
  }
  // The identities differ from run to run.
  all.push_back(recorder.all.substr(recorder.all.find("  adding")));
  recorder.all.clear();
  scheduler->run(1200, 1234567.5, true);
  all.push_back(recorder.all);
  Unit disabled("1234567");
  disabled.disabledIs(true);
  all.push_back(messageOf([&] { disabled.invoke(true); }));
  scheduler->debugChannelIs(nullptr, false);
  return all;
}

class GlobalLocale {
 public:
  explicit GlobalLocale(const std::locale& locale) : before_(std::locale::global(locale)) {}
  ~GlobalLocale() {
    std::locale::global(before_);
    std::setlocale(LC_ALL, "C");
  }
  GlobalLocale(const GlobalLocale&) = delete;
  GlobalLocale& operator=(const GlobalLocale&) = delete;

 private:
  std::locale before_;
};

const std::locale grouping(std::locale::classic(), new Grouping);

TEST(Locale, TheOneOfTheseTestsGroupsDigits) {
  const GlobalLocale global(grouping);
  std::ostringstream out;
  out << 1234567 << ' ' << 1.5 << ' ' << std::boolalpha << true;
  ASSERT_EQ(out.str(), "1.234.56.7 1,5 wahr");
}

TEST(Locale, WhatTheTextsAre) {
  const std::vector<std::string> all = texts();
  EXPECT_EQ(all[0], "len = 73, type = 54321, oid = 4000000001");
  EXPECT_NE(all[2].find("\"u64\":18446744073709551615,\"i32\":-1234567,\"real\":1234567.5,"
                        "\"single\":-0.25,\"flag\":true,\"v4\":\"10.200.30.4\""),
            std::string::npos)
      << all[2];
  EXPECT_EQ(all[5], "two values share a byte (at byte 12345)");
  EXPECT_NE(all[9].find("header says 32767 bytes, received 2000"), std::string::npos) << all[9];
}

TEST(Locale, TextsDoNotDependOnTheGlobalLocale) {
  const std::vector<std::string> expected = texts();
  const GlobalLocale global(grouping);
  EXPECT_EQ(texts(), expected);
}

TEST(Locale, TextsDoNotDependOnAGlobalLocaleOfTheSystem) {
  const std::vector<std::string> expected = texts();
  bool anyFound = false;
  for (const char* name : {"de_DE.UTF-8", "de_DE.ISO-8859-1", "tr_TR.UTF-8", "tr_TR.ISO-8859-9"}) {
    std::locale locale;
    try {
      locale = std::locale(name);
    } catch (const std::runtime_error&) {
      continue;
    }
    anyFound = true;
    const GlobalLocale global(locale);
    EXPECT_EQ(texts(), expected) << name;
  }
  if (!anyFound) GTEST_SKIP() << "the system has none of these locales";
}

TEST(Locale, AnInserterUsesTheStreamAsItStands) {
  std::ostringstream out;
  out.imbue(grouping);
  TableRow<Inner> row;
  row.create(1234567);
  out << row;
  EXPECT_EQ(out.str(), "len = 2.0, type = 12.34.5, oid = 1.234.56.7");
}

}  // namespace
