#include <Korvo/TableRow.h>

#include <iostream>

struct PortLayout
    : Korvo::RowLayout<7,  // the table's row type
                       Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"address", Korvo::IpGenAddr>,
                       Korvo::Column<"tags", std::vector<std::string>>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create(1001);  // a new row with oid 1001
  port.set<"speed">(10000);
  port.set<"name">("eth0");
  port.set<"address">(Korvo::IpGenAddr("10.1.2.3"));
  port.set<"tags">({"uplink", "core"});

  Port received;  // what another process makes of the bytes
  received.adopt(port.rowBuf(), port.rowLength());
  std::cout << received << '\n' << received.toJson() << '\n';
  std::cout << received.view<"name">() << ' ' << received.view<"address">() << '\n';
}
