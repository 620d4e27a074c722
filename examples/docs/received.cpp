// What "reading bytes from others" shows.

#include <Korvo/rowCheck.h>

#include <iostream>
#include <string>
#include <vector>

struct PortLayout
    : Korvo::RowLayout<7,  //
                       Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"net", Korvo::IpGenPrefix>> {};
using Port = Korvo::TableRow<PortLayout>;

namespace {

// What the README shows.
void checkOnly(const void* bytes, std::size_t length) {
  if (const Korvo::RowFault fault = Korvo::checkRow<PortLayout>(bytes, length)) {
    std::cerr << "row refused: " << fault.text() << '\n';
  }
}

bool receive(const void* bytes, std::size_t length, Port& port) {
  if (const Korvo::RowFault fault = Korvo::checkRow<PortLayout>(bytes, length)) {
    std::cout << "row refused: " << fault.text() << '\n';
    return false;
  }
  try {
    port.adopt(bytes, length);
  } catch (const Korvo::KoInvalidArgument& e) {  // another table's row
    std::cout << "row refused: " << e.what() << '\n';
    return false;
  }
  return true;
}

}  // namespace

int main() {
  Port sent;
  sent.create(1);
  sent.set<"name">("eth0");
  sent.set<"net">(Korvo::IpGenPrefix(Korvo::IpAddr("10.1.2.3"), 16));
  std::vector<Korvo::byte_t> bytes(sent.rowBuf(), sent.rowBuf() + sent.rowLength());
  checkOnly(bytes.data(), bytes.size());

  Port port;
  receive(bytes.data(), bytes.size(), port);
  std::cout << port.view<"name">() << '\n';

  receive(bytes.data(), bytes.size() - 1, port);  // torn
  bytes[12] = 200;                                // the name's offset
  receive(bytes.data(), bytes.size(), port);
  bytes[12] = 20;
  bytes[2] = 8;  // the row type
  receive(bytes.data(), bytes.size(), port);

  // Host bits behind the prefix length are allowed unless they are asked for.
  bytes[2] = 7;
  const Korvo::RowFault fault =
      Korvo::checkRow<PortLayout>(bytes.data(), bytes.size(), Korvo::RowRule::forIndex);
  std::cout << fault.text() << '\n';
}
