#pragma once

// Files become a table, all at once: what they hold is in one batch, and if one of them cannot be
// read nothing changes.

#include <Korvo/Batch.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent.h"
#include "prefixRow.h"
#include "rowSource.h"

namespace netdb {

/// Reads the files in time slices, beginning with its first turn. One that is destroyed before its
/// end changes nothing.
class Loader : public Unit {
 public:
  struct Result {
    std::uint64_t rows = 0;  ///< of the files
    std::uint64_t added = 0;
    std::uint64_t changed = 0;
    std::uint64_t removed = 0;
    std::string fault;  ///< why nothing changes, if so
  };
  struct Told {
    RowSource::Complaint malformed;  ///< may throw InputError, which is then the fault
    std::function<void(double progress, std::uint64_t rows)> read;
    std::function<void(const Result& result)> ended;  ///< may destroy the loader
  };

  Loader(Agent& agent, PrefixTable& table, std::vector<std::string> paths, Told told);

 private:
  void run(bool arg) override;
  bool takeRows(int count);
  void commit();

  PrefixTable& table_;
  std::vector<std::string> paths_;
  Told told_;
  std::optional<RowSource> source_;
  Korvo::Batch<PrefixTable> batch_;
  Result result_;
};

}  // namespace netdb
