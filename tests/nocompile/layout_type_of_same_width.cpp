// Refused: a column is a fixed-width type of the catalogue

// A type that is as wide as one of the catalogue is not that type.

#include <Korvo/TableRow.h>

#include <type_traits>

struct LinkLayout : Korvo::RowLayout<2, Korvo::Column<"up", bool>> {};
using Link = Korvo::TableRow<LinkLayout>;
#ifndef BAD_LINE
using Type = std::int64_t;
#else
using Type = std::conditional_t<std::is_same_v<std::int64_t, long>, long long, long>;
#endif
struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"bad", Type>, Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Port port;
  port.create();
  port.set<"name">("eth0");
  port.set<"bad">(5);
  if (port.get<"bad">() == 5) return 1;
  return port.toJson().empty();
}
