// Refused: stack memory

// A view of a row that dies with its function.

#include <Korvo/TableRow.h>

struct LinkLayout
    : Korvo::RowLayout<2, Korvo::Column<"up", bool>, Korvo::Column<"name", std::string>> {};
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"up", bool>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

Korvo::StringValueReference nameOf(const Port& port) {
  return port.view<"name">();
}
std::uint32_t speedOfCopy(const Port& port) {
  const Port copy = port;
  return copy.view<"speed">();  // a number is no view
}
bool isUp(const Port& port) {
  const auto link = port.view<"link">();
  const auto again = Korvo::SubRow<LinkLayout>(link).view<"name">();  // of the row, not of the view
  return link.view<"up">() && again.empty();
}
#ifdef BAD_LINE
Korvo::StringValueReference nameOfCopy(const Port& port) {
  const Port copy = port;
  return copy.view<"name">();
}
#endif

int main() {
  const Port port;
  const std::uint32_t speed = Port(port).view<"speed">();
  return nameOf(port).empty() && !isUp(port) && speedOfCopy(port) == speed ? 0 : 1;
}
