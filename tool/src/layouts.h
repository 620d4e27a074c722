#pragma once

// The layouts that a command knows, read from files.

#include "definition.h"

#include <Korvo/layoutText.h>

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace korvotool {

struct NamedLayout {
  std::string name;  ///< empty if the row has none
  Korvo::DynamicLayout layout;

  /// What people are told: the name, or the row type.
  std::string title() const;
};

/// All that a file says: a plain text, or "-" for standard input. Throws Failure for a file that
/// cannot be read or is longer than any definition.
std::string textOfFile(const std::string& path);

/// A definition file; throws Failure that names the file where Definition throws.
Definition readDefinition(const std::string& path);

/// The layouts of a file: the text of one, or a definition of several rows.
class Layouts {
 public:
  Layouts() = default;
  /// Throws Failure for a file that cannot be read or is no definition, for a row type that two of
  /// its rows have, and for a name that it does not have. With a name, it is that row alone; a row
  /// without a name that is alone in its file answers to any.
  explicit Layouts(const std::string& path, const std::string& row = {});

  const std::vector<NamedLayout>& all() const { return all_; }
  bool empty() const { return all_.empty(); }
  /// The layout of rows of this type, or null.
  const NamedLayout* find(std::uint16_t rowType) const {
    for (const NamedLayout& named : all_) {
      if (named.layout.info().rowType == rowType) return &named;
    }
    return nullptr;
  }
  /// The same, also where it is a row that was not asked for.
  const NamedLayout* findAny(std::uint16_t rowType) const {
    if (const NamedLayout* const named = find(rowType)) return named;
    for (const NamedLayout& named : others_) {
      if (named.layout.info().rowType == rowType) return &named;
    }
    return nullptr;
  }
  /// Whether rows of this type are nested in those that were asked for.
  bool isNested(std::uint16_t rowType) const { return nestedTypes_.contains(rowType); }
  /// Takes what a recording tells of a table; it stays where it is as long as this does.
  const NamedLayout& recordedIs(NamedLayout named) {
    return recorded_.emplace_back(std::move(named));
  }
  const std::list<NamedLayout>& recorded() const { return recorded_; }
  /// The only layout; throws Failure if there are several.
  const NamedLayout& single() const;

 private:
  std::string path_;
  std::vector<NamedLayout> all_;
  std::vector<NamedLayout> others_;
  std::set<std::uint16_t> nestedTypes_;
  std::list<NamedLayout> recorded_;
};

}  // namespace korvotool
