// Refused: a column is a fixed-width type of the catalogue

// Text is stored, so that a view is no type of a column.

#include <Korvo/TableRow.h>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
using Link = Korvo::TableRow<LinkLayout>;
#ifndef BAD_LINE
using Type = std::string;
#else
using Type = std::string_view;
#endif
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"bad", Type>, Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  port.set<"name">("eth0");
  port.set<"bad">("text");
  if (port.view<"bad">() == "text") return 1;
  return port.toJson().empty();
}
