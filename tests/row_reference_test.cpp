// Value references: their comparisons with the asymmetries that are part of the contract, their
// printing, and the column operations built on them.

#include "row_test_support.h"

#include <optional>
#include <sstream>
#include <type_traits>

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kPrefix = PlainRow::kPrefix;

constexpr std::string_view kContainsSignature =
    "bool Korvo::IpGenPrefixReference::contains(const Korvo::IpGenPrefixReference&) const";
constexpr std::string_view kContainsCondition = "af_ == ipv4_ || af_ == ipv6_";

const auto kNoFamily = static_cast<AddressFamily>(3);

static_assert(std::is_trivially_copyable_v<StringValueReference>);
static_assert(std::is_trivially_copyable_v<IpGenAddrReference>);
static_assert(std::is_trivially_copyable_v<IpGenPrefixReference>);

template <typename T>
std::string printed(const T& value) {
  std::ostringstream os;
  EXPECT_EQ(&(os << value), &os);
  return os.str();
}

/// The outcome of the six operators, in the order == != < > <= >=.
template <typename T>
std::string compared(const T& a, const T& b) {
  std::string result;
  for (const bool outcome : {a == b, a != b, a<b, a> b, a <= b, a >= b}) {
    result += outcome ? '1' : '0';
  }
  return result;
}

constexpr const char* kEqual = "100011";
constexpr const char* kLess = "011010";
constexpr const char* kGreater = "010101";

TEST(ValueReferences, DefaultIsNull) {
  EXPECT_EQ(StringValueReference().data(), nullptr);
  EXPECT_EQ(StringValueReference().length(), 0);
  EXPECT_EQ(StringValueReference().view(), "");
  EXPECT_EQ(IpGenAddrReference().addr(), nullptr);
  EXPECT_EQ(IpGenAddrReference().af(), Korvo::unknown_);
  EXPECT_EQ(IpGenPrefixReference().addr(), nullptr);
  EXPECT_EQ(IpGenPrefixReference().af(), Korvo::unknown_);
  EXPECT_EQ(IpGenPrefixReference().mask(), 0);
}

TEST(ValueReferences, FieldsInOrder) {
  const char text[] = "abc";
  const byte_t bytes[16] = {};
  const StringValueReference stringReference(text, 2);
  EXPECT_EQ(stringReference.data(), text);
  EXPECT_EQ(stringReference.length(), 2);
  EXPECT_EQ(stringReference.view(), "ab");
  const IpGenAddrReference addr(bytes, Korvo::ipv6_);
  EXPECT_EQ(addr.addr(), bytes);
  EXPECT_EQ(addr.af(), Korvo::ipv6_);
  const IpGenPrefixReference prefix(bytes, Korvo::ipv4_, 200);
  EXPECT_EQ(prefix.addr(), bytes);
  EXPECT_EQ(prefix.af(), Korvo::ipv4_);
  EXPECT_EQ(prefix.mask(), 200);
}

// ---------------------------------------------------------------------------------------------
// Strings

