// Refused: two columns have the same name

// A name says which column is meant.

#include <Korvo/TableRow.h>

struct Good
    : Korvo::RowLayout<1, Korvo::Column<"name", std::string>, Korvo::Column<"Name", std::string>> {
};
#ifdef BAD_LINE
struct Bad
    : Korvo::RowLayout<1, Korvo::Column<"name", std::string>, Korvo::Column<"name", std::string>> {
};
const bool bad = [] {
  Korvo::TableRow<Bad> row;
  row.create();
  return row.toJson().empty();
}();
#endif

int main() {
  return Good::baseLength == 16 ? 0 : 1;
}
