#pragma once

// The operations on the rows of this agent's table, which the registry hands out.
//
//   Korvo::rowOpsFactoryIs(netdb::makeRowOps);
//   const Korvo::RowOps_p_t rowOps = Korvo::getRowOps(netdb::prefixTable, netdb::prefixVersion);
//   if (const Korvo::RowFault fault = rowOps->check(bytes, length)) refuse(fault.text());

#include <Korvo/KorvoApi.h>
#include <Korvo/rowCheck.h>

#include <cstddef>
#include <string>

namespace Korvo {

/// What is done with the rows of a table by code that does not know their layout. The library names
/// this class and leaves it to its host.
class RowOpsBase {
 public:
  virtual ~RowOpsBase() = default;

  /// The first fault of received bytes that are to be a row of the table, or none.
  virtual RowFault check(const byte_t* bytes, std::size_t length) const = 0;
};

}  // namespace Korvo

namespace netdb {

/// The table of network prefixes, and the version of its layout: the registry's selector.
inline constexpr const char* prefixTable = "netdb/prefix";
inline constexpr unsigned char prefixVersion = 1;

/// The factory for the registry; gives null for a table or a version that is not this agent's.
Korvo::RowOps_p_t makeRowOps(const std::string& tableName, unsigned char version);

}  // namespace netdb
