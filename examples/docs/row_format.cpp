// The annotated dump that the description of the row format shows: a row's bytes in order, and what
// they mean.

#include <Korvo/TableRow.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

struct PortLayout
    : Korvo::RowLayout<7,  //
                       Korvo::Column<"speed", std::uint32_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"address", Korvo::IpGenAddr>,
                       Korvo::Column<"tags", std::vector<std::string>>> {};
using Port = Korvo::TableRow<PortLayout>;

namespace {

class Dump {
 public:
  explicit Dump(const Port& row) : row_(row), buf_(row.rowBuf()) {}

  void print() {
    std::cout << "offset  bytes              type       value        meaning\n";
    line(Korvo::rowLengthOffset, 2, "len_t", text(row_.rowLength()), "row length");
    line(Korvo::rowTypeOffset, 2, "uint16_t", text(row_.rowType()), "row type");
    line(Korvo::rowOidOffset, 4, "oid_t", text(row_.rowOid()), "row oid");
    for (const Korvo::ColumnInfo& column : PortLayout::columns) {
      const std::string name(column.name);
      if (!Korvo::korvoTypeIsVariableLength(column.type)) {
        line(column.offset, column.width, typeName(column), text(row_.get<"speed">()), name);
      } else {
        line(column.offset, column.width, "slot", slotText(buf_, column.offset),
             name + (Korvo::VColType::at(buf_, column.offset).isArray() ? ", an array" : ""));
      }
    }
    variableArea();
  }

 private:
  template <typename T>
  static std::string text(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
  }
  static std::string typeName(const Korvo::ColumnInfo& column) {
    return Korvo::getKorvoTypeName(column.type);
  }
  static std::string slotText(const Korvo::byte_t* from, std::size_t offset) {
    const Korvo::VColType& slot = Korvo::VColType::at(from, offset);
    return text(slot.offset()) + ", " + text(slot.length());
  }

  void line(std::size_t offset, std::size_t count, const std::string& type,
            const std::string& value, const std::string& meaning) const {
    std::ostringstream bytes;
    bytes << std::hex << std::setfill('0');
    for (std::size_t i = 0; i < count; ++i) {
      bytes << std::setw(2) << unsigned{buf_[offset + i]} << (i + 1 < count ? " " : "");
    }
    std::cout << std::setw(6) << offset << "  " << std::left << std::setw(17) << bytes.str() << "  "
              << std::setw(9) << type << "  " << std::setw(11) << value << "  " << std::right
              << meaning << '\n';
  }

  // The values, in the order in which they stand there.
  void variableArea() const {
    for (const auto& [dataOffset, slotOffset] : Korvo::varFieldMap(row_)) {
      const auto column = std::find_if(PortLayout::columns.begin(), PortLayout::columns.end(),
                                       [at = slotOffset](const auto& c) { return c.offset == at; });
      const Korvo::len_t length = Korvo::VColType::at(buf_, slotOffset).length();
      const std::string name(column->name);
      if (column->isArray) {
        array(dataOffset, name);
      } else if (column->type == Korvo::stringType_) {
        line(dataOffset, length, typeName(*column), quoted(row_.view<"name">()), name);
      } else {
        line(dataOffset, length, typeName(*column), text(row_.view<"address">()), name);
      }
    }
  }

  void array(Korvo::len_t at, const std::string& name) const {
    const auto tags = row_.view<"tags">();
    line(at, Korvo::arrayHeaderLength, "count", text(tags.size()), name + ": elements, mark");
    for (unsigned int i = 0; i < tags.size(); ++i) {
      const std::size_t slot = Korvo::arrayHeaderLength + sizeof(Korvo::VColType) * i;
      line(at + slot, sizeof(Korvo::VColType), "slot", slotText(buf_ + at, slot),
           name + '[' + text(i) + ']');
    }
    for (unsigned int i = 0; i < tags.size(); ++i) {
      const Korvo::StringValueReference tag = tags[i];
      line(static_cast<std::size_t>(tag.data() - reinterpret_cast<const char*>(buf_)), tag.size(),
           "string_t", quoted(tag), name + '[' + text(i) + ']');
    }
  }

  static std::string quoted(const Korvo::StringValueReference& value) {
    return text(Korvo::FMT(value));
  }

  const Port& row_;
  const Korvo::byte_t* buf_;
};

void showPlaces(const std::string& when, const Port& port) {
  std::cout << when << ": length " << port.rowLength();
  for (const Korvo::ColumnInfo& column : PortLayout::columns) {
    if (!Korvo::korvoTypeIsVariableLength(column.type)) continue;
    const Korvo::VColType& slot = Korvo::VColType::at(port.rowBuf(), column.offset);
    std::cout << ", " << column.name << ' ' << slot.offset() << '+' << slot.length();
  }
  std::cout << '\n';
}

}  // namespace

int main() {
  Port port;
  port.create(1001);
  port.set<"speed">(10000);
  port.set<"name">("eth0");
  port.set<"address">(Korvo::IpGenAddr("10.1.2.3"));
  port.set<"tags">({"uplink", "core"});
  Dump(port).print();

  std::cout << '\n';
  showPlaces("as written", port);
  port.set<"name">("lo");
  showPlaces("name = lo", port);
  port.set<"name">("ethernet0");
  showPlaces("name = ethernet0", port);
}
