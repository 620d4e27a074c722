// Refused: a nested row is written from a TableRow or SubRow of the column's layout

// Rows of another layout are refused where they would be nested.

#include <Korvo/TableRow.h>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"up", bool>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  Korvo::TableRow<LinkLayout> link;
  link.create();
  port.set<"link">(link);
#ifdef BAD_LINE
  port.set<"link">(port);
#endif
}
