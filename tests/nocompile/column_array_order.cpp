// Refused: arrays and nested rows have no order and no hash

// Arrays are not sorted by.

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
  (void)port.less<"name">(port);
#ifdef BAD_LINE
  (void)port.less<"tags">(port);
#endif
}
