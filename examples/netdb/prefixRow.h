#pragma once

// The rows of this agent: one for each network prefix.

#include <Korvo/Table.h>

#include <string>

namespace netdb {

/// Where a row came from.
struct OriginLayout
    : Korvo::RowLayout<2,  //
                       Korvo::Column<"file", std::string>, Korvo::Column<"line", std::uint32_t>> {};
using OriginRow = Korvo::TableRow<OriginLayout>;

struct PrefixLayout : Korvo::RowLayout<1,                                            //
                                       Korvo::Column<"prefix", Korvo::IpGenPrefix>,  //
                                       Korvo::Column<"first", Korvo::IpGenAddr>,     //
                                       Korvo::Column<"last", Korvo::IpGenAddr>,      //
                                       Korvo::Column<"country", std::string>,        //
                                       Korvo::Column<"line", std::uint32_t>,         //
                                       Korvo::Column<"addresses", std::uint64_t>,    // saturates
                                       Korvo::Column<"ipv6", bool>,                  //
                                       Korvo::Column<"tags", std::vector<std::string>>,
                                       Korvo::Column<"origin", Korvo::Nested<OriginLayout>>> {};
using PrefixRow = Korvo::TableRow<PrefixLayout>;

/// All rows, as they are published.
using PrefixTable = Korvo::Table<PrefixRow>;
inline constexpr const char* prefixTable = "netdb/prefix";

}  // namespace netdb
