// A generated header compiles, and declares what was defined.

#include "ports.h"

#include <Korvo/layoutText.h>
#include <gtest/gtest.h>

namespace {

namespace byHand {

using LinkLayout =
    Korvo::RowLayout<2, Korvo::Column<"up", bool>, Korvo::Column<"peer", Korvo::IpGenAddr>>;
using OriginLayout =
    Korvo::RowLayout<3, Korvo::Column<"file", std::string>, Korvo::Column<"line", std::uint32_t>>;
using PortLayout = Korvo::RowLayout<
    7, Korvo::Column<"u8", std::uint8_t>, Korvo::Column<"u16", std::uint16_t>,
    Korvo::Column<"u32", std::uint32_t>, Korvo::Column<"u64", std::uint64_t>,
    Korvo::Column<"i8", std::int8_t>, Korvo::Column<"i16", std::int16_t>,
    Korvo::Column<"i32", std::int32_t>, Korvo::Column<"i64", std::int64_t>,
    Korvo::Column<"real", float>, Korvo::Column<"wide", double>, Korvo::Column<"on", bool>,
    Korvo::Column<"owner", Korvo::oid_t>, Korvo::Column<"size", Korvo::len_t>,
    Korvo::Column<"v4", Korvo::IpAddr>, Korvo::Column<"v6", Korvo::Ip6Addr>,
    Korvo::Column<"name", std::string>, Korvo::Column<"net", Korvo::IpGenPrefix>,
    Korvo::Column<"tags", std::vector<std::string>>, Korvo::Column<"rate, in \"%\" \a", float>,
    Korvo::Column<"flags", std::vector<bool>, 100>,
    Korvo::Column<"nets", std::vector<Korvo::IpGenPrefix>>,
    Korvo::Column<"peers", std::vector<Korvo::IpGenAddr>, 94>,
    Korvo::Column<"link", Korvo::Nested<LinkLayout>, 110>,
    Korvo::Column<"origin", Korvo::Nested<OriginLayout>>>;

}  // namespace byHand

TEST(Generated, IsTheDefinedLayout) {
  using namespace net::tests;
  static_assert(Korvo::fingerprint<PortLayout>() == Korvo::fingerprint<byHand::PortLayout>());
  static_assert(Korvo::fingerprint<PortOriginLayout>() ==
                Korvo::fingerprint<byHand::OriginLayout>());
  static_assert(Korvo::fingerprint<EmptyLayout>() == Korvo::fingerprint<Korvo::RowLayout<9>>());
  EXPECT_EQ(layoutText(PortLayout::info), layoutText(byHand::PortLayout::info));
}

TEST(Generated, GivesRowClasses) {
  net::tests::Port port;
  port.create(1001);
  port.set<"name">("eth0");
  port.set<"flags">({true, false});
  EXPECT_EQ(port.view<"name">().view(), "eth0");
  EXPECT_EQ(port.rowType(), 7);
  net::tests::Link link;
  link.create();
  link.set<"up">(true);
  EXPECT_EQ(link.toJson(), R"({"up":true,"peer":null})");
}

}  // namespace
