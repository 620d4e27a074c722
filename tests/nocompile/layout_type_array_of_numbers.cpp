// Refused: a column is a fixed-width type of the catalogue

// There are no arrays of numbers.

#include <Korvo/TableRow.h>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
using Link = Korvo::TableRow<LinkLayout>;
#ifndef BAD_LINE
using Type = std::vector<bool>;
#else
using Type = std::vector<int>;
#endif
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"bad", Type>, Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  port.set<"name">("eth0");
  if (port.view<"bad">().empty()) return 1;
  return port.toJson().empty();
}
