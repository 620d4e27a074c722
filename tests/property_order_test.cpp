// Orders and hashes: where an order is promised, it is a strict weak order, and what is equal has
// the same hash. Where the rules break a law on purpose, a test shows how.

#include "property_test_support.h"

#include <Korvo/TableRow.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

using namespace Korvo;
using namespace proptest;

IpAddr v4Of(const IpGenAddr& addr) {
  return IpAddr(loadField<std::uint32_t>(addr.bytes()));
}
Ip6Addr v6Of(const IpGenAddr& addr) {
  return Ip6Addr(addr.bytes());
}

constexpr auto less = [](const auto& a, const auto& b) { return a < b; };

/// < > <= >= == != of a total order agree with <.
template <typename T>
void requireTotalOrder(const T& a, const T& b) {
  RC_ASSERT((a > b) == (b < a));
  RC_ASSERT((a <= b) == !(b < a));
  RC_ASSERT((a >= b) == !(a < b));
  RC_ASSERT((a == b) == (!(a < b) && !(b < a)));
  RC_ASSERT((a != b) == !(a == b));
}

// ---------------------------------------------------------------------------------------------
// Addresses

RC_GTEST_PROP(Order, AddressesHaveATotalOrder, (IpGenAddr a, IpGenAddr b, IpGenAddr c)) {
  requireStrictWeakOrder(a, b, c, less);
  requireTotalOrder(a, b);
  requireStrictWeakOrder(v4Of(a), v4Of(b), v4Of(c), less);
  requireTotalOrder(v4Of(a), v4Of(b));
  requireStrictWeakOrder(v6Of(a), v6Of(b), v6Of(c), less);
  requireTotalOrder(v6Of(a), v6Of(b));
}

RC_GTEST_PROP(Order, AddressReferencesAreOrderedAsTheirValues, (IpGenAddr a, IpGenAddr b)) {
  const Encoded<IpGenAddrReference> x(a);
  const Encoded<IpGenAddrReference> y(b);
  RC_ASSERT((*x < *y) == (a < b));
  RC_ASSERT((*x == *y) == (a == b));
  requireTotalOrder(*x, *y);
}

// ---------------------------------------------------------------------------------------------
// Prefixes

RC_GTEST_PROP(Order, PrefixesHaveAStrictWeakOrder, (IpGenPrefix a, IpGenPrefix b, IpGenPrefix c)) {
  requireStrictWeakOrder(a, b, c, less);
}

RC_GTEST_PROP(Order, PrefixReferencesAreOrderedAsTheirValues, (IpGenPrefix a, IpGenPrefix b)) {
  const Encoded<IpGenPrefixReference> x(a);
  const Encoded<IpGenPrefixReference> y(b);
  RC_ASSERT((*x < *y) == (a < b));
  RC_ASSERT((*x > *y) == (b < a));
  RC_ASSERT((*x == *y) == (a == b));
  RC_ASSERT((*x).contains(*y) == a.contains(b));
}

RC_GTEST_PROP(Order, AMoreSpecificPrefixComesFirst, (IpGenPrefix a, IpGenPrefix b)) {
  if (a.mask() < b.mask() && a.contains(b)) {
    RC_ASSERT(b < a);
    RC_ASSERT(!(a < b));
  }
}

RC_GTEST_PROP(Order, WithoutHostBitsPrefixesHaveATotalOrder, (IpGenPrefix a, IpGenPrefix b)) {
  a.clearLowerAddrBits();
  b.clearLowerAddrBits();
  RC_ASSERT((a == b) == (!(a < b) && !(b < a)));
  const Encoded<IpGenPrefixReference> x(a);
  const Encoded<IpGenPrefixReference> y(b);
  requireTotalOrder(*x, *y);
}

TEST(Order, HostBitsMakePrefixesEquivalentThatAreNotEqual) {
  const IpGenPrefix a(IpAddr("10.0.0.1"), 8);
  const IpGenPrefix b(IpAddr("10.0.0.2"), 8);
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a == b);
  // A set therefore takes only one of them.
  EXPECT_EQ((std::set<IpGenPrefix>{a, b}.size()), 1U);

  // <= and >= of their references ask for < or ==, so neither holds: <= is no order for these.
  const Encoded<IpGenPrefixReference> x(a);
  const Encoded<IpGenPrefixReference> y(b);
  EXPECT_FALSE(*x <= *y);
  EXPECT_FALSE(*x >= *y);
  EXPECT_FALSE(*x == *y);
}

// ---------------------------------------------------------------------------------------------
// Texts

StringValueReference referenceTo(const std::string& text) {
  return {text.data(), static_cast<len_t>(text.size())};
}

