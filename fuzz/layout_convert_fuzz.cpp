// Rows of one layout into another and back. The result passes the check; every column of both is as
// it was, each dropped or missing one zero or null; what is refused changes nothing.
//
// Input: what becomes of each column, then a row.

#include <Korvo/RowConverter.h>

#include <string>

#include "row_fuzz_support.h"

namespace {

using namespace Korvo;  // NOLINT

/// What is known of a layout before its columns have places.
struct Draft {
  struct Item {
    std::string name;
    std::string type;
    std::vector<Draft> nested;  // one, or none
    bool isArray = false;
  };
  std::vector<Item> items;
};

constexpr const char* types[] = {
    "uint8_t", "uint16_t", "uint32_t", "uint64_t", "int8_t", "int16_t", "int32_t",   "int64_t",
    "float",   "double",   "bool",     "string_t", "IpAddr", "Ip6Addr", "IpGenAddr", "IpGenPrefix"};

Draft draftFrom(fuzz::Input& input, unsigned int depth) {
  Draft draft;
  const std::size_t count = input.below(7);
  for (std::size_t i = 0; i < count; ++i) {
    Draft::Item item;
    item.name = std::string(1, static_cast<char>('a' + i));
    const std::size_t kind = input.below(24);
    item.isArray = kind >= 20;
    if (kind % 4 == 3 && depth != 0) {
      item.nested.push_back(draftFrom(input, depth - 1));
    } else if (item.isArray) {
      constexpr const char* elements[] = {"string_t", "IpGenAddr", "IpGenPrefix", "bool"};
      item.type = elements[kind % 4];
    } else {
      item.type = types[kind % std::size(types)];
    }
    draft.items.push_back(std::move(item));
  }
  return draft;
}

/// The same columns with some dropped, some new, in another order; some numbers widened.
Draft changedFrom(fuzz::Input& input, const Draft& from) {
  Draft to;
  for (Draft::Item item : from.items) {
    const std::size_t what = input.below(8);
    if (what == 0) continue;
    if (what == 1) to.items.push_back({"new" + item.name, "string_t", {}, false});
    if (what >= 5) {
      for (const std::size_t last : {3U, 7U, 9U}) {
        for (std::size_t i = last == 9 ? 8 : last - 3; i < last; ++i) {
          if (item.type == types[i]) {
            item.type = types[i + 1];
            break;
          }
        }
      }
    }
    for (Draft& nested : item.nested) nested = changedFrom(input, nested);
    const auto place = static_cast<std::ptrdiff_t>(input.below(to.items.size() + 1));
    to.items.insert(to.items.begin() + place, std::move(item));
  }
  return to;
}

/// `gap` bytes stand in front of each column.
std::string textOf(const Draft& draft, std::size_t gap) {
  std::string columns;
  std::size_t at = 8;
  for (const Draft::Item& item : draft.items) {
    at += gap;
    std::string type = item.nested.empty() ? item.type : textOf(item.nested[0], gap);
    columns +=
        item.name + ' ' + type + (item.isArray ? "[]" : "") + " @" + std::to_string(at) + ' ';
    at += item.nested.empty() && !item.isArray
              ? getKorvoTypeLength(static_cast<unsigned short>(korvoCppTypeNameToType(item.type)))
              : 4U;
  }
  return "row 1 base " + std::to_string(at) + " { " + columns + "}";
}

/// The columns that both have tell the same.
void requireSameValues(const BaseRow& from, const LayoutInfo& fromLayout, const BaseRow& to,
                       const LayoutInfo& toLayout);

std::string jsonOf(const BaseRow& row, const LayoutInfo& layout, ColumnInfo column) {
  column.name = {};
  return Korvo::detail::rowAsJson(row, {layout.rowType, layout.baseLength, {&column, 1}});
}

void requireSameColumn(const BaseRow& from, const LayoutInfo& fromLayout, const ColumnInfo& theirs,
                       const BaseRow& to, const LayoutInfo& toLayout, const ColumnInfo& ours) {
  if (theirs.type == floatType_ && ours.type == doubleType_) {
    const auto value = from.fixedColumn<float>(theirs.offset);
    const auto wide = to.fixedColumn<double>(ours.offset);
    FUZZ_REQUIRE(value != value ? wide != wide : static_cast<double>(value) == wide);
  } else if (theirs.type != structType_) {
    FUZZ_REQUIRE(jsonOf(from, fromLayout, theirs) == jsonOf(to, toLayout, ours));
  } else if (theirs.isArray) {
    const auto before = from.arrayReference<SubRowReference>(theirs.offset);
    const auto after = to.arrayReference<SubRowReference>(ours.offset);
    FUZZ_REQUIRE(before.size() == after.size());
    for (unsigned int i = 0; i < before.size(); ++i) {
      requireSameValues(before[i], *theirs.nested, after[i], *ours.nested);
    }
  } else {
    SubRowReference before;
    SubRowReference after;
    from.getColumn(theirs.offset, before);
    to.getColumn(ours.offset, after);
    FUZZ_REQUIRE(before.isNull() == after.isNull());
    if (!before.isNull()) requireSameValues(before, *theirs.nested, after, *ours.nested);
  }
}

void requireSameValues(const BaseRow& from, const LayoutInfo& fromLayout, const BaseRow& to,
                       const LayoutInfo& toLayout) {
  FUZZ_REQUIRE(from.rowOid() == to.rowOid());
  for (const ColumnInfo& ours : toLayout.columns) {
    const ColumnInfo* found = nullptr;
    for (const ColumnInfo& theirs : fromLayout.columns) {
      if (theirs.name == ours.name) found = &theirs;
    }
    if (found != nullptr) {
      requireSameColumn(from, fromLayout, *found, to, toLayout, ours);
      continue;
    }
    Korvo::AnyRow empty{DynamicLayout(toLayout)};
    empty.create();
    FUZZ_REQUIRE(jsonOf(to, toLayout, ours) == jsonOf(empty, toLayout, ours));
  }
}

/// Gives the converted row, a null row where it would be too long.
Korvo::AnyRow converted(const Korvo::AnyRow& from, const DynamicLayout& ours) {
  Korvo::AnyRow to(ours);
  const RowConverter<Korvo::AnyRow> converter(from.layout().info(), ours);
  const fuzz::ExactBlock block(fuzz::bytesOf(from));
  try {
    converter.convert(block.data(), from.rowLength(), to);
  } catch (const KoOutOfRange&) {
    FUZZ_REQUIRE(to.isNull());
    return to;
  }
  FUZZ_REQUIRE(!checkRow(to.rowBuf(), to.rowLength(), ours.info()));
  requireSameValues(from, from.layout().info(), to, ours.info());
  return to;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t gaps = input.byte();
  const Draft draft = draftFrom(input, 2);
  const Draft changed = changedFrom(input, draft);
  const DynamicLayout theirs(textOf(draft, gaps % 3));
  const DynamicLayout ours(textOf(changed, gaps / 3 % 3));
  fuzz::Bytes bytes = fuzz::builtRow(input, theirs.info(), 3);
  fuzz::putWord(bytes, rowTypeOffset, theirs.info().rowType);
  if (bytes.size() > maxRowLength || checkRow(bytes.data(), bytes.size(), theirs.info())) return 0;
  Korvo::AnyRow row(theirs);
  row.adopt(bytes.data(), bytes.size());

  const LayoutComparison there(theirs.info(), ours.info());
  FUZZ_REQUIRE(there.conversion() != Conversion::refused && there.refusal().empty());
  FUZZ_REQUIRE((there.conversion() == Conversion::same) ==
               (theirs.fingerprint() == ours.fingerprint()));
  const Korvo::AnyRow to = converted(row, ours);
  if (to.isNull()) return 0;
  const LayoutComparison back(ours.info(), theirs.info());
  if (back.conversion() == Conversion::refused) {  // a narrower number
    FUZZ_REQUIRE(!back.refusal().empty());
    return 0;
  }
  const Korvo::AnyRow again = converted(to, theirs);
  // There and back without loss, a row tells the same.
  if (!again.isNull() && there.conversion() <= Conversion::lossless) {
    FUZZ_REQUIRE(again.toJson() == row.toJson());
  }
  return 0;
}
