// Several threads at once: everything but a shared stream or a shared changing value may be used
// from any thread.

#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "address_test_support.h"

namespace {

using namespace Korvo;

/// Calls `work` with the thread's number in several threads that start together.
template <typename Work>
void inThreads(const Work& work) {
  constexpr unsigned int count = 4;
  std::atomic<unsigned int> waiting = count;
  std::vector<std::thread> threads;
  for (unsigned int number = 0; number < count; ++number) {
    threads.emplace_back([&work, &waiting, number] {
      --waiting;
      while (waiting != 0) std::this_thread::yield();
      work(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

/// The printers share no buffer: no thread's text shows up in another's.
TEST(AddressThreadTest, PrintingToStreamsOfTheirOwn) {
  std::atomic<int> wrong = 0;
  inThreads([&](unsigned int number) {
    const std::string digits = std::to_string(number + 1);
    const std::string fourText = digits + "." + digits + "." + digits + "." + digits;
    const std::string group = "000" + digits;
    std::string sixText = group;
    for (int i = 1; i < 8; ++i) sixText += ":" + group;
    const IpAddr four(fourText);
    const Ip6Addr six(sixText);
    const IpGenPrefix prefix(fourText + "/32");
    for (int i = 0; i < 3000; ++i) {
      std::ostringstream os;
      os << four << ' ' << six << ' ' << prefix;
      if (os.str() != fourText + " " + sixText + " " + fourText + "/32") ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST(AddressThreadTest, LookingUpTypes) {
  std::atomic<int> wrong = 0;
  inThreads([&](unsigned int number) {
    for (unsigned int i = 0; i < 3000; ++i) {
      const auto type = static_cast<KorvoTypes>((i + number) % 19);
      if (type == structType_) continue;
      if (korvoCppTypeNameToType(getKorvoTypeName(type)) != type) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST(AddressThreadTest, ReadingOneValue) {
  const IpGenPrefix net(std::string("2001:db8::/32"));
  const IpGenPrefix inside(std::string("2001:db8:1::/48"));
  std::atomic<int> wrong = 0;
  inThreads([&](unsigned int) {
    for (int i = 0; i < 3000; ++i) {
      if (!net.contains(inside) || !(inside < net) || net == inside) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

}  // namespace
