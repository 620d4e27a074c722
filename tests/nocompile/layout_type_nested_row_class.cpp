// Refused: a column is a fixed-width type of the catalogue

// A row class in place of its layout.

#include <Korvo/TableRow.h>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
using Link = Korvo::TableRow<LinkLayout>;
#ifndef BAD_LINE
using Type = Korvo::Nested<LinkLayout>;
#else
using Type = Korvo::Nested<Link>;
#endif
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"bad", Type>, Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  port.set<"name">("eth0");
  Link link;
  link.create();
  port.set<"bad">(link);
  return port.toJson().empty();
}
