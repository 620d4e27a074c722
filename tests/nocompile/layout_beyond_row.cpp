// Refused: a column lies in the header or ends beyond 65535 bytes

// No row is longer than 65535 bytes: the last column may end there, and no further.

#include <Korvo/TableRow.h>

struct Good : Korvo::RowLayout<1, Korvo::Column<"last", std::string, 65531>> {};
#ifdef BAD_LINE
struct Bad : Korvo::RowLayout<1, Korvo::Column<"last", std::string, 65532>> {};
const bool bad = [] {
  Korvo::TableRow<Bad> row;
  row.create();
  return row.toJson().empty();
}();
#endif

int main() {
  return Good::baseLength == 65535 ? 0 : 1;
}
