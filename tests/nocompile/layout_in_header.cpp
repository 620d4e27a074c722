// Refused: a column lies in the header or ends beyond 65535 bytes

// No column stands over a row's length, type or oid.

#include <Korvo/TableRow.h>

struct Good : Korvo::RowLayout<1, Korvo::Column<"first", std::uint8_t, 8>> {};
#ifdef BAD_LINE
struct Bad : Korvo::RowLayout<1, Korvo::Column<"first", std::uint8_t, 7>> {};
const bool bad = [] {
  Korvo::TableRow<Bad> row;
  row.create();
  return row.toJson().empty();
}();
#endif

int main() {
  return Good::baseLength == 9 ? 0 : 1;
}
