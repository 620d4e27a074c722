// Any text as a layout's: it is refused with a place inside the text, or read; then its canonical
// text says the same, and no two columns share a byte.

#include <Korvo/layoutText.h>

#include <string>

#include "fuzz_support.h"

namespace {

using namespace Korvo;  // NOLINT

void requireSound(const LayoutInfo& layout) {
  std::vector<bool> taken(layout.baseLength);
  std::fill_n(taken.begin(), rowHeaderLength, true);
  for (const ColumnInfo& column : layout.columns) {
    FUZZ_REQUIRE(column.width != 0);
    for (std::size_t i = column.offset; i < std::size_t{column.offset} + column.width; ++i) {
      FUZZ_REQUIRE(!taken.at(i));
      taken.at(i) = true;
    }
    for (const ColumnInfo& other : layout.columns) {
      FUZZ_REQUIRE(&other == &column || other.name != column.name);
    }
    FUZZ_REQUIRE((column.nested != nullptr) == (column.type == structType_));
    if (column.nested != nullptr) requireSound(*column.nested);
  }
}

bool areEqual(const LayoutInfo& a, const LayoutInfo& b) {
  if (a.rowType != b.rowType || a.baseLength != b.baseLength) return false;
  return std::equal(a.columns.begin(), a.columns.end(), b.columns.begin(), b.columns.end(),
                    [](const ColumnInfo& x, const ColumnInfo& y) {
                      return x.name == y.name && x.type == y.type && x.offset == y.offset &&
                             x.width == y.width && x.isArray == y.isArray &&
                             (x.nested == nullptr) == (y.nested == nullptr) &&
                             (x.nested == nullptr || areEqual(*x.nested, *y.nested));
                    });
}

void requireReadable(const DynamicLayout& layout) {
  requireSound(layout.info());
  const std::string canonical = layout.text();
  const DynamicLayout again(canonical);
  FUZZ_REQUIRE(areEqual(again.info(), layout.info()));
  FUZZ_REQUIRE(again.text() == canonical);
  FUZZ_REQUIRE(again.fingerprint() == layout.fingerprint());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  try {
    requireReadable(DynamicLayout(text));
  } catch (const KoTextError& e) {
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    FUZZ_REQUIRE(e.line() >= 1 && e.line() <= lines);
    FUZZ_REQUIRE(e.column() >= 1 && e.column() <= size + 1);
    FUZZ_REQUIRE(std::string(e.what()).find('\n') == std::string::npos);
  } catch (const KoOutOfRange&) {
    // The canonical text of a layout may be longer than the text that was read.
    FUZZ_REQUIRE(size > maxLayoutText / 8);
  }
  return 0;
}
