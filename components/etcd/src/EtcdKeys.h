#pragma once

// What stands in the cluster. Under "korvo/SYSTEM/PUBLISHER/":
//
//   TABLE/row/0000002a   a row's bytes, by its oid
//   TABLE/layout         the layout's text
//   mark                 where the rows stand
//   owner                who may write; bound to a lease
//
// Every transaction of a publisher writes `mark`, as its last operation, and compares it and
// `owner` with what it knows: so what another one wrote in between is noticed, and so is that a
// transaction whose answer was lost has been made. A batch that does not fit into one transaction
// is several; the marks of all but the last say that they are parts, and where the last whole state
// is. Only a mark that is no part is a state for readers.

#include <Korvo/korvo_types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Korvo::detail {

struct EtcdMark {
  struct Table {
    std::string name;
    std::uint64_t rows = 0;
    std::uint64_t digest = 0;
    bool isKept = false;  ///< an earlier publisher left it; it is no part of the state
  };
  std::uint64_t history = 0;   ///< chosen by chance when it begins; kept by later publishers
  std::uint64_t sequence = 0;  ///< of the state, or of the one that parts lead to
  std::uint64_t part = 0;      ///< 0: a state
  std::int64_t cut = 0;        ///< of parts: the revision of the last state; 0: there is none
  std::uint64_t batches = 0;   ///< of the publishers, since the history began
  std::vector<Table> tables;   ///< of parts: all that may have rows, without their numbers

  /// The table, if it is part of the state; else null.
  const Table* find(std::string_view table) const;
  /// Why there is none.
  std::string absence(const std::string& publisher, const std::string& table) const;

  /// As text, for people who look into the cluster.
  std::string encode() const;
  /// Nothing for a text of another form.
  static std::optional<EtcdMark> decode(const std::string& text);
};

/// The keys of one publisher.
class EtcdKeys {
 public:
  explicit EtcdKeys(std::string prefix) : prefix_(std::move(prefix)) {}

  const std::string& all() const { return prefix_; }
  std::string mark() const { return prefix_ + "mark"; }
  std::string owner() const { return prefix_ + "owner"; }
  std::string layout(const std::string& table) const { return prefix_ + table + "/layout"; }
  std::string rows(const std::string& table) const { return prefix_ + table + "/row/"; }
  std::string row(const std::string& table, oid_t oid) const;

  /// The table and oid of a row's key; nothing for others.
  struct Row {
    std::string_view table;
    oid_t oid;
  };
  std::optional<Row> rowOf(std::string_view key) const;

  /// Whether a table of that name has keys that are no other table's, and stands on a line of a
  /// mark.
  static bool mayName(std::string_view table);
  /// The end of the range of all keys that begin so.
  static std::string endOf(std::string begin);

 private:
  std::string prefix_;
};

/// The digits of an oid in keys.
std::string oidDigits(oid_t oid);
/// Nothing for what are not such digits.
std::optional<oid_t> oidOf(std::string_view digits);

}  // namespace Korvo::detail
