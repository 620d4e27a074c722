// What "Layouts" shows.

#include <Korvo/AnyRow.h>
#include <Korvo/RowConverter.h>
#include <Korvo/layoutText.h>
#include <Korvo/rowCheck.h>

#include <iostream>
#include <string>

struct LinkLayout
    : Korvo::RowLayout<2,  //
                       Korvo::Column<"up", bool>, Korvo::Column<"peer", Korvo::IpGenAddr>> {};
struct PortLayout
    : Korvo::RowLayout<7,  //
                       Korvo::Column<"speed", std::uint64_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"mtu", std::uint32_t>, Korvo::Column<"vlan", std::uint16_t>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

// What another process declares: an older program of the same table.
struct OldPortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::uint64_t>,
                       Korvo::Column<"ifName", std::string>, Korvo::Column<"mtu", std::uint16_t>,
                       Korvo::Column<"lanes", std::vector<bool>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};

// A change of the layout stops the build until somebody has thought of the other processes.
static_assert(Korvo::fingerprint<PortLayout>().leading() == 0x1ad657d5);

namespace {

void receive(const Korvo::RowConverter<Port>& converter, const void* bytes, std::size_t length,
             Port& port) {
  const Korvo::LayoutInfo& sender = converter.comparison().sender().info();
  if (const Korvo::RowFault fault = Korvo::checkRow(bytes, length, sender)) {
    std::cout << "row refused: " << fault.text() << '\n';
    return;
  }
  converter.convert(bytes, length, port);
}

void convert(const std::string& textFromTheSender) {
  const Korvo::DynamicLayout sender(textFromTheSender);
  const Korvo::ConversionRules rules = {{{"name", "ifName"}}, {"speed"}};
  const Korvo::RowConverter<Port> converter(sender.info(), rules);
  std::cout << converter.comparison().text();

  Korvo::TableRow<OldPortLayout> sent;
  sent.create(1001);
  sent.set<"speed">(10000);
  sent.set<"ifName">("eth0");
  sent.set<"mtu">(1500);
  sent.set<"lanes">({true, true});
  Port port;
  receive(converter, sent.rowBuf(), sent.rowLength(), port);
  std::cout << port.toJson() << '\n';
}

void refuse() {
  const Korvo::DynamicLayout sender("row 7 base 16 { speed double @8 }");
  try {
    const Korvo::RowConverter<Port> converter(sender.info(), {{}, {"mtu"}});
  } catch (const Korvo::KoInvalidArgument& e) {
    std::cout << e.what() << '\n';
  }
}

void anyRow() {
  Korvo::AnyRow row{Korvo::DynamicLayout(
      "row 7 base 28 { speed uint64_t @8 name string_t @16 tags string_t[] @20 "
      "net IpGenPrefix @24 }")};
  row.fromJson(R"({"speed":18446744073709551615,"name":"eth0","tags":["uplink"]})");
  row.textIs("net", "10.1.0.0/16");
  row.jsonIs("tags", R"(["core","uplink"])");
  std::cout << row.text("speed") << '\n' << row.toJson() << '\n';
  try {
    row.jsonIs("tags", R"(["core",5])");
  } catch (const Korvo::KoTextError& e) {
    std::cout << e.what() << '\n';
  }
}

void badText() {
  try {
    const Korvo::DynamicLayout layout("row 7 base 16 {\n  speed uint33_t @8\n}\n");
  } catch (const Korvo::KoTextError& e) {
    std::cout << e.what() << '\n';
  }
}

}  // namespace

int main() {
  std::cout << Korvo::layoutText(PortLayout::info);
  std::cout << Korvo::fingerprint<PortLayout>().text() << '\n';
  badText();
  convert(Korvo::layoutText(OldPortLayout::info));
  refuse();
  anyRow();
}
