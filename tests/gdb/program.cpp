// A program that stops with one of each in its hands, for a debugger to print.

#include <Korvo/Scheduler.h>
#include <Korvo/TableRow.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct LinkLayout
    : Korvo::RowLayout<2, Korvo::Column<"up", bool>, Korvo::Column<"peer", Korvo::IpGenAddr>> {};

}  // namespace

struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"lanes", std::vector<bool>>,
                       Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using Port = Korvo::TableRow<PortLayout>;

struct AllLayout
    : Korvo::RowLayout<9, Korvo::Column<"u8", std::uint8_t>, Korvo::Column<"u16", std::uint16_t>,
                       Korvo::Column<"u32", std::uint32_t>, Korvo::Column<"u64", std::uint64_t>,
                       Korvo::Column<"i8", std::int8_t>, Korvo::Column<"i16", std::int16_t>,
                       Korvo::Column<"i32", std::int32_t>, Korvo::Column<"i64", std::int64_t>,
                       Korvo::Column<"f", float, 50>, Korvo::Column<"d", double>,
                       Korvo::Column<"b", bool>, Korvo::Column<"v4", Korvo::IpAddr>,
                       Korvo::Column<"v6", Korvo::Ip6Addr>,
                       Korvo::Column<"addresses", std::vector<Korvo::IpGenAddr>>,
                       Korvo::Column<"nets", std::vector<Korvo::IpGenPrefix>>,
                       Korvo::Column<"port", Korvo::Nested<PortLayout>>> {};
using All = Korvo::TableRow<AllLayout>;

// A layout without a name of its own, and what can go wrong in the name of a column.
using OddLayout = Korvo::RowLayout<1, Korvo::Column<"a \"b\", <c>", bool>,
                                   Korvo::Column<"longer than others", std::string>>;
using Odd = Korvo::TableRow<OddLayout>;

class NotedPort : public Port {
 public:
  int note = 5;
};

class Host : public Korvo::BaseRow {
 public:
  void create() { installNew(16, 3, 77); }
  bool byHand = true;
};

class Counter : public Korvo::Schedulable {
 public:
  using Schedulable::Schedulable;
  void run(bool) override { ++count; }
  int count = 0;
};

Port port;
Port shared;
Port nullRow;
Port beyond;
Port tooShort;
Port lost;
All everyType;
Odd odd;
NotedPort noted;
Host host;
Korvo::BaseRow* anyRow = &everyType;
Korvo::BaseRow* anyHost = &host;
Korvo::SubRow<LinkLayout> nestedRow;
Korvo::SubRowReference subRow;
Korvo::BaseRow* anySubRow = &nestedRow;
Korvo::SubRowReference noSubRow;
Korvo::KoRowBuf* buffer;
Korvo::KoRowBuf noBuffer;
Korvo::VColType tagsSlot;

Korvo::StringValueReference text;
Korvo::StringValueReference oddText("tab\t \"quote\" \\ \303\244 \377", 19);
Korvo::StringValueReference noText;
Korvo::StringValueReference wrongText(reinterpret_cast<const char*>(16), 5);
Korvo::IpGenAddrReference addressReference;
Korvo::IpGenAddrReference noAddressReference;
Korvo::IpGenPrefixReference prefixReference;
Korvo::IpGenPrefixReference noPrefixReference;
Korvo::ArrayReference<Korvo::StringValueReference> tags;
Korvo::ArrayReference<bool> lanes;
Korvo::ArrayReference<Korvo::IpGenPrefix> nets;
Korvo::ArrayReference<std::string> noArray;
Korvo::ArrayReference<std::string> wrongArray(reinterpret_cast<const Korvo::byte_t*>(16));

Korvo::IpAddr v4("10.1.2.3");
Korvo::Ip6Addr v6("2001:db8::1");
Korvo::IpGenAddr address("192.168.0.1");
Korvo::IpGenAddr noAddress;
Korvo::IpGenPrefix net("2001:db8::/40");
Korvo::IpGenPrefix noNet;

Korvo::KoPtr<Korvo::Scheduler> scheduler = std::make_shared<Korvo::Scheduler>("main");
Counter idle("idle");
Counter first("first", scheduler);
Counter second("second", scheduler);
Counter withdrawn("withdrawn", scheduler);
Korvo::Schedulable* anyUnit = &first;
Korvo::Scheduler* queue = scheduler.get();
Korvo::RunnableEntry* queuePlace;

