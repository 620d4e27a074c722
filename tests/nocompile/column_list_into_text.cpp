// Refused: a column of text is written from what converts to std::string_view

// A list is no text.

#include <Korvo/TableRow.h>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"up", bool>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"hops", std::vector<Korvo::IpGenAddr>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  port.set<"name">("eth0");
#ifdef BAD_LINE
  port.set<"name">({"eth0", "eth1"});
#endif
}
