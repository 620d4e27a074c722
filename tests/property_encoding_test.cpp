// What is encoded decodes to itself, alone, in columns and in arrays; and where the rules say
// otherwise, a test shows how.

#include "property_test_support.h"

#include <Korvo/rowCheck.h>

namespace {

using namespace Korvo;
using namespace proptest;

using Bytes = std::vector<byte_t>;

template <typename T>
Bytes encoded(const T& value) {
  Bytes bytes(BaseRow::encodeLength(value));
  RC_ASSERT(BaseRow::encode(bytes.data(), value) == bytes.size());
  return bytes;
}

template <typename T>
T decoded(const Bytes& bytes) {
  T value;
  BaseRow::decode(bytes.data(), static_cast<len_t>(bytes.size()), value);
  return value;
}

RC_GTEST_PROP(Encoding, TextsDecodeToThemselves, ()) {
  const std::string text = *someText();
  RC_ASSERT(decoded<std::string>(encoded(text)) == text);
  const Bytes bytes = encoded(text);
  RC_ASSERT(decoded<StringValueReference>(bytes).view() == text);
}

RC_GTEST_PROP(Encoding, AddressesDecodeToThemselves, (IpGenAddr addr)) {
  RC_PRE(addr.af() != unknown_);
  const Bytes bytes = encoded(addr);
  RC_ASSERT(decoded<IpGenAddr>(bytes) == addr);
  const auto reference = decoded<IpGenAddrReference>(bytes);
  RC_ASSERT(reference.af() == addr.af());
  RC_ASSERT(encoded(reference) == bytes);
}

RC_GTEST_PROP(Encoding, PrefixesWithoutHostBitsDecodeToThemselves, (IpGenPrefix prefix)) {
  prefix.clearLowerAddrBits();
  RC_ASSERT(decoded<IpGenPrefix>(encoded(prefix)) == prefix);
}

RC_GTEST_PROP(Encoding, PrefixReferencesKeepHostBits, (IpGenPrefix prefix)) {
  const Bytes bytes = encoded(prefix);
  const auto reference = decoded<IpGenPrefixReference>(bytes);
  RC_ASSERT(encoded(reference) == bytes);
  RC_ASSERT(IpGenPrefix(reference.af(), reference.mask(), reference.addr()) == prefix);
}

RC_GTEST_PROP(Encoding, PrefixesWithHostBitsAreWrittenButNotReadAsValues, (IpGenPrefix prefix)) {
  const Bytes bytes = encoded(prefix);
  if (validPrefix(prefix.addr(), static_cast<int>(prefix.mask()))) {
    RC_ASSERT(decoded<IpGenPrefix>(bytes) == prefix);
  } else {
    RC_ASSERT_THROWS_AS(decoded<IpGenPrefix>(bytes), KoOutOfRange);
  }
}

// ---------------------------------------------------------------------------------------------
// Columns and arrays

using Layout =
    RowLayout<1, Column<"text", std::string>, Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
              Column<"texts", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>>;

RC_GTEST_PROP(Encoding, ColumnsReadAsTheyWereWritten,
              (IpGenAddr addr, IpGenPrefix net, std::vector<bool> flags)) {
  net.clearLowerAddrBits();
  const std::string text = *someText();
  const auto texts = *rc::gen::container<std::vector<std::string>>(someText());
  const auto addrs =
      *rc::gen::container<std::vector<IpGenAddr>>(rc::gen::oneOf(addrOf(ipv4_), addrOf(ipv6_)));
  auto nets = *rc::gen::arbitrary<std::vector<IpGenPrefix>>();
  for (IpGenPrefix& prefix : nets) prefix.clearLowerAddrBits();

  TableRow<Layout> row;
  row.create();
  row.set<"flags">(flags);
  row.set<"nets">(nets);
  row.set<"text">(text);
  row.set<"addrs">(addrs);
  row.set<"texts">(texts);
  row.set<"net">(net);
  row.set<"addr">(addr);

  TableRow<Layout> received;
  received.adopt(row.rowBuf(), row.rowLength());
  RC_ASSERT(!checkRow(row.rowBuf(), row.rowLength(), Layout::info, PrefixRule::noHostBits));
  for (const auto& read : {row, received}) {
    RC_ASSERT(read.get<"text">() == text);
    RC_ASSERT(read.get<"addr">() == addr);
    RC_ASSERT(read.get<"net">() == net);
    RC_ASSERT(read.get<"texts">() == texts);
    RC_ASSERT(read.get<"addrs">() == addrs);
    RC_ASSERT(read.get<"nets">() == nets);
    RC_ASSERT(read.get<"flags">() == flags);
  }
}

TEST(Encoding, AnAddressWithoutAFamilyInAnArrayTakesOverTheBytesThatFollow) {
  TableRow<Layout> row;
  row.create();
  row.set<"addrs">({IpGenAddr(), IpGenAddr("1.2.3.4")});
  const std::vector<IpGenAddr> addrs = row.get<"addrs">();
  ASSERT_EQ(addrs.size(), 2U);
  EXPECT_EQ(addrs[0].af(), unknown_);
  EXPECT_NE(addrs[0], IpGenAddr());
  EXPECT_EQ(std::memcmp(addrs[0].bytes(), "\1\2\3\4\0\0\0\0\0\0\0\0\0\0\0\0", 16), 0);
  EXPECT_EQ(addrs[1], IpGenAddr("1.2.3.4"));
}

TEST(Encoding, TheLengthOfAPrefixIsKeptInEightBits) {
  // Only a prefix without a family has a longer one, and that encodes to nothing.
  IpGenPrefix prefix;
  prefix.maskIs(300);
  EXPECT_EQ(BaseRow::encodeLength(prefix), 0);
}

// ---------------------------------------------------------------------------------------------
// Texts of addresses

template <typename T>
std::string textOf(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

RC_GTEST_PROP(Text, AddressesParseFromWhatTheyPrint, (IpGenAddr addr)) {
  RC_PRE(addr.af() != unknown_);
  RC_ASSERT(IpGenAddr(textOf(addr)) == addr);
  RC_ASSERT(textOf(IpGenAddr(textOf(addr))) == textOf(addr));
}

RC_GTEST_PROP(Text, PrefixesWithoutHostBitsParseFromWhatTheyPrint, (IpGenPrefix prefix)) {
  prefix.clearLowerAddrBits();
  RC_ASSERT(IpGenPrefix(textOf(prefix)) == prefix);
  RC_ASSERT(textOf(IpGenPrefix(textOf(prefix))) == textOf(prefix));
}

}  // namespace