// Rows' bytes, and memory in which anything may stand.
Korvo::byte_t* portBytes;
Korvo::byte_t* everyTypeBytes;
Korvo::byte_t* oddBytes;
alignas(16) unsigned char anything[1024];

namespace {

void fillRows() {
  Korvo::TableRow<LinkLayout> ownLink;
  ownLink.create(3);
  ownLink.set<"up">(true);
  ownLink.set<"peer">(Korvo::IpGenAddr("2001:db8::9"));

  port.create(1001);
  port.set<"speed">(10000);
  port.set<"name">("eth0");
  port.set<"net">(Korvo::IpGenPrefix("10.1.0.0/16"));
  port.set<"tags">({"uplink", "core"});
  port.set<"lanes">({true, false, true});
  port.set<"link">(ownLink);
  nestedRow = port.view<"link">();
  subRow = nestedRow;
  text = port.view<"name">();
  addressReference = nestedRow.view<"peer">();
  prefixReference = port.view<"net">();
  tags = port.view<"tags">();
  lanes = port.view<"lanes">();
  std::memcpy(&tagsSlot, port.rowBuf() + PortLayout::offset<"tags">, sizeof tagsSlot);

  shared = port;
  shared.set<"name">("eth1");
  noted.create(1002);
  noted.shareContents(shared);
  host.create();

  everyType.create(12);
  everyType.set<"u8">(255);
  everyType.set<"u16">(65535);
  everyType.set<"u32">(4294967295U);
  everyType.set<"u64">(18446744073709551615U);
  everyType.set<"i8">(-128);
  everyType.set<"i16">(-32768);
  everyType.set<"i32">(-2147483647 - 1);
  everyType.set<"i64">(-9223372036854775807 - 1);
  everyType.set<"f">(0.5F);
  everyType.set<"d">(-1e100);
  everyType.set<"b">(true);
  everyType.set<"v4">(v4);
  everyType.set<"v6">(v6);
  everyType.set<"addresses">({address, noAddress, Korvo::IpGenAddr("::1")});
  everyType.set<"nets">({net, Korvo::IpGenPrefix("0.0.0.0/0")});
  everyType.set<"port">(port);
  odd.create(13);
  odd.set<"longer than others">(std::string(300, 'x'));
  nets = Korvo::ArrayReference<Korvo::IpGenPrefix>(
      everyType.rowBuf() +
      Korvo::VColType::at(everyType.rowBuf(), AllLayout::offset<"nets">).offset());
}

// Rows that no writer of the library leaves.
void fillWrongRows() {
  beyond.create(1);
  beyond.set<"tags">({"x", "y"});
  Korvo::byte_t* bytes = beyond.rowBuf();
  Korvo::VColType::at(bytes, PortLayout::offset<"name">).valueIs(60000, 30000, false);
  Korvo::VColType::at(bytes, PortLayout::offset<"net">).valueIs(3, 5, false);
  const Korvo::len_t array = Korvo::VColType::at(bytes, PortLayout::offset<"tags">).offset();
  Korvo::VColType::at(bytes, array + 2U).valueIs(4000, 2, false);
  bytes[array] = 200;  // elements, of two that there are

  tooShort.create(1);
  tooShort.rowBuf()[0] = 12;

  // Its buffer cannot be read. Nobody frees it: the program ends here.
  lost.create(1);
  lost.replaceRow(reinterpret_cast<Korvo::byte_t*>(16));
}

void fillQueue() {
  for (Counter* unit : {&first, &withdrawn, &second}) {
    unit->clientReadyIs(true);
    unit->runnableIs(true);
  }
  scheduler->run(1, 0.0, true);
  first.runnableIs(true);  // behind the others
  withdrawn.cleanup();
  second.disabledIs(true);
  queuePlace = first.entry();
}

// Where the debugger stops.
[[gnu::noinline]] void stopHere(const Korvo::BaseRow& row) {
  asm volatile("" : : "r"(&row) : "memory");
}

/// A row's owner, which the class keeps to itself.
struct Owner : Port {
  static Korvo::KoRowBuf* of(const Port& row) { return (row.*&Owner::rowBuf_).get(); }
};

}  // namespace

int main() {
  fillRows();
  fillWrongRows();
  fillQueue();
  buffer = Owner::of(port);
  portBytes = port.rowBuf();
  everyTypeBytes = everyType.rowBuf();
  oddBytes = odd.rowBuf();
  stopHere(port);
  std::_Exit(0);
}
