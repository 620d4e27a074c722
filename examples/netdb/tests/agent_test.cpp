// The units of an agent: whom they wait for, what they trace.

#include <Korvo/Batch.h>
#include <Korvo/KorvoApi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

#include "agent.h"
#include "lookups.h"
#include "rowSource.h"

namespace {

using namespace netdb;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

[[maybe_unused]] const bool registered = (Korvo::sysnameIs("test"), true);

/// What `work` writes to standard error, line by line.
template <typename Work>
std::vector<std::string> errorLines(Work work) {
  testing::internal::CaptureStderr();
  work();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

std::ptrdiff_t turnsOf(const std::string& unit, const std::vector<std::string>& traces) {
  return std::count_if(traces.begin(), traces.end(), [&](const std::string& line) {
    return line.find(" invoking " + unit + "(unit: ") != line.npos;
  });
}

TEST(Lookups, YieldWhenTheirTimeSliceIsOverAndKeepTheirOrder) {
  PrefixTable table(prefixTable);
  Korvo::Batch batch(table);
  batch.put(makeRow(IpGenPrefix("10.0.0.0/8"), "AU", "file", 1, 1));
  batch.put(makeRow(IpGenPrefix("10.1.0.0/16"), "AU", "file", 1, 2));
  batch.commit();
  const std::vector<IpGenAddr> addrs = {IpGenAddr("10.1.2.3"), IpGenAddr("9.9.9.9"),
                                        IpGenAddr("10.2.2.2")};
  std::vector<IpGenPrefix> found;
  const std::vector<std::string> traces = errorLines([&] {
    Agent agent("lookup", true);
    lookUp(agent, table, addrs, [&](std::size_t number, const PrefixRow& hit) {
      EXPECT_EQ(number, found.size());
      found.push_back(hit.get<"prefix">());
      std::this_thread::sleep_for(std::chrono::milliseconds(11));  // longer than a time slice
    });
  });
  EXPECT_EQ(found, (std::vector<IpGenPrefix>{IpGenPrefix("10.1.0.0/16"), IpGenPrefix(),
                                             IpGenPrefix("10.0.0.0/8")}));
  EXPECT_EQ(turnsOf("lookups", traces), 3);
}

TEST(Lookups, OfNothingEndAtOnce) {
  Agent agent("lookup", false);
  PrefixTable table(prefixTable);
  lookUp(agent, table, {}, [](std::size_t, const PrefixRow&) { FAIL(); });
}

TEST(TraceChannel, WritesALineWithSystemAgentSourceAndFunction) {
  TraceChannel channel("feeder");
  std::ostringstream text;
  text << " marking 5";
  EXPECT_EQ(errorLines([&] { channel.trace(text, 9, "src/x.cpp", 12, "runnableIs"); }),
            std::vector<std::string>{"test feeder: src/x.cpp:12 runnableIs:  marking 5"});
}

TEST(Agent, WithoutTracesIsSilent) {
  PrefixTable table(prefixTable);
  const auto looksUp = [&](bool traced) {
    return errorLines([&] {
      Agent agent("lookup", traced);
      lookUp(agent, table, {IpGenAddr("10.1.2.3")}, [](std::size_t, const PrefixRow&) {});
    });
  };
  EXPECT_TRUE(looksUp(false).empty());
  EXPECT_EQ(turnsOf("lookups", looksUp(true)), 1);
}

}  // namespace