RC_GTEST_PROP(Order, TextsHaveATotalOrderByLess, ()) {
  const std::string a = *someText();
  const std::string b = *someText();
  const std::string c = *someText();
  requireStrictWeakOrder(referenceTo(a), referenceTo(b), referenceTo(c), less);
  const auto x = referenceTo(a);
  const auto y = referenceTo(b);
  RC_ASSERT((x < y) == (a < b));
  RC_ASSERT((x > y) == (b < a));
  RC_ASSERT((x == y) == (a == b));
  RC_ASSERT((x == y) == (!(x < y) && !(y < x)));
}

RC_GTEST_PROP(Order, LessOrEqualOfTextsLooksAtTheCommonBytesOnly, ()) {
  const std::string a = *someText();
  const std::string b = *someText();
  const std::size_t common = std::min(a.size(), b.size());
  const int order = a.substr(0, common).compare(b.substr(0, common));
  RC_ASSERT((referenceTo(a) <= referenceTo(b)) == (order <= 0));
  RC_ASSERT((referenceTo(a) >= referenceTo(b)) == (order >= 0));
}

TEST(Order, LessOrEqualOfTextsIsNoOrder) {
  const std::string ab = "ab";
  const std::string abc = "abc";
  const std::string abd = "abd";
  // Not the negation of >, though < and > are each other's mirror.
  EXPECT_TRUE(referenceTo(abc) > referenceTo(ab));
  EXPECT_TRUE(referenceTo(abc) <= referenceTo(ab));
  // Both ways round for texts that are not equal.
  EXPECT_TRUE(referenceTo(ab) <= referenceTo(abc));
  EXPECT_FALSE(referenceTo(ab) == referenceTo(abc));
  // Not transitive: abd <= ab and ab <= abc, but not abd <= abc.
  EXPECT_TRUE(referenceTo(abd) <= referenceTo(ab));
  EXPECT_TRUE(referenceTo(ab) <= referenceTo(abc));
  EXPECT_FALSE(referenceTo(abd) <= referenceTo(abc));
}

// ---------------------------------------------------------------------------------------------
// Columns

using Layout = RowLayout<1, Column<"text", std::string>, Column<"addr", IpGenAddr>,
                         Column<"net", IpGenPrefix>>;

TableRow<Layout> rowOf(const std::string& text, const IpGenAddr& addr, const IpGenPrefix& net) {
  TableRow<Layout> row;
  row.create();
  row.set<"net">(net);
  row.set<"text">(text);
  row.set<"addr">(addr);
  return row;
}

RC_GTEST_PROP(Order, ColumnsAreOrderedAsTheirValuesAndEqualOnesHaveOneHash,
              (IpGenAddr addr, IpGenAddr otherAddr, IpGenPrefix net, IpGenPrefix otherNet)) {
  const std::string text = *someText();
  const std::string otherText = *someText();
  const auto row = rowOf(text, addr, net);
  const auto other = rowOf(otherText, otherAddr, otherNet);
  RC_ASSERT(row.less<"text">(other) == (text < otherText));
  RC_ASSERT(row.less<"addr">(other) == (addr < otherAddr));
  RC_ASSERT(row.less<"net">(other) == (net < otherNet));
  RC_ASSERT(row.equal<"text">(other) == (text == otherText));
  RC_ASSERT(row.equal<"addr">(other) == (addr == otherAddr));
  RC_ASSERT(row.equal<"net">(other) == (net == otherNet));
  if (text == otherText) RC_ASSERT(row.hash<"text">() == other.hash<"text">());
  if (addr == otherAddr) RC_ASSERT(row.hash<"addr">() == other.hash<"addr">());
  if (net == otherNet) RC_ASSERT(row.hash<"net">() == other.hash<"net">());
}

// ---------------------------------------------------------------------------------------------
// Hashes

RC_GTEST_PROP(Hash, EqualValuesHaveOneHash,
              (IpGenAddr a, IpGenAddr b, IpGenPrefix p, IpGenPrefix q)) {
  RC_CLASSIFY(a == b);
  RC_CLASSIFY(p == q);
  if (a == b) RC_ASSERT(std::hash<IpGenAddr>()(a) == std::hash<IpGenAddr>()(b));
  if (p == q) RC_ASSERT(std::hash<IpGenPrefix>()(p) == std::hash<IpGenPrefix>()(q));
  if (v4Of(a) == v4Of(b)) RC_ASSERT(std::hash<IpAddr>()(v4Of(a)) == std::hash<IpAddr>()(v4Of(b)));
  if (v6Of(a) == v6Of(b)) {
    RC_ASSERT(std::hash<Ip6Addr>()(v6Of(a)) == std::hash<Ip6Addr>()(v6Of(b)));
  }
  // A copy is equal, so the laws above are not empty.
  const IpGenPrefix copy = p;
  RC_ASSERT(copy == p && std::hash<IpGenPrefix>()(copy) == std::hash<IpGenPrefix>()(p));
}

}  // namespace
