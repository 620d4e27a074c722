#pragma once

// What the commands print on standard output.

#include <cstddef>
#include <ostream>
#include <string>

#include "prefixRow.h"

namespace netdb {

/// A row as aligned lines of name and value.
void printRow(std::ostream& out, const PrefixRow& row);

/// The prefixes of a country's rows in their order, at most `limit` of them (0: all), and their
/// number, which it returns.
std::size_t printCountry(std::ostream& out, PrefixTable& table, const std::string& country,
                         std::size_t limit);

/// Rows per country (at most `limit` of them, 0: all, the largest first) and per prefix length.
void printStats(std::ostream& out, const PrefixTable& table, std::size_t limit);

}  // namespace netdb
