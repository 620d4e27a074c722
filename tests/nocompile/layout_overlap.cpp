// Refused: two columns overlap

// Each byte of the fixed area belongs to one column, in whatever order they are declared.

#include <Korvo/TableRow.h>

struct Good : Korvo::RowLayout<1, Korvo::Column<"behind", std::string, 20>,
                               Korvo::Column<"before", std::uint64_t, 12>> {};
#ifdef BAD_LINE
struct Bad : Korvo::RowLayout<1, Korvo::Column<"behind", std::string, 20>,
                              Korvo::Column<"before", std::uint64_t, 13>> {};
const bool bad = [] {
  Korvo::TableRow<Bad> row;
  row.create();
  return row.toJson().empty();
}();
#endif

int main() {
  return Good::baseLength == 24 ? 0 : 1;
}
