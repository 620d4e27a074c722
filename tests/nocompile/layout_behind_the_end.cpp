// Refused: a column lies in the header or ends beyond 65535 bytes

// Nor does a column that follows the one before it stand beyond 65535.

#include <Korvo/TableRow.h>

struct Good : Korvo::RowLayout<1, Korvo::Column<"almost", std::string, 65530>,
                               Korvo::Column<"last", std::uint8_t>> {};
#ifdef BAD_LINE
struct Bad : Korvo::RowLayout<1, Korvo::Column<"almost", std::string, 65530>,
                              Korvo::Column<"last", std::uint16_t>> {};
const bool bad = [] {
  Korvo::TableRow<Bad> row;
  row.create();
  return row.toJson().empty();
}();
#endif

int main() {
  return Good::baseLength == 65535 ? 0 : 1;
}