TEST(StringReferenceComparison, Table) {
  // When one value is a proper prefix of the other, < and > decide by length, <= and >= do not look
  // at it: both hold both ways.
  const struct {
    std::string_view a, b;
    const char* expected;
  } cases[] = {
      {"", "", kEqual},
      {"abc", "abc", kEqual},
      {"abc", "abd", kLess},
      {"abd", "abc", kGreater},
      {"b", "abc", kGreater},
      {"a", "bcd", kLess},
      {"ab", "abc", "011011"},
      {"abc", "ab", "010111"},
      {"", "a", "011011"},
      {"a", "", "010111"},
      // Bytes compare as unsigned numbers, NUL bytes included.
      {"\x7F", "\x80", kLess},
      {std::string_view("a\0b", 3), std::string_view("a\0c", 3), kLess},
      {std::string_view("a\0", 2), std::string_view("a", 1), "010111"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(compared(stringRef(c.a), stringRef(c.b)), c.expected) << c.a << " and " << c.b;
  }
}

TEST(StringReferenceComparison, NullReferencesAreEmptyStrings) {
  const StringValueReference null;
  EXPECT_EQ(compared(null, null), kEqual);
  EXPECT_EQ(compared(null, stringRef("")), kEqual);
  EXPECT_EQ(compared(null, stringRef("a")), "011011");
  EXPECT_EQ(compared(stringRef("a"), null), "010111");
}

TEST(StringReferenceComparison, AllShortStringsFollowTheRules) {
  std::vector<std::string> strings{""};
  const char alphabet[] = {'\0', 'a', '\x80'};
  for (std::size_t i = 0; i < strings.size(); ++i) {
    if (strings[i].size() == 3) continue;
    for (const char c : alphabet) {
      std::string next = strings[i] + c;
      strings.push_back(std::move(next));
    }
  }
  ASSERT_EQ(strings.size(), 1u + 3 + 9 + 27);
  for (const std::string& a : strings) {
    for (const std::string& b : strings) {
      const std::size_t common = std::min(a.size(), b.size());
      const int head = std::memcmp(a.data(), b.data(), common);
      const int whole = a.compare(b);
      const StringValueReference x = stringRef(a);
      const StringValueReference y = stringRef(b);
      ASSERT_EQ(x == y, a == b);
      ASSERT_EQ(x != y, a != b);
      ASSERT_EQ(x < y, whole < 0);
      ASSERT_EQ(x > y, whole > 0);
      ASSERT_EQ(x <= y, head <= 0);
      ASSERT_EQ(x >= y, head >= 0);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Addresses

const byte_t kLow[16] = {10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const byte_t kHigh[16] = {10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80};
const byte_t kHigh4[16] = {200, 0, 0, 0};

TEST(AddrReferenceComparison, Table) {
  using Korvo::ipv4_;
  using Korvo::ipv6_;
  using Korvo::unknown_;
  const struct {
    const byte_t* a;
    AddressFamily af;
    const byte_t* b;
    AddressFamily bf;
    const char* expected;
  } cases[] = {
      // Four bytes of an IPv4 address count, sixteen of an IPv6 address.
      {kLow, ipv4_, kHigh, ipv4_, kEqual},
      {kLow, ipv6_, kHigh, ipv6_, kLess},
      {kHigh, ipv6_, kLow, ipv6_, kGreater},
      {kLow, ipv4_, kHigh4, ipv4_, kLess},
      {kHigh4, ipv4_, kLow, ipv4_, kGreater},
      // The family goes first.
      {kHigh4, ipv4_, kLow, ipv6_, kLess},
      {kLow, ipv6_, kHigh4, ipv4_, kGreater},
      {kHigh4, unknown_, kLow, ipv4_, kLess},
      {kHigh4, unknown_, kLow, ipv6_, kLess},
      {kLow, ipv6_, nullptr, unknown_, kGreater},
      // Without a family no byte is looked at.
      {kLow, unknown_, kHigh4, unknown_, kEqual},
      {nullptr, unknown_, kHigh4, unknown_, kEqual},
      {nullptr, unknown_, nullptr, unknown_, kEqual},
  };
  int number = 0;
  for (const auto& c : cases) {
    EXPECT_EQ(compared(IpGenAddrReference(c.a, c.af), IpGenAddrReference(c.b, c.bf)), c.expected)
        << "case " << number;
    ++number;
  }
}

TEST(AddrReferenceComparison, ReadsNoFurtherThanTheAddress) {
  const ExactBlock four(bytesOf("0A 00 00 01"));
  const ExactBlock same(bytesOf("0A 00 00 01"));
  EXPECT_EQ(compared(IpGenAddrReference(four.data(), Korvo::ipv4_),
                     IpGenAddrReference(same.data(), Korvo::ipv4_)),
            kEqual);
}

TEST(AddrReferenceComparison, WithValues) {
  const ExactBlock four(bytesOf("0A 00 00 01"));
  const IpGenAddrReference v4(four.data(), Korvo::ipv4_);
  const IpGenAddrReference v6(kLow, Korvo::ipv6_);
  EXPECT_TRUE(v4 == IpGenAddr("10.0.0.1") && IpGenAddr("10.0.0.1") == v4);
  EXPECT_TRUE(v4 == Korvo::IpAddr("10.0.0.1"));
  EXPECT_FALSE(v4 != IpGenAddr("10.0.0.1") || IpGenAddr("10.0.0.1") != v4);
  EXPECT_TRUE(v4 != IpGenAddr("10.0.0.2") && v6 != IpGenAddr("10.0.0.1"));
  EXPECT_TRUE(v6 == Korvo::Ip6Addr("a00:1::1") && v4 != Korvo::Ip6Addr("a00:1::1"));
  EXPECT_TRUE(IpGenAddrReference() == IpGenAddr() && v4 != IpGenAddr());
}

TEST(AddrReferenceComparison, OrderIsNumeric) {
  const char* const ascending[] = {"0.0.0.0",   "0.0.0.255", "0.0.1.0",
                                   "127.0.0.1", "128.0.0.0", "255.255.255.255"};
  std::vector<IpGenAddr> addrs;
  for (const char* const text : ascending) addrs.emplace_back(text);
  for (std::size_t i = 0; i < addrs.size(); ++i) {
    for (std::size_t j = 0; j < addrs.size(); ++j) {
      EXPECT_EQ(compared(IpGenAddrReference(addrs[i].bytes(), addrs[i].af()),
                         IpGenAddrReference(addrs[j].bytes(), addrs[j].af())),
                i == j  ? kEqual
                : i < j ? kLess
                        : kGreater);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Prefixes

/// A prefix reference with bytes of its own.
class Prefix {
 public:
  Prefix(const std::string& addr, unsigned length)
      : addr_(addr), ref_(addr_.bytes(), addr_.af(), static_cast<byte_t>(length)) {}
  Prefix(const Prefix&) = delete;
  Prefix& operator=(const Prefix&) = delete;
  const IpGenPrefixReference& ref() const { return ref_; }
  const IpGenAddr& addr() const { return addr_; }

 private:
  IpGenAddr addr_;
  IpGenPrefixReference ref_;
};

TEST(PrefixReferenceContains, Table) {
  const struct {
    const char* addr;
    unsigned length;
    const char* other;
    unsigned otherLength;
    bool expected;
  } cases[] = {
      {"10.0.0.0", 8, "10.1.2.3", 32, true},
      {"10.0.0.0", 8, "11.1.2.3", 32, false},
      {"10.0.0.0", 8, "10.0.0.0", 8, true},
      // The other's length is not looked at.
      {"10.0.0.0", 24, "10.0.0.0", 8, true},
      {"10.0.0.0", 24, "10.0.1.0", 8, false},
      // Every length within a byte.
      {"10.128.0.0", 9, "10.255.255.255", 32, true},
      {"10.128.0.0", 9, "10.127.255.255", 32, false},
      {"10.0.0.1", 31, "10.0.0.0", 32, true},
      {"10.0.0.1", 32, "10.0.0.0", 32, false},
      {"10.0.0.1", 32, "10.0.0.1", 0, true},
      // Length 0 takes its whole family, and a length beyond the family's nothing.
      {"10.0.0.0", 0, "200.1.2.3", 32, true},
      {"::", 0, "ffff::1", 128, true},
      {"10.0.0.0", 33, "10.0.0.0", 32, false},
      {"10.0.0.0", 255, "10.0.0.0", 32, false},
      {"::", 129, "::", 128, false},
      {"2001:db8::", 33, "2001:db8:7fff::", 48, true},
      {"2001:db8::", 33, "2001:db8:8000::", 48, false},
      {"::1", 128, "::1", 128, true},
      {"::1", 128, "::", 128, false},
      {"::1", 127, "::", 128, true},
      // Families do not mix.
      {"10.0.0.0", 0, "::", 0, false},
      {"::", 0, "10.0.0.0", 0, false},
  };
  for (const auto& c : cases) {
    const Prefix prefix(c.addr, c.length);
    const Prefix other(c.other, c.otherLength);
    EXPECT_EQ(prefix.ref().contains(other.ref()), c.expected)
        << c.addr << '/' << c.length << " and " << c.other << '/' << c.otherLength;
  }
}

TEST(PrefixReferenceContains, FamiliesThatDifferGiveFalseWithoutAQuestion) {
  const Prefix v4("10.0.0.0", 8);
  const IpGenPrefixReference null;
  EXPECT_FALSE(null.contains(v4.ref()));
  EXPECT_FALSE(v4.ref().contains(null));
}

TEST(PrefixReferenceContains, EveryLengthComparesThatManyBits) {
  // The other differs in exactly one bit: only lengths up to that bit contain it.
  for (const std::string text : {"10.170.85.3", "2001:db8:aaaa:5555:1234:5678:9abc:def0"}) {
    const IpGenAddr addr(text);
    const unsigned bits = addr.af() == Korvo::ipv4_ ? 32 : 128;
    for (unsigned differing = 0; differing < bits; ++differing) {
      Bytes other(addr.bytes(), addr.bytes() + bits / 8);
      other[differing / 8] = static_cast<byte_t>(other[differing / 8] ^ (0x80u >> differing % 8));
      const IpGenPrefixReference otherRef(other.data(), addr.af(), 0);
      for (unsigned length = 0; length <= bits; ++length) {
        const IpGenPrefixReference ref(addr.bytes(), addr.af(), static_cast<byte_t>(length));
        ASSERT_EQ(ref.contains(otherRef), length <= differing)
            << text << '/' << length << ", bit " << differing;
      }
    }
  }
}

TEST(PrefixReferenceContains, ReadsNoFurtherThanTheAddress) {
  const ExactBlock four(bytesOf("0A 00 00 01"));
  const ExactBlock other(bytesOf("0A 00 00 01"));
  const IpGenPrefixReference a(four.data(), Korvo::ipv4_, 32);
  const IpGenPrefixReference b(other.data(), Korvo::ipv4_, 32);
  EXPECT_TRUE(a.contains(b));
  EXPECT_EQ(compared(a, b), kEqual);
}

TEST(PrefixReferenceComparison, Table) {
  const struct {
    const char* a;
    unsigned aLength;
    const char* b;
    unsigned bLength;
    const char* expected;
  } cases[] = {
      {"10.0.0.0", 8, "10.0.0.0", 8, kEqual},
      // The more specific one sorts first.
      {"10.0.0.0", 16, "10.0.0.0", 8, kLess},
      {"10.0.0.0", 8, "10.0.0.0", 16, kGreater},
      {"10.200.0.0", 16, "10.0.0.0", 8, kLess},
      {"10.0.0.0", 0, "10.0.0.0", 32, kGreater},
      // Otherwise the address decides, whatever the lengths.
      {"10.0.0.0", 8, "11.0.0.0", 8, kLess},
      {"11.0.0.0", 8, "10.0.0.0", 16, kGreater},
      {"10.0.0.0", 8, "11.0.0.0", 16, kLess},
      {"10.0.0.0", 16, "11.0.0.0", 8, kLess},
      // Same length and same leading bits: neither sorts first, yet they differ.
      {"10.0.0.1", 8, "10.0.0.2", 8, "010000"},
      {"10.0.0.2", 8, "10.0.0.1", 8, "010000"},
      {"10.0.0.1", 0, "200.0.0.2", 0, "010000"},
      // A length beyond the family's contains nothing: the address decides.
      {"10.0.0.1", 33, "10.0.0.2", 33, kLess},
      {"10.0.0.2", 33, "10.0.0.1", 40, kGreater},
      {"10.0.0.1", 33, "10.0.0.1", 33, kEqual},
      {"10.0.0.1", 33, "10.0.0.1", 34, "010000"},
      {"2001:db8::", 48, "2001:db8::", 32, kLess},
      {"2001:db8::1", 128, "2001:db8::", 127, kLess},
      {"2001:db8::1", 64, "2001:db8::2", 64, "010000"},
      // The family goes first.
      {"255.0.0.0", 0, "::", 128, kLess},
      {"::", 128, "255.0.0.0", 0, kGreater},
  };
  for (const auto& c : cases) {
    const Prefix a(c.a, c.aLength);
    const Prefix b(c.b, c.bLength);
    EXPECT_EQ(compared(a.ref(), b.ref()), c.expected)
        << c.a << '/' << c.aLength << " and " << c.b << '/' << c.bLength;
  }
}

TEST(PrefixReferenceComparison, WithValues) {
  const ExactBlock four(bytesOf("0A 00 00 01"));
  const IpGenPrefixReference net(four.data(), Korvo::ipv4_, 8);
  const IpGenPrefix withHostBits(Korvo::IpAddr("10.0.0.1"), 8);
  EXPECT_TRUE(net == withHostBits && withHostBits == net);
  EXPECT_FALSE(net != withHostBits || withHostBits != net);
  EXPECT_TRUE(net != IpGenPrefix("10.0.0.0/8") && IpGenPrefix("10.0.0.0/8") != net);
  EXPECT_TRUE(net != IpGenPrefix(Korvo::IpAddr("10.0.0.1"), 32));
  EXPECT_TRUE(IpGenPrefixReference(kLow, Korvo::ipv6_, 128) == IpGenPrefix("a00:1::1/128"));
  EXPECT_TRUE(IpGenPrefixReference() == IpGenPrefix() && net != IpGenPrefix());
  // Of a length that no value has.
  EXPECT_TRUE(IpGenPrefixReference(four.data(), Korvo::ipv4_, 255) != withHostBits);
}

TEST(PrefixReferenceComparison, WithoutAFamily) {
  const Prefix v4("10.0.0.0", 8);
  const IpGenPrefixReference null;
  EXPECT_EQ(compared(null, v4.ref()), kLess);
  EXPECT_EQ(compared(v4.ref(), null), kGreater);
  // Two of them are equal by family and length alone.
  EXPECT_TRUE(null == IpGenPrefixReference(kLow, Korvo::unknown_, 0));
  EXPECT_FALSE(null != IpGenPrefixReference(kLow, Korvo::unknown_, 0));
  EXPECT_FALSE(null == IpGenPrefixReference(kLow, Korvo::unknown_, 1));
}

/// The order as it is worded, over addresses as numbers.
bool modelContains(std::uint32_t a, unsigned aLength, std::uint32_t b) {
  if (aLength > 32) return false;
  for (unsigned bit = 0; bit < aLength; ++bit) {
    if (((a ^ b) >> (31 - bit) & 1u) != 0) return false;
  }
  return true;
}

bool modelLess(std::uint32_t a, unsigned aLength, std::uint32_t b, unsigned bLength) {
  if (aLength < bLength) {
    if (modelContains(a, aLength, b)) return false;
  } else if (modelContains(b, bLength, a)) {
    return aLength > bLength;
  }
  return a < b;
}

TEST(PrefixReferenceComparison, FollowsTheRulesForManyPairs) {
  const std::uint32_t words[] = {0,          1,          0x0A000000, 0x0A000001, 0x0A000080,
                                 0x0A010000, 0x0A800000, 0x0AFFFFFF, 0x80000000, 0xFFFFFFFF};
  const unsigned lengths[] = {0, 1, 7, 8, 9, 16, 24, 25, 31, 32, 33, 255};
  for (const std::uint32_t a : words) {
    for (const std::uint32_t b : words) {
      const std::uint32_t an = __builtin_bswap32(a);
      const std::uint32_t bn = __builtin_bswap32(b);
      for (const unsigned al : lengths) {
        for (const unsigned bl : lengths) {
          const IpGenPrefixReference x(reinterpret_cast<const byte_t*>(&an), Korvo::ipv4_,
                                       static_cast<byte_t>(al));
          const IpGenPrefixReference y(reinterpret_cast<const byte_t*>(&bn), Korvo::ipv4_,
                                       static_cast<byte_t>(bl));
          const bool less = modelLess(a, al, b, bl);
          const bool greater = modelLess(b, bl, a, al);
          const bool equal = a == b && al == bl;
          ASSERT_EQ(x.contains(y), modelContains(a, al, b)) << a << '/' << al << ' ' << b;
          ASSERT_EQ(x < y, less) << a << '/' << al << ' ' << b << '/' << bl;
          ASSERT_EQ(x > y, greater);
          ASSERT_EQ(x == y, equal);
          ASSERT_EQ(x != y, !equal);
          ASSERT_EQ(x <= y, less || equal);
          ASSERT_EQ(x >= y, greater || equal);
        }
      }
    }
  }
}

TEST(PrefixReferenceDeathTest, OrderNeedsAFamily) {
  const IpGenPrefixReference null;
  const IpGenPrefixReference longer(kLow, Korvo::unknown_, 8);
  const IpGenPrefixReference other(kLow, kNoFamily, 8);
  const struct {
    const char* what;
    std::function<bool()> ask;
  } questions[] = {
      {"contains", [&] { return null.contains(null); }},
      {"contains, no such family", [&] { return other.contains(other); }},
      {"<", [&] { return null < null; }},
      {">", [&] { return null > null; }},
      {"<=", [&] { return null <= null; }},
      {">=", [&] { return null >= null; }},
      {"< a longer one", [&] { return null < longer; }},
      {"< a shorter one", [&] { return longer < null; }},
  };
  for (const auto& q : questions) {
    SCOPED_TRACE(q.what);
    EXPECT_ASSERTION(static_cast<void>(q.ask()), kHeaderFile, kContainsSignature,
                     kContainsCondition);
  }
}

// ---------------------------------------------------------------------------------------------
// Printing

TEST(ReferencePrinting, StringsAsTheyAre) {
  EXPECT_EQ(printed(stringRef("say \"hi\"\n")), "say \"hi\"\n");
  EXPECT_EQ(printed(stringRef(std::string_view("a\0b", 3))), std::string("a\0b", 3));
  EXPECT_EQ(printed(StringValueReference("abcdef", 3)), "abc");
  EXPECT_EQ(printed(StringValueReference()), "");
}

TEST(ReferencePrinting, QuotedStringsAreEscaped) {
  using Quoted = Korvo::FMT<StringValueReference>;
  EXPECT_EQ(printed(Quoted(stringRef("say \"hi\""))), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(printed(Quoted(stringRef("a\\b\n\t"))), "\"a\\\\b\\n\\t\"");
  EXPECT_EQ(printed(Quoted(stringRef(""))), "\"\"");
  EXPECT_EQ(printed(Quoted(StringValueReference())), "\"\"");
  EXPECT_EQ(printed(Quoted(stringRef(std::string_view("a\0b", 3)))), std::string("\"a\0b\"", 5));
}

TEST(ReferencePrinting, Addresses) {
  EXPECT_EQ(printed(IpGenAddrReference()), "<null>");
  EXPECT_EQ(printed(IpGenAddrReference(nullptr, Korvo::ipv4_)), "<null>");
  const ExactBlock four(bytesOf("0A 01 00 09"));
  EXPECT_EQ(printed(IpGenAddrReference(four.data(), Korvo::ipv4_)), "10.1.0.9");
  EXPECT_EQ(printed(IpGenAddrReference(four.data(), Korvo::unknown_)),
            "<unsupported address family>");
  EXPECT_EQ(printed(IpGenAddrReference(kLow, Korvo::ipv6_)),
            "0a00:0001:0000:0000:0000:0000:0000:0001");
}

TEST(ReferencePrinting, Prefixes) {
  EXPECT_EQ(printed(IpGenPrefixReference()), "<null>");
  EXPECT_EQ(printed(IpGenPrefixReference(nullptr, Korvo::ipv4_, 8)), "<null>");
  const ExactBlock four(bytesOf("0A 01 00 09"));
  EXPECT_EQ(printed(IpGenPrefixReference(four.data(), Korvo::ipv4_, 8)), "10.1.0.9/8")
      << "host bits are printed as they are";
  EXPECT_EQ(printed(IpGenPrefixReference(kLow, Korvo::ipv6_, 128)),
            "0a00:0001:0000:0000:0000:0000:0000:0001/128");
  EXPECT_EQ(printed(IpGenPrefixReference(four.data(), Korvo::unknown_, 77)),
            printed(IpGenPrefix(Korvo::unknown_, 77, four.data())));
}

TEST(ReferencePrinting, ImpossiblePrefixLengthThrows) {
  std::ostringstream os;
  EXPECT_EQ(
      thrownMessage<KoOutOfRange>([&] { os << IpGenPrefixReference(kLow, Korvo::ipv4_, 33); }),
      "Invalid IPv4 Prefix Length");
  EXPECT_EQ(
      thrownMessage<KoOutOfRange>([&] { os << IpGenPrefixReference(kLow, Korvo::ipv6_, 129); }),
      "Invalid IPv6 Prefix Length");
  EXPECT_EQ(os.str(), "");
}

// ---------------------------------------------------------------------------------------------
// Columns

template <typename T>
void writeColumn(BaseRow& row, len_t slotOffset, const T& value) {
  row.setColumn<T>(slotOffset, value, kBase);
}

TEST(ColumnComparison, Strings) {
  FullRow row(1, 1);
  FullRow other(1, 1);
  setString(row, kName, "ab");
  setString(other, kAddr, "abc");
  EXPECT_FALSE(row.columnEqual<StringValueReference>(kName, other, kAddr));
  EXPECT_TRUE(row.columnLess<StringValueReference>(kName, other, kAddr));
  EXPECT_FALSE(other.columnLess<StringValueReference>(kAddr, row, kName));
  EXPECT_TRUE(row.columnEqual<StringValueReference>(kName, row, kName));
  EXPECT_TRUE(row.columnEqualConst<StringValueReference>(kName, stringRef("ab")));
  EXPECT_FALSE(row.columnEqualConst<StringValueReference>(kName, stringRef("a")));
  // Two columns of one row, and empty ones.
  setString(row, kPrefix, "ab");
  EXPECT_TRUE(row.columnEqual<StringValueReference>(kName, row, kPrefix));
  EXPECT_FALSE(row.columnEqual<StringValueReference>(kName, other, kName));
  EXPECT_TRUE(row.columnEqual<StringValueReference>(kAddr, other, kName));
  EXPECT_TRUE(row.columnEqualConst<StringValueReference>(kAddr, StringValueReference()));
  EXPECT_TRUE(row.columnLess<StringValueReference>(kAddr, row, kName));
  EXPECT_FALSE(row.columnLess<StringValueReference>(kAddr, other, kName));
}

TEST(ColumnComparison, Addresses) {
  FullRow row(1, 1);
  FullRow other(1, 1);
  writeColumn(row, kAddr, IpGenAddr("10.0.0.1"));
  writeColumn(row, kName, IpGenAddr("200.0.0.1"));
  writeColumn(other, kAddr, IpGenAddr("::1"));
  const byte_t bytes[] = {10, 0, 0, 1};
  EXPECT_TRUE(row.columnLess<IpGenAddrReference>(kAddr, row, kName));
  EXPECT_FALSE(row.columnLess<IpGenAddrReference>(kName, row, kAddr));
  EXPECT_TRUE(row.columnLess<IpGenAddrReference>(kName, other, kAddr));
  EXPECT_FALSE(row.columnEqual<IpGenAddrReference>(kAddr, other, kAddr));
  EXPECT_TRUE(row.columnEqual<IpGenAddrReference>(kAddr, FullRow(row), kAddr));
  EXPECT_TRUE(
      row.columnEqualConst<IpGenAddrReference>(kAddr, IpGenAddrReference(bytes, Korvo::ipv4_)));
  EXPECT_FALSE(row.columnEqualConst<IpGenAddrReference>(kAddr, IpGenAddrReference()));
  // Empty columns have no family: equal to each other, and first.
  EXPECT_TRUE(row.columnEqual<IpGenAddrReference>(kPrefix, other, kName));
  EXPECT_TRUE(row.columnLess<IpGenAddrReference>(kPrefix, row, kAddr));
  EXPECT_TRUE(row.columnEqualConst<IpGenAddrReference>(kPrefix, IpGenAddrReference()));
}

TEST(ColumnComparison, Prefixes) {
  FullRow row(1, 1);
  FullRow other(1, 1);
  writeColumn(row, kPrefix, IpGenPrefix("10.0.0.0/16"));
  writeColumn(row, kName, IpGenPrefix("10.0.0.0/8"));
  writeColumn(other, kPrefix, IpGenPrefix("2001:db8::/32"));
  const byte_t bytes[] = {10, 0, 0, 0};
  EXPECT_TRUE(row.columnLess<IpGenPrefixReference>(kPrefix, row, kName));
  EXPECT_FALSE(row.columnLess<IpGenPrefixReference>(kName, row, kPrefix));
  EXPECT_TRUE(row.columnLess<IpGenPrefixReference>(kName, other, kPrefix));
  EXPECT_FALSE(row.columnEqual<IpGenPrefixReference>(kPrefix, row, kName));
  EXPECT_TRUE(row.columnEqual<IpGenPrefixReference>(kPrefix, FullRow(row), kPrefix));
  EXPECT_TRUE(row.columnEqualConst<IpGenPrefixReference>(
      kPrefix, IpGenPrefixReference(bytes, Korvo::ipv4_, 16)));
  EXPECT_FALSE(row.columnEqualConst<IpGenPrefixReference>(
      kPrefix, IpGenPrefixReference(bytes, Korvo::ipv4_, 17)));
  EXPECT_TRUE(row.columnEqual<IpGenPrefixReference>(kAddr, other, kAddr));
  EXPECT_TRUE(row.columnEqualConst<IpGenPrefixReference>(kAddr, IpGenPrefixReference()));
  EXPECT_TRUE(row.columnLess<IpGenPrefixReference>(kAddr, row, kName));
  EXPECT_FALSE(row.columnLess<IpGenPrefixReference>(kName, row, kAddr));
}

TEST(ColumnComparison, ArrayMarkIsMaskedOff) {
  const PlainRow plain(imageWith(kAddr, bytesOf("0A 01 02 03"), false));
  const PlainRow marked(imageWith(kAddr, bytesOf("0A 01 02 03"), true));
  EXPECT_TRUE(plain.columnEqual<StringValueReference>(kAddr, marked, kAddr));
  EXPECT_TRUE(plain.columnEqual<IpGenAddrReference>(kAddr, marked, kAddr));
  EXPECT_FALSE(plain.columnLess<StringValueReference>(kAddr, marked, kAddr));
  EXPECT_EQ(plain.columnHash<StringValueReference>(kAddr),
            marked.columnHash<StringValueReference>(kAddr));
  EXPECT_EQ(plain.columnHash<IpGenAddrReference>(kAddr),
            marked.columnHash<IpGenAddrReference>(kAddr));
}

TEST(ColumnComparison, ColumnsOfTheWrongTypeHaveNoFamily) {
  // The type is not checked: four bytes are no prefix, five no address.
  FullRow row(1, 1);
  writeColumn(row, kAddr, IpGenAddr("10.0.0.1"));
  writeColumn(row, kPrefix, IpGenPrefix("10.0.0.0/8"));
  EXPECT_TRUE(row.columnEqual<IpGenAddrReference>(kPrefix, row, kName));
  EXPECT_EQ(row.columnHash<IpGenAddrReference>(kPrefix), 0u);
  EXPECT_EQ(row.columnHash<IpGenPrefixReference>(kAddr), 0u);
}

TEST(ColumnComparison, NullRowsThrow) {
  FullRow row(1, 1);
  setString(row, kName, "x");
  const FullRow null;
  const SubRowReference nullSubRow;
  const BaseRow* const nulls[] = {&null, &nullSubRow};
  for (const BaseRow* nothing : nulls) {
    EXPECT_THROW(nothing->columnEqual<StringValueReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(row.columnEqual<StringValueReference>(kName, *nothing, kName), KoNullRow);
    EXPECT_THROW(nothing->columnEqual<IpGenAddrReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(nothing->columnEqual<IpGenPrefixReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(nothing->columnEqualConst<StringValueReference>(kName, StringValueReference()),
                 KoNullRow);
    EXPECT_THROW(nothing->columnEqualConst<IpGenAddrReference>(kName, IpGenAddrReference()),
                 KoNullRow);
    EXPECT_THROW(nothing->columnEqualConst<IpGenPrefixReference>(kName, IpGenPrefixReference()),
                 KoNullRow);
    EXPECT_THROW(nothing->columnLess<StringValueReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(nothing->columnLess<IpGenAddrReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(nothing->columnLess<IpGenPrefixReference>(kName, row, kName), KoNullRow);
    EXPECT_THROW(nothing->columnHash<StringValueReference>(kName), KoNullRow);
    EXPECT_THROW(nothing->columnHash<IpGenAddrReference>(kName), KoNullRow);
    EXPECT_THROW(nothing->columnHash<IpGenPrefixReference>(kName), KoNullRow);
  }
}

TEST(ColumnComparison, ReadsNoFurtherThanTheRow) {
  // Exact heap blocks: the last column ends where the row ends.
  const PlainRow v4(imageWith(kAddr, bytesOf("0A 01 02 03")));
  const PlainRow other(imageWith(kAddr, bytesOf("0A 01 02 04")));
  EXPECT_TRUE(v4.columnLess<IpGenAddrReference>(kAddr, other, kAddr));
  EXPECT_TRUE(v4.columnLess<StringValueReference>(kAddr, other, kAddr));
  const PlainRow prefix(imageWith(kAddr, bytesOf("08 0A 00 00 00")));
  EXPECT_FALSE(prefix.columnLess<IpGenPrefixReference>(kAddr, prefix, kAddr));
  EXPECT_TRUE(prefix.columnEqual<IpGenPrefixReference>(kAddr, prefix, kAddr));
  const PlainRow oneByte(imageWith(kAddr, bytesOf("08")));
  EXPECT_FALSE(oneByte.columnEqual<IpGenPrefixReference>(kAddr, prefix, kAddr));
  EXPECT_EQ(oneByte.columnHash<IpGenPrefixReference>(kAddr), 0u);
  EXPECT_EQ(oneByte.columnHash<IpGenAddrReference>(kAddr), 0u);
}

TEST(ColumnComparisonDeathTest, TwoEmptyPrefixColumnsHaveNoOrder) {
  const FullRow row(1, 1);
  EXPECT_ASSERTION(static_cast<void>(row.columnLess<IpGenPrefixReference>(kPrefix, row, kName)),
                   kHeaderFile, kContainsSignature, kContainsCondition);
}

// ---------------------------------------------------------------------------------------------
// Hashes of addresses and prefixes; those of strings have a test of their own

std::uint32_t rangeHash(const Bytes& bytes) {
  std::uint32_t h = 0;
  for (const byte_t b : bytes) h ^= (h << 6) + (h >> 2) + b + 0x9E3779B9u;
  return h;
}

std::uint32_t prefixHash(std::uint32_t length, const Bytes& addr) {
  const std::uint32_t s = length + 0x9E3779B9u;
  return s ^ (rangeHash(addr) + 0x9E3779B9u + (s << 6) + (s >> 2));
}

template <typename T>
unsigned hashOf(const Bytes& value) {
  static_assert(std::is_same_v<decltype(BaseRow().columnHash<T>(kAddr)), unsigned int>);
  return PlainRow(imageWith(kAddr, value)).columnHash<T>(kAddr);
}

TEST(ColumnHash, GoldenValues) {
  EXPECT_EQ(hashOf<IpGenAddrReference>(bytesOf("00 00 00 00")), 0x484D221Au);
  EXPECT_EQ(hashOf<IpGenAddrReference>(bytesOf("0A 01 02 03")), 0x4F42A47Bu);
  EXPECT_EQ(hashOf<IpGenAddrReference>(Bytes(15) + bytesOf("01")), 0xD48509ACu);
  EXPECT_EQ(hashOf<IpGenPrefixReference>(bytesOf("08 0A 00 00 00")), 0x3CD107F2u);
  EXPECT_EQ(hashOf<IpGenPrefixReference>(bytesOf("00 00 00 00 00")), 0x05C79138u);
  EXPECT_EQ(hashOf<IpGenPrefixReference>(bytesOf("80") + Bytes(15) + bytesOf("01")), 0xB61F8A0Au);
}

TEST(ColumnHash, Addresses) {
  for (const std::string text : {"0.0.0.0", "10.1.2.3", "255.255.255.255", "::", "::1",
                                 "2001:db8::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    const IpGenAddr addr(text);
    Bytes bytes(BaseRow::encodeLength(addr));
    BaseRow::encode(bytes.data(), addr);
    EXPECT_EQ(hashOf<IpGenAddrReference>(bytes), rangeHash(bytes)) << text;
    EXPECT_NE(hashOf<IpGenAddrReference>(bytes), 0u) << text;
  }
}

TEST(ColumnHash, Prefixes) {
  for (const unsigned length : {0u, 1u, 8u, 32u, 33u, 128u, 129u, 255u}) {
    for (const std::string text : {"0.0.0.0", "10.1.2.3", "::", "2001:db8::1"}) {
      const IpGenAddr addr(text);
      Bytes bytes(BaseRow::encodeLength(addr));
      BaseRow::encode(bytes.data(), addr);
      EXPECT_EQ(hashOf<IpGenPrefixReference>(Bytes{static_cast<byte_t>(length)} + bytes),
                prefixHash(length, bytes))
          << text << '/' << length;
    }
  }
}

TEST(ColumnHash, EveryOtherLengthGivesZero) {
  EXPECT_EQ(FullRow(1, 1).columnHash<IpGenAddrReference>(kAddr), 0u);
  EXPECT_EQ(FullRow(1, 1).columnHash<IpGenPrefixReference>(kAddr), 0u);
  for (std::size_t length = 0; length <= 40; ++length) {
    const Bytes bytes(length, 0x77);
    if (length != 4 && length != 16) {
      EXPECT_EQ(hashOf<IpGenAddrReference>(bytes), 0u) << length;
    }
    if (length != 5 && length != 17) {
      EXPECT_EQ(hashOf<IpGenPrefixReference>(bytes), 0u) << length;
    }
  }
}

TEST(ColumnHash, EqualColumnsHashAlikeWhereverTheyStand) {
  FullRow row(1, 1);
  FullRow other(1, 1);
  setString(other, kName, "odd");
  writeColumn(row, kPrefix, IpGenPrefix("2001:db8::/32"));
  writeColumn(other, kPrefix, IpGenPrefix("2001:db8::/32"));
  writeColumn(row, kAddr, IpGenAddr("10.0.0.1"));
  writeColumn(other, kAddr, IpGenAddr("10.0.0.1"));
  EXPECT_EQ(row.columnHash<IpGenPrefixReference>(kPrefix),
            other.columnHash<IpGenPrefixReference>(kPrefix));
  EXPECT_EQ(row.columnHash<IpGenAddrReference>(kAddr), other.columnHash<IpGenAddrReference>(kAddr));
}

}  // namespace
}  // namespace rowtest
