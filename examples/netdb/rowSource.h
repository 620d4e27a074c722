#pragma once

// Ranges become rows.

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "prefixRow.h"
#include "rangeFile.h"

namespace netdb {

/// Makes one row for each prefix of each range of the input files, in their order. A prefix has the
/// same object id wherever it stands: of two files with a few differences, few rows differ. Only
/// where two prefixes want the same one, or one prefix stands there twice, does their order count.
class RowSource {
 public:
  /// Told of each malformed line: file, line number and reason.
  using Complaint =
      std::function<void(const std::string& file, std::uint32_t line, const std::string& reason)>;

  /// Throws InputError if one of the files cannot be opened; nothing has been read then.
  RowSource(const std::vector<std::string>& paths, const Complaint& complaint);

  /// Makes the next row; false when there are no more. Throws InputError if reading fails.
  bool next(PrefixRow& row);

  /// Whether one of the rows so far has the object id.
  bool made(Korvo::oid_t oid) const { return oids_.contains(oid); }

  /// How much of the input has been read, from 0 to 1.
  double progress() const;

 private:
  bool nextRange();
  Korvo::oid_t newOid(const Korvo::IpGenPrefix& prefix);

  std::vector<std::unique_ptr<RangeFile>> files_;
  std::size_t current_ = 0;
  RangeLine range_;
  std::vector<Korvo::IpGenPrefix> prefixes_;
  std::size_t nextPrefix_ = 0;
  std::unordered_set<Korvo::oid_t> oids_;
};

/// Makes the row of one prefix.
PrefixRow makeRow(const Korvo::IpGenPrefix& prefix, const std::string& country,
                  const std::string& file, std::uint32_t line, Korvo::oid_t oid);

}  // namespace netdb
