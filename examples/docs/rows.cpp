// What the guide shows of rows.

#include <Korvo/TableRow.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

struct LinkLayout
    : Korvo::RowLayout<2, Korvo::Column<"up", bool>, Korvo::Column<"peer", Korvo::IpGenAddr>> {};
using Link = Korvo::TableRow<LinkLayout>;

struct PortLayout
    : Korvo::RowLayout<7,  // the table's row type
                       Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"lanes", std::vector<bool>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

// A layout with offsets of its own: two bytes behind "kind" stay free.
struct FrameLayout : Korvo::RowLayout<8, Korvo::Column<"kind", std::uint16_t>,
                                      Korvo::Column<"length", std::uint32_t, 12>> {};
static_assert(FrameLayout::offset<"kind"> == 8 && FrameLayout::baseLength == 16);

// A row class written by hand.
class Host : public Korvo::BaseRow {
 public:
  static constexpr Korvo::len_t nameSlot = 8;
  static constexpr Korvo::len_t loadOffset = 12;
  static constexpr Korvo::len_t baseLength = 16;

  void create(Korvo::oid_t oid) { installNew(baseLength, 3, oid); }

  vcdType& vcd() const override {
    static vcdType slots = {nameSlot};
    return slots;
  }
  Korvo::len_t columnOffset(const std::string& name) const override {
    return name == "name" ? nameSlot : loadOffset;
  }
  Korvo::len_t baseRowLength() override { return baseLength; }
  bool isFullyDefined() const override { return true; }
};

struct NameLess {
  bool operator()(const Port& a, const Port& b) const { return a.less<"name">(b); }
};
struct NameEqual {
  bool operator()(const Port& a, const Port& b) const { return a.equal<"name">(b); }
};
struct NameHash {
  std::size_t operator()(const Port& port) const { return port.hash<"name">(); }
};

namespace {

Port writeColumns() {
  Port port;          // a null row: it has no buffer
  port.create(1001);  // all columns are zero or null
  port.set<"speed">(10000);
  port.set<"name">("eth0");
  port.set<"net">(Korvo::IpGenPrefix("10.1.0.0/16"));
  port.set<"tags">({"uplink", "core"});
  port.set<"lanes">({true, false, true});
  std::cout << port << '\n';
  return port;
}

void limits(Port port) {
  try {
    port.set<"name">(std::string(40000, 'x'));
  } catch (const Korvo::KoOutOfRange& e) {
    std::cout << e.what() << "; the name is still " << port.view<"name">() << '\n';
  }
}

void fillNewRow() {
  Port uplink;
  uplink.create(1002);
  {
    auto writer = uplink.writer();
    writer.set<"name">("eth1");
    writer.set<"net">(Korvo::IpGenPrefix("10.2.0.0/16"));
    writer.set<"tags">({"uplink"});
  }  // gives back what memory is left
  std::cout << uplink << ' ' << uplink.view<"name">() << '\n';
}

void readColumns(const Port& port) {
  const std::uint32_t speed = port.get<"speed">();
  const std::string name = port.get<"name">();                       // a copy
  const Korvo::StringValueReference sameName = port.view<"name">();  // in place
  const Korvo::IpGenPrefixReference net = port.view<"net">();        // in place
  std::cout << name << ' ' << sameName.size() << ' ' << speed << ' ' << net << '\n';
}

void arrays(const Port& port) {
  for (const Korvo::StringValueReference tag : port.view<"tags">()) std::cout << tag << ' ';
  const auto lanes = port.view<"lanes">();
  std::cout << lanes.size() << ' ' << lanes[0] << lanes[1] << lanes[2] << '\n';

  std::vector<std::string> tags = {"first"};
  port.getColumn(PortLayout::offset<"tags">, tags);  // appends
  std::cout << tags.size() << '\n';
}

Port nestedRows(Port port) {
  Link link;
  link.create();
  link.set<"up">(true);
  link.set<"peer">(Korvo::IpGenAddr("10.1.0.9"));
  port.set<"link">(link);

  const auto nested = port.view<"link">();
  std::cout << nested.view<"peer">() << ' ' << nested.get<"up">() << '\n';

  Link changed;  // to change a nested row: copy it, write it, set it again
  changed.adopt(nested.rowBuf(), nested.rowLength());
  changed.set<"up">(false);
  port.set<"link">(changed);
  return port;
}

void sharing(const Port& port) {
  Port copy = port;          // shares the buffer
  copy.set<"speed">(40000);  // copies it first
  std::cout << port.get<"speed">() << ' ' << copy.get<"speed">() << '\n';
}

void exchange(const Port& port) {
  const void* bytes = port.rowBuf();
  const std::size_t length = port.rowLength();

  Port received;
  received.adopt(bytes, length);
  std::cout << received.toJson() << '\n';
}

void indexes(const Port& port) {
  Port other = port;
  other.set<"name">("eth1");

  const std::set<Port, NameLess> byName = {other, port};
  std::cout << byName.begin()->view<"name">() << '\n';

  const std::unordered_set<Port, NameHash, NameEqual> names = {port, other, port};
  std::cout << names.size() << '\n';

  std::vector<Port> rows = {port, other};
  Korvo::sortRows<"speed", "name">(rows);
  std::cout << rows[0].view<"name">() << ' ' << (rows[0] == other) << (rows[1] == other) << '\n';
}

void stringOrder() {
  const Korvo::StringValueReference ab("ab", 2);
  const Korvo::StringValueReference abc("abc", 3);
  std::cout << std::boolalpha << (ab < abc) << ' ' << (abc < ab) << ' ' << (abc <= ab) << '\n';
}

void handWritten() {
  Host host;
  host.create(5);
  host.setColumn<std::string>(Host::nameSlot, "h1", Host::baseLength);
  host.setFixedColumn(Host::loadOffset, 0.5F);

  Korvo::StringValueReference name;
  host.getColumn(Host::nameSlot, name);
  std::cout << name << ' ' << host.fixedColumn<float>(Host::loadOffset) << '\n';
}

}  // namespace

int main() {
  Port port = writeColumns();
  limits(port);
  fillNewRow();
  readColumns(port);
  arrays(port);
  port = nestedRows(port);
  sharing(port);
  exchange(port);
  indexes(port);
  stringOrder();
  handWritten();
}
