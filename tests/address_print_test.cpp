// Printing of addresses and prefixes, on streams in every state.

#include <Korvo/korvo_types.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <functional>
#include <iomanip>
#include <locale>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "address_test_support.h"

namespace {

using namespace Korvo;

Ip6Addr six(const char* text) {
  return Ip6Addr(std::string(text));
}

template <typename T>
std::string printed(const T& value) {
  std::ostringstream os;
  EXPECT_EQ(&(os << value), &os);
  return os.str();
}

// ---------------------------------------------------------------------------------------------
// What the printers do, insertion by insertion

void insertV4(std::ostream& os, const IpAddr& addr) {
  in_addr word{addr.addr()};
  char text[INET_ADDRSTRLEN];
  os << inet_ntop(AF_INET, &word, text, sizeof text);
}

void insertV6(std::ostream& os, const Ip6Addr& addr) {
  os << std::setfill('0') << std::hex;
  for (int group = 0; group < 8; ++group) {
    if (group != 0) os << ":";
    os << std::setw(4)
       << static_cast<unsigned short>(addr.bytes()[2 * group] << 8 | addr.bytes()[2 * group + 1]);
  }
  os << std::dec;
}

void insertPrefix(std::ostream& os, const IpGenPrefix& prefix) {
  if (prefix.addr().af() == ipv4_) {
    insertV4(os, IpAddr(loadField<std::uint32_t>(prefix.addr().bytes())));
  } else if (prefix.addr().af() == ipv6_) {
    insertV6(os, Ip6Addr(prefix.addr().bytes()));
  } else {
    os << "<unsupported address family>";
  }
  os << "/" << std::dec << prefix.mask();
}

// ---------------------------------------------------------------------------------------------
// Texts

TEST(AddressPrintTest, V4) {
  EXPECT_EQ(printed(v4(10, 1, 0, 9)), "10.1.0.9");
  EXPECT_EQ(printed(IpAddr()), "0.0.0.0");
  EXPECT_EQ(printed(v4(255, 255, 255, 255)), "255.255.255.255");
  EXPECT_EQ(printed(v4(100, 99, 10, 9)), "100.99.10.9");
}

TEST(AddressPrintTest, EveryNumberInEveryPlace) {
  for (unsigned int i = 0; i < 256; ++i) {
    const auto byte = static_cast<unsigned char>(i);
    const auto other = static_cast<unsigned char>(255 - i);
    for (const IpAddr addr : {v4(byte, other, 0, 255), v4(1, byte, other, 10),
                              v4(100, 9, byte, other), v4(other, 99, 200, byte)}) {
      std::ostringstream expected;
      insertV4(expected, addr);
      EXPECT_EQ(printed(addr), expected.str());
    }
  }
}

TEST(AddressPrintTest, V6) {
  EXPECT_EQ(printed(six("::1")), "0000:0000:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(printed(six("2001:db8::1")), "2001:0db8:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(printed(six("FEDC:ba98:7654:3210:0123:4567:89ab:CDEF")),
            "fedc:ba98:7654:3210:0123:4567:89ab:cdef");
  EXPECT_EQ(printed(six("::ffff:a00:1")), "0000:0000:0000:0000:0000:ffff:0a00:0001")
      << "no embedded IPv4 form";
}

TEST(AddressPrintTest, EveryGroup) {
  for (unsigned int value = 0; value < 0x10000; ++value) {
    StorageBytes bytes{};
    const std::size_t at = value % 8 * 2;
    bytes[at] = static_cast<unsigned char>(value >> 8);
    bytes[at + 1] = static_cast<unsigned char>(value);
    std::ostringstream expected;
    insertV6(expected, v6(bytes));
    ASSERT_EQ(printed(v6(bytes)), expected.str());
  }
}

TEST(AddressPrintTest, Generic) {
  EXPECT_EQ(printed(IpGenAddr(v4(10, 1, 0, 9))), "10.1.0.9");
  EXPECT_EQ(printed(IpGenAddr(six("::1"))), "0000:0000:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(printed(IpGenAddr()), "<unsupported address family>");
  const StorageBytes bytes = v4Storage(1, 2, 3, 4);
  EXPECT_EQ(printed(IpGenAddr(static_cast<AddressFamily>(3), bytes.data())),
            "<unsupported address family>");
}

TEST(AddressPrintTest, Prefixes) {
  EXPECT_EQ(printed(IpGenPrefix(std::string("10.0.0.0/8"))), "10.0.0.0/8");
  EXPECT_EQ(printed(IpGenPrefix(v4(10, 0, 0, 1), 32)), "10.0.0.1/32");
  EXPECT_EQ(printed(IpGenPrefix(std::string("2001:db8::/32"))),
            "2001:0db8:0000:0000:0000:0000:0000:0000/32");
  EXPECT_EQ(printed(IpGenPrefix()), "<unsupported address family>/0");
  EXPECT_EQ(printed(IpGenPrefix(IpGenAddr(), 4294967295U)),
            "<unsupported address family>/4294967295");
}

TEST(AddressPrintTest, ReadsItsOwnOutput) {
  std::mt19937 random(5);
  for (int i = 0; i < 5000; ++i) {
    StorageBytes bytes{};
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
    const IpAddr four(loadField<std::uint32_t>(bytes.data()));
    EXPECT_EQ(IpAddr(printed(four)), four);
    EXPECT_EQ(Ip6Addr(printed(v6(bytes))), v6(bytes));
    EXPECT_EQ(IpGenAddr(printed(IpGenAddr(four))), IpGenAddr(four));
    const auto len = static_cast<unsigned int>(random() % 129);
    IpGenPrefix prefix(v6(bytes), len);
    prefix.clearLowerAddrBits();
    EXPECT_EQ(IpGenPrefix(printed(prefix)), prefix);
  }
}

// ---------------------------------------------------------------------------------------------
// Lasting effects

TEST(AddressStreamTest, V4WidthGoesToTheWholeText) {
  std::ostringstream os;
  os << std::setfill('*') << std::hex << std::showbase << std::setw(10) << v4(10, 1, 0, 9)
     << std::left << std::setw(10) << v4(1, 2, 3, 4) << std::setw(3) << v4(1, 2, 3, 4) << 255;
  EXPECT_EQ(os.str(), "**10.1.0.91.2.3.4***1.2.3.40xff");
  EXPECT_EQ(os.fill(), '*');
}

TEST(AddressStreamTest, V6LeavesFillAndBase) {
  std::ostringstream os;
  os << std::setfill('*') << std::hex << std::setw(60) << six("::1");
  EXPECT_EQ(os.str(), "0000:0000:0000:0000:0000:0000:0000:0001") << "a width is replaced";
  EXPECT_EQ(os.fill(), '0');
  EXPECT_EQ(os.width(), 0);
  EXPECT_EQ(os.flags() & std::ios_base::basefield, std::ios_base::dec);
  os << ' ' << std::setw(4) << 17;
  EXPECT_EQ(os.str().substr(39), " 0017");
}

TEST(AddressStreamTest, V6LetterCaseIsTheStreams) {
  std::ostringstream os;
  os << std::uppercase << six("abcd::ef");
  EXPECT_EQ(os.str(), "ABCD:0000:0000:0000:0000:0000:0000:00EF");
  EXPECT_NE(os.flags() & std::ios_base::uppercase, 0);
}

TEST(AddressStreamTest, V6FlagsThatDisturb) {
  std::ostringstream left;
  left << std::left << six("1:20:300:4000::");
  EXPECT_EQ(left.str(), "1000:2000:3000:4000:0000:0000:0000:0000");
  std::ostringstream base;
  base << std::showbase << six("1:20:300:4000::");
  EXPECT_EQ(base.str(), "00x1:0x20:0x300:0x4000:0000:0000:0000:0000");
  std::ostringstream internal;
  internal << std::internal << std::showbase << six("1:20:300:4000::");
  EXPECT_EQ(internal.str(), "0x01:0x20:0x300:0x4000:0000:0000:0000:0000");
}

TEST(AddressStreamTest, PrefixLeavesBase) {
  std::ostringstream os;
  os << std::hex << std::setfill('*') << std::setw(12) << IpGenPrefix(v4(10, 0, 0, 0), 24) << '|'
     << 255;
  EXPECT_EQ(os.str(), "****10.0.0.0/24|255");
  EXPECT_EQ(os.fill(), '*');
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\1"; }
};

/// Numbers written as they would be in no locale at all.
struct OddNumbers : std::num_put<char> {
  iter_type do_put(iter_type out, std::ios_base& ios, char, unsigned long value) const override {
    ios.width(0);
    *out++ = '<';
    *out++ = static_cast<char>('a' + value % 26);
    *out++ = '>';
    return out;
  }
};

TEST(AddressStreamTest, TheStreamsOwnLocaleCounts) {
  std::ostringstream os;
  os.imbue(std::locale(std::locale::classic(), new Grouping));
  os << six("1:20:300:4000::") << ' ' << v4(192, 168, 0, 1) << ' '
     << IpGenPrefix(IpGenAddr(), 1000);
  EXPECT_EQ(os.str(),
            "0001:02'0:3'0'0:4'0'0'0:0000:0000:0000:0000 192.168.0.1 "
            "<unsupported address family>/1'0'0'0");
}

TEST(AddressStreamTest, TheGlobalLocaleDoesNotCount) {
  std::ostringstream os;
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  os << six("1:20:300:4000::") << ' ' << IpGenPrefix(v4(192, 168, 0, 0), 16);
  std::ostringstream madLater;
  madLater << six("1234::");
  std::locale::global(before);
  EXPECT_EQ(os.str(), "0001:0020:0300:4000:0000:0000:0000:0000 192.168.0.0/16");
  EXPECT_EQ(madLater.str(), "1'2'3'4:0000:0000:0000:0000:0000:0000:0000")
      << "a stream takes the global locale when it is made";
}

// ---------------------------------------------------------------------------------------------
// Every state of a stream

/// Counts what reaches it, and takes so many characters and no more.
class CountingBuffer : public std::streambuf {
 public:
  explicit CountingBuffer(std::size_t capacity) : capacity_(capacity) {}

  std::string text;
  int syncs = 0;

 protected:
  int_type overflow(int_type c) override {
    if (text.size() == capacity_) return traits_type::eof();
    text += traits_type::to_char_type(c);
    return c;
  }
  int sync() override {
    ++syncs;
    return 0;
  }

 private:
  std::size_t capacity_;
};

/// All that an insertion can be seen to do.
struct Observation {
  std::string text;
  int syncs = 0;
  int tiedSyncs = 0;
  std::ios_base::fmtflags flags{};
  std::streamsize width = 0;
  std::streamsize precision = 0;
  char fill = 0;
  std::ios_base::iostate state{};
  bool hasThrown = false;

  friend bool operator==(const Observation&, const Observation&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Observation& o) {
    return os << '"' << o.text << "\" flags " << o.flags << " width " << o.width << " fill '"
              << o.fill << "' state " << o.state << " syncs " << o.syncs << '/' << o.tiedSyncs
              << (o.hasThrown ? " thrown" : "");
  }
};

struct StreamState {
  std::ios_base::fmtflags flags{};
  std::streamsize width = 0;
  char fill = ' ';
  std::ios_base::iostate state{};
  std::ios_base::iostate exceptions{};
  std::locale locale = std::locale::classic();
  bool isTied = false;
  std::size_t capacity = 1000;
};

Observation observe(const StreamState& state, const std::function<void(std::ostream&)>& insert) {
  CountingBuffer buffer(state.capacity);
  CountingBuffer tiedBuffer(1000);
  std::ostream os(&buffer);
  std::ostream tied(&tiedBuffer);
  os.imbue(state.locale);
  os.flags(state.flags);
  os.width(state.width);
  os.fill(state.fill);
  os.setstate(state.state);
  if (state.isTied) os.tie(&tied);
  Observation seen;
  try {
    os.exceptions(state.exceptions);
    insert(os);
  } catch (const std::ios_base::failure&) {
    seen.hasThrown = true;
  }
  seen.text = buffer.text;
  seen.syncs = buffer.syncs;
  // How often the stream in front was flushed cannot be told apart by anything it holds.
  seen.tiedSyncs = tiedBuffer.syncs;
  seen.flags = os.flags();
  seen.width = os.width();
  seen.precision = os.precision();
  seen.fill = os.fill();
  seen.state = os.rdstate();
  return seen;
}

/// Calls `check` with streams in every state that counts.
template <typename Check>
void forEachState(const Check& check) {
  using ios = std::ios_base;
  const std::locale locales[] = {std::locale::classic(),
                                 std::locale(std::locale::classic(), new Grouping),
                                 std::locale(std::locale::classic(), new OddNumbers)};
  const ios::fmtflags adjusts[] = {
      {}, ios::left, ios::right, ios::internal, ios::left | ios::right};
  const ios::fmtflags bases[] = {{}, ios::dec, ios::hex, ios::oct, ios::dec | ios::hex};
  for (const std::locale& locale : locales) {
    for (const ios::fmtflags adjust : adjusts) {
      for (const ios::fmtflags base : bases) {
        for (int others = 0; others < 32; ++others) {
          StreamState state;
          state.locale = locale;
          state.flags = adjust | base;
          if ((others & 1) != 0) state.flags |= ios::uppercase;
          if ((others & 2) != 0) state.flags |= ios::showbase;
          if ((others & 4) != 0) state.flags |= ios::showpos;
          if ((others & 8) != 0) state.flags |= ios::unitbuf;
          state.isTied = (others & 16) != 0;
          for (const std::streamsize width : {0, 2, 7, 50}) {
            state.width = width;
            state.fill = width == 2 ? '0' : '*';
            check(state);
          }
        }
      }
    }
  }
}

const Ip6Addr sampleV6[] = {six("::"), six("1:20:300:4000:a:bc:def:fedc")};
const IpGenPrefix samplePrefixes[] = {IpGenPrefix(v4(10, 0, 0, 0), 8),
                                      IpGenPrefix(six("2001:db8::"), 128), IpGenPrefix()};

TEST(AddressStreamTest, EveryFormattingState) {
  std::size_t count = 0;
  forEachState([&](const StreamState& state) {
    ++count;
    const IpAddr four = v4(192, 168, 0, 1);
    ASSERT_EQ(observe(state, [&](std::ostream& os) { os << four; }),
              observe(state, [&](std::ostream& os) { insertV4(os, four); }));
    for (const Ip6Addr& addr : sampleV6) {
      ASSERT_EQ(observe(state, [&](std::ostream& os) { os << addr; }),
                observe(state, [&](std::ostream& os) { insertV6(os, addr); }));
    }
    for (const IpGenPrefix& prefix : samplePrefixes) {
      ASSERT_EQ(observe(state, [&](std::ostream& os) { os << prefix; }),
                observe(state, [&](std::ostream& os) { insertPrefix(os, prefix); }));
    }
  });
  EXPECT_EQ(count, 3U * 5 * 5 * 32 * 4);
}

TEST(AddressStreamTest, EveryErrorState) {
  using ios = std::ios_base;
  for (int bits = 0; bits < 8; ++bits) {
    for (int mask = 0; mask < 8; ++mask) {
      const auto stateOf = [](int from) {
        return ((from & 1) != 0 ? ios::badbit : ios::goodbit) |
               ((from & 2) != 0 ? ios::failbit : ios::goodbit) |
               ((from & 4) != 0 ? ios::eofbit : ios::goodbit);
      };
      StreamState state;
      state.flags = ios::oct;
      state.width = 9;
      state.fill = '*';
      state.state = stateOf(bits);
      state.exceptions = stateOf(mask);
      for (const Ip6Addr& addr : sampleV6) {
        ASSERT_EQ(observe(state, [&](std::ostream& os) { os << addr; }),
                  observe(state, [&](std::ostream& os) { insertV6(os, addr); }))
            << bits << ' ' << mask;
      }
      for (const IpGenPrefix& prefix : samplePrefixes) {
        ASSERT_EQ(observe(state, [&](std::ostream& os) { os << prefix; }),
                  observe(state, [&](std::ostream& os) { insertPrefix(os, prefix); }))
            << bits << ' ' << mask;
      }
    }
  }
}

TEST(AddressStreamTest, EveryPlaceToBreak) {
  for (const auto exceptions : {std::ios_base::goodbit, std::ios_base::badbit}) {
    for (std::size_t capacity = 0; capacity <= 45; ++capacity) {
      StreamState state;
      state.flags = std::ios_base::dec;
      state.capacity = capacity;
      state.exceptions = exceptions;
      for (const Ip6Addr& addr : sampleV6) {
        ASSERT_EQ(observe(state, [&](std::ostream& os) { os << addr; }),
                  observe(state, [&](std::ostream& os) { insertV6(os, addr); }))
            << "after " << capacity;
      }
      const IpAddr four = v4(192, 168, 0, 1);
      ASSERT_EQ(observe(state, [&](std::ostream& os) { os << four; }),
                observe(state, [&](std::ostream& os) { insertV4(os, four); }))
          << "after " << capacity;
      for (const IpGenPrefix& prefix : samplePrefixes) {
        ASSERT_EQ(observe(state, [&](std::ostream& os) { os << prefix; }),
                  observe(state, [&](std::ostream& os) { insertPrefix(os, prefix); }))
            << "after " << capacity;
      }
    }
  }
}

TEST(AddressStreamTest, StreamWithoutBuffer) {
  std::ostream os(nullptr);
  os << v4(1, 2, 3, 4) << six("::1") << IpGenPrefix();
  EXPECT_TRUE(os.bad());
}

}  // namespace
