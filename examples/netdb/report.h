#pragma once

// What the commands print on standard output.

#include <cstddef>
#include <ostream>

#include "rowTable.h"

namespace netdb {

/// A row as aligned lines of name and value.
void printRow(std::ostream& out, const PrefixRow& row);

/// The prefixes of a country's rows, at most `limit` of them (0: all), and their number.
void printCountry(std::ostream& out, const RowTable& table, const std::string& country,
                  std::size_t limit);

/// Rows per country (at most `limit` of them, 0: all, the largest first) and per prefix length.
void printStats(std::ostream& out, const RowTable& table, std::size_t limit);

}  // namespace netdb
