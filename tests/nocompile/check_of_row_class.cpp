// Refused: rows are checked by their layout: checkRow<Port::Layout>

// A row class in place of its layout.

#include <Korvo/rowCheck.h>

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
  if (Korvo::checkRow<Port::Layout>(port.rowBuf(), port.rowLength())) return 1;
#ifdef BAD_LINE
  if (Korvo::checkRow<Port>(port.rowBuf(), port.rowLength())) return 1;
#endif
}
