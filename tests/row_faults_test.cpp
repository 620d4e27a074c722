// Promises of the row module at the edges where several of its rules meet: what a null row answers
// before anything else, rows whose class installs its own blocks, rows whose class tells little or
// changes its mind, references that reach into a row from outside.

#include "row_test_support.h"

#include <Korvo/TableRow.h>

#include <malloc.h>

#include <deque>
#include <optional>
#include <random>

namespace {

using namespace rowtest;
using Korvo::Column;
using Korvo::Nested;
using Korvo::RowLayout;
using Korvo::RowWriter;
using Korvo::TableRow;

constexpr len_t base = PlainRow::kBase;

// ---------------------------------------------------------------------------------------------
// Bulk reads

std::size_t vectorGrowths(std::size_t columns, const std::function<void(std::size_t&)>& gather) {
  std::size_t growths = 0;
  for (std::size_t i = 0; i < columns; ++i) gather(growths);
  return growths;
}

template <typename T>
T numbered(unsigned number);
template <>
std::string numbered<std::string>(unsigned number) {
  return "number " + std::to_string(number);
}
template <>
IpGenAddr numbered<IpGenAddr>(unsigned number) {
  return IpGenAddr(Korvo::IpAddr(number));
}
template <>
IpGenPrefix numbered<IpGenPrefix>(unsigned number) {
  return IpGenPrefix(Korvo::IpAddr(number), 32);
}

template <typename T>
class GatheredColumns : public testing::Test {};
using ElementTypes = testing::Types<std::string, IpGenAddr, IpGenPrefix>;
TYPED_TEST_SUITE(GatheredColumns, ElementTypes, );

// One vector takes the arrays of many columns: its storage is copied a few times, not once for
// each column.
TYPED_TEST(GatheredColumns, MoveTheVectorAFewTimesOnly) {
  using T = TypeParam;
  PlainRow row(1, 2);
  const std::vector<T> three = {numbered<T>(1), numbered<T>(2), numbered<T>(3)};
  row.setColumn<T>(PlainRow::kList, three, base);

  constexpr std::size_t columns = 20'000;
  std::vector<T> all;
  const std::size_t growths = vectorGrowths(columns, [&](std::size_t& count) {
    const T* const before = all.data();
    row.getColumn<T>(PlainRow::kList, all);
    if (all.data() != before) ++count;
  });
  ASSERT_EQ(all.size(), 3 * columns);
  EXPECT_EQ(all.front(), three.front());
  EXPECT_EQ(all.back(), three.back());
  EXPECT_LT(growths, 100u);
}

TEST(GatheredStrings, MoveTheVectorAFewTimesOnly) {
  PlainRow row(1, 2);
  row.setColumn<std::string>(PlainRow::kList, std::vector<std::string>{"a", "b", "c"}, base);
  std::vector<std::string> all;
  const std::size_t growths = vectorGrowths(20'000, [&](std::size_t& count) {
    const std::string* const before = all.data();
    row.getVarElemArray<std::string>(PlainRow::kList, all);
    if (all.data() != before) ++count;
  });
  EXPECT_EQ(all.size(), 60'000u);
  EXPECT_LT(growths, 100u);
}

TYPED_TEST(GatheredColumns, OneColumnAloneMovesTheVectorOnce) {
  using T = TypeParam;
  PlainRow row(1, 2);
  row.setColumn<T>(PlainRow::kList, std::vector<T>(100, numbered<T>(7)), base);
  std::vector<T> out;
  row.getColumn<T>(PlainRow::kList, out);
  EXPECT_EQ(out.capacity(), 100u);
}

// ---------------------------------------------------------------------------------------------
// Arrays whose elements stand in any order

struct Element {
  unsigned offset;
  Bytes bytes;
};

/// An array that holds its elements where they say.
Bytes arrayOf(const std::vector<Element>& elements, std::size_t length) {
  Bytes array(length, 0xEE);
  storeField<std::uint16_t>(array.data(), static_cast<std::uint16_t>(0x1000 | elements.size()));
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const Element& element = elements[i];
    writeSlot(array.data() + 2 + 4 * i,
              {element.offset, static_cast<unsigned>(element.bytes.size()), false});
    std::copy(element.bytes.begin(), element.bytes.end(),
              array.begin() + static_cast<std::ptrdiff_t>(element.offset));
  }
  return array;
}

Bytes ascending(byte_t first, std::size_t count) {
  Bytes bytes(count);
  for (byte_t& byte : bytes) byte = first++;
  return bytes;
}

TEST(ArrayAlone, AddressesNeedNotBeInOrder) {
  const Bytes high = ascending(0x10, 16);
  const Bytes low = ascending(0x30, 16);
  const ExactBlock array(arrayOf({{26, high}, {10, low}}, 42));
  const ArrayReference<IpGenAddr> view(array.data());
  ASSERT_EQ(view.size(), 2u);
  EXPECT_EQ(view[0], IpGenAddr(Korvo::ipv6_, high.data()));
  EXPECT_EQ(view[1], IpGenAddr(Korvo::ipv6_, low.data()));
}

TEST(ArrayAlone, PrefixesNeedNotBeInOrder) {
  const Bytes high = bytesOf("80") + ascending(0x10, 16);
  const Bytes low = bytesOf("80") + ascending(0x30, 16);
  const ExactBlock array(arrayOf({{27, high}, {10, low}}, 44));
  const ArrayReference<IpGenPrefix> view(array.data());
  ASSERT_EQ(view.size(), 2u);
  EXPECT_EQ(view[0], IpGenPrefix(Korvo::ipv6_, 128, high.data() + 1));
  EXPECT_EQ(view[1], IpGenPrefix(Korvo::ipv6_, 128, low.data() + 1));
}

TEST(ArrayAlone, EveryOrderOfFourElementsReadsTheSame) {
  const std::vector<Bytes> values = {bytesOf("0A 01 02 03"), ascending(0x10, 16),
                                     bytesOf("0A 04 05 06"), ascending(0x50, 16)};
  std::vector<unsigned> order = {0, 1, 2, 3};
  do {
    std::vector<Element> elements(4);
    unsigned at = 2 + 4 * 4;
    for (const unsigned i : order) {
      elements[i] = {at, values[i]};
      at += static_cast<unsigned>(values[i].size());
    }
    const ExactBlock array(arrayOf(elements, at));
    const ArrayReference<IpGenAddr> view(array.data());
    for (unsigned i = 0; i < 4; ++i) {
      const AddressFamily af = values[i].size() == 4 ? Korvo::ipv4_ : Korvo::ipv6_;
      EXPECT_EQ(view[i], IpGenAddr(af, values[i].data())) << "element " << i;
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

// The last slot names the empty element, the farthest end is another's.
TEST(ArrayAlone, AnEmptyElementTakesTheBytesUpToTheFarthestEnd) {
  const Bytes other = ascending(0x10, 8);
  const ExactBlock array(arrayOf({{10, other}, {14, {}}}, 18));
  byte_t expected[16] = {0x14, 0x15, 0x16, 0x17};
  EXPECT_EQ(ArrayReference<IpGenAddr>(array.data())[1], IpGenAddr(Korvo::ipv6_, expected));
}

TEST(ArrayAlone, AnEmptyElementBehindAllOthersReadsZeros) {
  const ExactBlock array(arrayOf({{18, {}}, {14, bytesOf("0A 01 02 03")}, {14, {}}}, 18));
  const ArrayReference<IpGenAddr> view(array.data());
  const byte_t zeros[16] = {};
  const byte_t four[16] = {0x0A, 1, 2, 3};
  EXPECT_EQ(view[0], IpGenAddr(Korvo::ipv6_, zeros));
  EXPECT_EQ(view[2], IpGenAddr(Korvo::ipv6_, four));
}

// ---------------------------------------------------------------------------------------------
// The order of a writer's checks: null row, fdLen, limits

using Inner = RowLayout<9, Column<"text", std::string>>;
using Table =
    RowLayout<7, Column<"count", std::uint32_t>, Column<"name", std::string>,
              Column<"addr", IpGenAddr>, Column<"prefix", IpGenPrefix>,
              Column<"names", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"prefixes", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>,
              Column<"inner", Nested<Inner>>>;

const std::string& tooLongText() {
  static const std::string text(kMaxValueLen + 1, 't');
  return text;
}
const std::vector<std::string>& tooLongTexts() {
  static const std::vector<std::string> texts(2, std::string(20'000, 't'));
  return texts;
}
const std::vector<bool>& tooManyFlags() {
  static const std::vector<bool> flags(kMaxValueLen, true);
  return flags;
}
template <typename T>
const std::vector<T>& tooManyAddresses() {
  static const std::vector<T> addresses(4090, numbered<T>(7));
  return addresses;
}
/// A nested row that no column takes.
const Bytes& tooLongRow() {
  static const Bytes row = [] {
    Bytes bytes(40'000);
    storeField<len_t>(bytes.data(), 40'000);
    return bytes;
  }();
  return row;
}

using Write = std::function<void(BaseRow& row, len_t fdLen)>;
struct NamedWrite {
  std::string name;
  Write write;
};

constexpr len_t column = PlainRow::kName;

/// Every writer with what it takes and with more than any column takes.
std::vector<NamedWrite> writesOfNothing() {
  return {
      {"setColumn of no text",
       [](BaseRow& r, len_t f) { r.setColumn<std::string>(column, std::string(), f); }},
      {"setColumn of no address",
       [](BaseRow& r, len_t f) { r.setColumn<IpGenAddr>(column, IpGenAddr(), f); }},
      {"setColumn of no strings",
       [](BaseRow& r, len_t f) {
         r.setColumn<std::string>(column, std::vector<std::string>(), f);
       }},
      {"setColumn of no addresses",
       [](BaseRow& r, len_t f) { r.setColumn<IpGenAddr>(column, std::vector<IpGenAddr>(), f); }},
      {"setColumn of no prefixes",
       [](BaseRow& r, len_t f) {
         r.setColumn<IpGenPrefix>(column, std::vector<IpGenPrefix>(), f);
       }},
      {"updateVarElement of no text",
       [](BaseRow& r, len_t f) { r.updateVarElement<std::string>(column, f, std::string()); }},
      {"updateVarElemArray of nothing",
       [](BaseRow& r, len_t f) {
         r.updateVarElemArray<std::string>(column, f, std::vector<std::string>());
       }},
      {"updateFixElemArray of nothing",
       [](BaseRow& r, len_t f) { r.updateFixElemArray<bool>(column, f, std::vector<bool>()); }},
      {"RowWriter::setColumn of no text",
       [](BaseRow& r, len_t f) { RowWriter(r, f).setColumn(column, std::string()); }},
      {"RowWriter::setColumn of no strings",
       [](BaseRow& r, len_t f) { RowWriter(r, f).setColumn(column, std::vector<std::string>()); }},
      {"RowWriter::updateFixElemArray of nothing",
       [](BaseRow& r, len_t f) {
         RowWriter(r, f).updateFixElemArray(column, std::vector<bool>());
       }},
  };
}

std::vector<NamedWrite> writesOfTooMuch() {
  return {
      {"setColumn of a text",
       [](BaseRow& r, len_t f) { r.setColumn<std::string>(column, tooLongText(), f); }},
      {"setColumn of a string reference",
       [](BaseRow& r, len_t f) {
         r.setColumn<StringValueReference>(column, stringRef(tooLongText()), f);
       }},
      {"setColumn of a nested row",
       [](BaseRow& r, len_t f) {
         r.setColumn<SubRowReference>(column, SubRowReference(tooLongRow().data()), f);
       }},
      {"setColumn of strings",
       [](BaseRow& r, len_t f) { r.setColumn<std::string>(column, tooLongTexts(), f); }},
      {"setColumn of addresses",
       [](BaseRow& r, len_t f) {
         r.setColumn<IpGenAddr>(column, tooManyAddresses<IpGenAddr>(), f);
       }},
      {"setColumn of prefixes",
       [](BaseRow& r, len_t f) {
         r.setColumn<IpGenPrefix>(column, tooManyAddresses<IpGenPrefix>(), f);
       }},
      {"updateVarElement of a text",
       [](BaseRow& r, len_t f) { r.updateVarElement<std::string>(column, f, tooLongText()); }},
      {"updateVarElement of a nested row",
       [](BaseRow& r, len_t f) {
         r.updateVarElement<SubRowReference>(column, f, SubRowReference(tooLongRow().data()));
       }},
      {"updateVarElemArray of strings",
       [](BaseRow& r, len_t f) { r.updateVarElemArray<std::string>(column, f, tooLongTexts()); }},
      {"updateVarElemArray of addresses",
       [](BaseRow& r, len_t f) {
         r.updateVarElemArray<IpGenAddr>(column, f, tooManyAddresses<IpGenAddr>());
       }},
      {"updateVarElemArray of prefixes",
       [](BaseRow& r, len_t f) {
         r.updateVarElemArray<IpGenPrefix>(column, f, tooManyAddresses<IpGenPrefix>());
       }},
      {"updateFixElemArray",
       [](BaseRow& r, len_t f) { r.updateFixElemArray<bool>(column, f, tooManyFlags()); }},
      {"RowWriter::setColumn of a text",
       [](BaseRow& r, len_t f) { RowWriter(r, f).setColumn(column, tooLongText()); }},
      {"RowWriter::setColumn of strings",
       [](BaseRow& r, len_t f) { RowWriter(r, f).setColumn(column, tooLongTexts()); }},
      {"RowWriter::updateFixElemArray",
       [](BaseRow& r, len_t f) { RowWriter(r, f).updateFixElemArray(column, tooManyFlags()); }},
  };
}

/// How a write ends: with nothing, or with the exception's message.
std::string endOf(const std::function<void()>& write) {
  try {
    write();
  } catch (const std::exception& thrown) {
    return thrown.what();
  }
  return "returned";
}

// Also where fdLen is 0 and where no row could hold the value.
template <typename Row>
void expectNullRowFirst(const Write& write, const std::string& what) {
  for (const len_t fdLen : {base, len_t{0}}) {
    SCOPED_TRACE(what + (fdLen == 0 ? ", fdLen 0" : ""));
    const auto attempt = [&] {
      Row row;
      const std::string end = endOf([&] { write(row, fdLen); });
      return row.isNull() ? end : end + "; the row is not null any more";
    };
    if (fdLen != 0) {
      EXPECT_EQ(attempt(), "null row");
    } else {
      // In a process of its own: the wrong order would stop this one.
      EXPECT_EXIT(
          {
            const std::string end = attempt();
            std::cerr << end << '\n';
            std::exit(end == "null row" ? 0 : 1);
          },
          testing::ExitedWithCode(0), "^null row\n$");
    }
  }
}

template <typename Row>
class NullRowDeathTest : public testing::Test {};
using NullRows = testing::Types<BaseRow, PlainRow, FullRow>;
TYPED_TEST_SUITE(NullRowDeathTest, NullRows, );

TYPED_TEST(NullRowDeathTest, EveryWriterSaysSoFirst) {
  for (const Writer& writer : everyWriter()) {
    expectNullRowFirst<TypeParam>(writer.write, writer.name);
  }
}

TYPED_TEST(NullRowDeathTest, EveryWriterOfNothingSaysSoFirst) {
  for (const NamedWrite& write : writesOfNothing()) {
    expectNullRowFirst<TypeParam>(write.write, write.name);
  }
}

TYPED_TEST(NullRowDeathTest, EveryWriterOfTooMuchSaysSoFirst) {
  for (const NamedWrite& write : writesOfTooMuch()) {
    expectNullRowFirst<TypeParam>(write.write, write.name);
  }
}

TYPED_TEST(NullRowDeathTest, CopyingFromANullRowSaysSoFirst) {
  for (const len_t fdLen : {base, len_t{0}}) {
    EXPECT_EXIT(
        {
          PlainRow row(1, 2);
          const TypeParam source;
          std::cerr << endOf([&] { row.copyVarColumn(column, source, column, fdLen); }) << '\n';
          std::exit(0);
        },
        testing::ExitedWithCode(0), "^null row\n$");
  }
}

TYPED_TEST(NullRowDeathTest, FixedColumnsSaySo) {
  TypeParam row;
  EXPECT_THROW(row.template setFixedColumn<std::uint32_t>(PlainRow::kCount, 7), KoNullRow);
  RowWriter writer(row, base);
  EXPECT_THROW(writer.setFixedColumn<std::uint32_t>(PlainRow::kCount, 7), KoNullRow);
}

// A declared row: by itself and through its writer of many columns.
template <typename Set>
void setEveryColumn(const Set& set) {
  set("count", [](auto& to) { to.template set<"count">(7); });
  set("name", [](auto& to) { to.template set<"name">("text"); });
  set("no name", [](auto& to) { to.template set<"name">(""); });
  set("too long a name", [](auto& to) { to.template set<"name">(tooLongText()); });
  set("addr", [](auto& to) { to.template set<"addr">(IpGenAddr("10.1.2.3")); });
  set("prefix", [](auto& to) { to.template set<"prefix">(IpGenPrefix("10.0.0.0/8")); });
  set("names", [](auto& to) { to.template set<"names">({"a", "b"}); });
  set("no names", [](auto& to) { to.template set<"names">({}); });
  set("too long names", [](auto& to) { to.template set<"names">(tooLongTexts()); });
  set("addrs", [](auto& to) { to.template set<"addrs">({IpGenAddr("10.1.2.3")}); });
  set("too many addrs", [](auto& to) { to.template set<"addrs">(tooManyAddresses<IpGenAddr>()); });
  set("prefixes", [](auto& to) { to.template set<"prefixes">({IpGenPrefix("10.0.0.0/8")}); });
  set("too many prefixes",
      [](auto& to) { to.template set<"prefixes">(tooManyAddresses<IpGenPrefix>()); });
  set("flags", [](auto& to) { to.template set<"flags">({true, false}); });
  set("no flags", [](auto& to) { to.template set<"flags">({}); });
  set("too many flags", [](auto& to) { to.template set<"flags">(tooManyFlags()); });
  set("inner", [](auto& to) {
    TableRow<Inner> inner;
    inner.create();
    to.template set<"inner">(inner);
  });
}

TEST(NullDeclaredRow, EveryWriterSaysSo) {
  setEveryColumn([](const std::string& name, const auto& write) {
    SCOPED_TRACE(name);
    TableRow<Table> row;
    EXPECT_EQ(endOf([&] { write(row); }), "null row");
    EXPECT_TRUE(row.isNull());
  });
}

TEST(NullDeclaredRow, EveryColumnOfItsWriterSaysSo) {
  setEveryColumn([](const std::string& name, const auto& write) {
    SCOPED_TRACE(name);
    TableRow<Table> row;
    EXPECT_EQ(endOf([&] {
                auto writer = row.writer();
                write(writer);
              }),
              "null row");
    EXPECT_TRUE(row.isNull());
  });
}

// Of a row that is not null, fdLen is looked at before any limit.
TEST(BaseLengthZeroDeathTest, StopsTheProcessBeforeAnyLimit) {
  for (const NamedWrite& write : writesOfTooMuch()) {
    SCOPED_TRACE(write.name);
    EXPECT_EXIT(
        {
          FullRow row(1, 2);
          write.write(row, 0);
        },
        testing::KilledBySignal(SIGABRT),
        "Assertion `(fdLen != 0|baseRowLength != 0)' failed\\.\n$");
  }
}

TEST(BaseLengthZeroDeathTest, StopsACopyBeforeAnyLimit) {
  static const PlainRow source(imageWith(PlainRow::kAddr, Bytes(30'000, 1)));
  EXPECT_EXIT(
      {
        PlainRow row(Bytes(50'000));
        row.copyVarColumn(PlainRow::kAddr, source, column, 0);
      },
      testing::KilledBySignal(SIGABRT), "Assertion `baseRowLength != 0' failed\\.\n$");
}

TEST(BaseLengthZeroDeathTest, StopsSetColumnOfNothing) {
  for (const NamedWrite& write : writesOfNothing()) {
    if (write.name.find("setColumn") != 0) continue;
    SCOPED_TRACE(write.name);
    EXPECT_EXIT(
        {
          FullRow row(1, 2);
          write.write(row, 0);
        },
        testing::KilledBySignal(SIGABRT), "Assertion `fdLen != 0' failed\\.\n$");
  }
}

// ---------------------------------------------------------------------------------------------
// Rows whose class installs blocks of its own

/// Keeps each block that it is given and installs a copy of it instead. A block may be larger than
/// the row, and nobody has written what is behind the row yet: it is filled here.
template <typename Row>
class Elsewhere : public Row {
 public:
  using Row::Row;
  Elsewhere(const Elsewhere&) = delete;
  Elsewhere& operator=(const Elsewhere&) = delete;
  ~Elsewhere() override {
    for (const Given& given : given_) std::free(given.block);
  }

  void replaceRow(byte_t* buf) override {
    const std::size_t size = malloc_usable_size(buf);
    auto* const own = static_cast<byte_t*>(std::malloc(size));
    if (own == nullptr) throw std::bad_alloc();
    const len_t rowLength = loadField<len_t>(buf);
    std::memset(buf + rowLength, 0xA5, size - rowLength);
    std::memcpy(own, buf, size);
    given_.push_back({buf, Bytes(buf, buf + size)});
    Row::replaceRow(own);
  }

  std::size_t givenBlocks() const { return given_.size(); }
  bool givenBlocksAreUntouched() const {
    for (const Given& given : given_) {
      if (std::memcmp(given.block, given.bytes.data(), given.bytes.size()) != 0) return false;
    }
    return true;
  }

 private:
  struct Given {
    byte_t* block;
    Bytes bytes;  // as they were given
  };
  std::deque<Given> given_;
};

template <typename Row>
class RowsElsewhere : public testing::Test {};
using ListingRows = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(RowsElsewhere, ListingRows, );

std::vector<Write> growingWrites() {
  static const PlainRow source(imageWith(PlainRow::kAddr, ascending(1, 50)));
  return {
      [](BaseRow& r, len_t f) {
        r.setColumn<std::string>(PlainRow::kName, std::string(20, 'n'), f);
      },
      [](BaseRow& r, len_t f) {
        r.setColumn<std::string>(PlainRow::kList, std::vector<std::string>{"a", "", "long"}, f);
      },
      [](BaseRow& r, len_t f) { r.copyVarColumn(PlainRow::kAddr, source, PlainRow::kAddr, f); },
      [](BaseRow& r, len_t f) {
        r.updateFixElemArray<bool>(PlainRow::kChild, f, std::vector<bool>(70, true));
      },
      [](BaseRow& r, len_t f) {
        r.setColumn<IpGenPrefix>(PlainRow::kPrefix, IpGenPrefix("2001:db8::/32"), f);
      },
      [](BaseRow& r, len_t f) {
        r.setColumn<SubRowReference>(PlainRow::kName, sample<SubRowReference>(), f);
      },
      [](BaseRow& r, len_t f) {
        StringValueReference own;
        r.getColumn(PlainRow::kAddr, own);
        r.setColumn<StringValueReference>(PlainRow::kPrefix, own, f);
      },
      [](BaseRow& r, len_t f) { r.makeFreeSpace(PlainRow::kList, 300, f); },
      [](BaseRow& r, len_t f) {
        r.setColumn<std::string>(PlainRow::kList, std::string(400, 'l'), f);
      },
  };
}

TYPED_TEST(RowsElsewhere, AreWrittenWhereTheyInstalledTheirBlock) {
  Elsewhere<TypeParam> row(7, 1001);
  TypeParam expected(7, 1001);
  std::size_t step = 0;
  for (const Write& write : growingWrites()) {
    SCOPED_TRACE(step++);
    write(row, base);
    write(expected, base);
    ASSERT_EQ(hex(row), hex(expected));
    ASSERT_TRUE(row.givenBlocksAreUntouched());
  }
  EXPECT_GE(row.givenBlocks(), 7u);
}

TYPED_TEST(RowsElsewhere, AreWrittenByAWriterWhereTheyInstalledTheirBlock) {
  Elsewhere<TypeParam> row(7, 1001);
  TypeParam expected(7, 1001);
  {
    RowWriter writer(row, base);
    for (const std::size_t length : {20u, 700u, 3000u}) {
      const std::string text(length, 't');
      for (const len_t slot : {PlainRow::kName, PlainRow::kChild}) {
        writer.setColumn(slot, text);
        expected.setColumn(slot, text, base);
        ASSERT_EQ(hex(row), hex(expected));
        ASSERT_TRUE(row.givenBlocksAreUntouched());
      }
      const std::vector<std::string> texts(3, text);
      writer.setColumn(PlainRow::kList, texts);
      expected.setColumn(PlainRow::kList, texts, base);
      ASSERT_EQ(hex(row), hex(expected));
      ASSERT_TRUE(row.givenBlocksAreUntouched());
    }
  }
  EXPECT_EQ(hex(row), hex(expected));
  EXPECT_TRUE(row.givenBlocksAreUntouched());
  EXPECT_NE(row.givenBlocks(), 0u);
}

TEST(DeclaredRowElsewhere, IsWrittenWhereItInstalledItsBlock) {
  for (const bool byWriter : {false, true}) {
    SCOPED_TRACE(byWriter);
    Elsewhere<TableRow<Table>> row;
    TableRow<Table> expected;
    row.create(5);
    expected.create(5);
    const auto check = [&] {
      ASSERT_EQ(hex(row), hex(expected));
      ASSERT_TRUE(row.givenBlocksAreUntouched());
    };
    const auto set = [&](auto& to) {
      for (const std::size_t length : {20u, 700u, 3000u}) {
        const std::string text(length, 't');
        expected.set<"name">(text);
        to.template set<"name">(text);
        check();
        expected.set<"names">({text, "", text});
        to.template set<"names">({text, "", text});
        check();
        expected.set<"flags">(std::vector<bool>(length, true));
        to.template set<"flags">(std::vector<bool>(length, true));
        check();
      }
      expected.set<"prefix">(IpGenPrefix("10.0.0.0/8"));
      to.template set<"prefix">(IpGenPrefix("10.0.0.0/8"));
      check();
    };
    if (byWriter) {
      auto writer = row.writer();
      set(writer);
    } else {
      set(row);
    }
    check();
    EXPECT_NE(row.givenBlocks(), 0u);
  }
}

// ---------------------------------------------------------------------------------------------
// The writer of many columns in rows whose class tells little, twice, or now this, now that

class FreeRow : public BaseRow {
 public:
  FreeRow(len_t baseLength, vcdType slots, bool isFull) : full(isFull), slots_(std::move(slots)) {
    auto* const block = static_cast<byte_t*>(std::calloc(baseLength, 1));
    if (block == nullptr) throw std::bad_alloc();
    storeField<len_t>(block, baseLength);
    rowBuf_ = Korvo::KoPtr<KoRowBuf>(new KoRowBuf(block));
  }
  vcdType& vcd() const override { return slots_; }
  bool isFullyDefined() const override { return full; }

  bool full;

 private:
  mutable vcdType slots_;
};

constexpr len_t freeBase = 8 + 4 * 6;

/// Writes at random, as long as a writer lives, to columns that are listed or not. The row is what
/// its own writers leave, after each step and when the writer has ended.
void expectWriterLikeRow(const BaseRow::vcdType& slots, bool isFull, bool changes) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    FreeRow row(freeBase, slots, isFull);
    FreeRow expected(freeBase, slots, isFull);
    for (int round = 0; round < 3; ++round) {
      {
        RowWriter writer(row, freeBase);
        for (int step = 0; step < 12; ++step) {
          if (changes && random() % 3 == 0) row.full = expected.full = !row.full;
          const auto slot = static_cast<len_t>(8 + 4 * (random() % 6));
          const std::string text(random() % 4 == 0 ? 0 : random() % 60,
                                 static_cast<char>('a' + step));
          if (random() % 3 != 0) {
            writer.setColumn(slot, text);
            expected.setColumn<std::string>(slot, text, freeBase);
          } else {
            const std::vector<std::string> texts(random() % 3, text);
            writer.setColumn(slot, texts);
            expected.setColumn<std::string>(slot, texts, freeBase);
          }
          ASSERT_EQ(hex(row), hex(expected)) << "round " << round << ", step " << step;
        }
      }
      ASSERT_EQ(hex(row), hex(expected)) << "round " << round;
    }
  }
}

TEST(WriterOfManyColumns, ColumnThatIsNotListed) {
  expectWriterLikeRow({8, 12, 16, 24}, true, false);
  expectWriterLikeRow({}, true, false);
}

TEST(WriterOfManyColumns, SlotListedTwice) {
  expectWriterLikeRow({8, 12, 16, 20, 24, 28, 12}, true, false);
  expectWriterLikeRow({8, 8, 12, 16, 16, 20, 24, 28, 28, 28}, true, false);
}

TEST(WriterOfManyColumns, RowThatChangesWhetherItIsFullyDefined) {
  expectWriterLikeRow({8, 12, 16, 20, 24, 28}, true, true);
  expectWriterLikeRow({8, 12, 16, 20, 24, 28}, false, true);
}

TEST(WriterOfManyColumns, AllOfThatTogether) {
  expectWriterLikeRow({12, 12, 20, 28}, true, true);
}

/// More than the allocator's own rounding.
constexpr std::size_t blockSlack = 64;

TEST(WriterOfManyColumns, LeavesABlockAsLongAsItsRow) {
  for (const std::size_t length : {100u, 600u, 2000u, 20'000u}) {
    for (const bool shared : {false, true}) {
      SCOPED_TRACE(std::to_string(length) + (shared ? ", shared" : ""));
      std::optional<FullRow> row(std::in_place, 7, 1001);
      FullRow sharer;
      {
        RowWriter writer(*row, base);
        writer.setColumn(PlainRow::kName, std::string(length, 'n'));
        writer.setColumn(PlainRow::kAddr, std::string(length / 2, 'a'));
        if (shared) sharer = *row;
      }
      EXPECT_LT(malloc_usable_size(row->rowBuf()), rowLength(*row) + blockSlack);
      if (shared) {
        EXPECT_EQ(hex(sharer), hex(*row));
      }
    }
  }
}

// The row goes on to be written, shared, while the writer lives. Each sharer keeps the buffer that
// it has, where it is, as another thread may be reading it.
TEST(WriterOfManyColumns, LeavesRowsThatSharedOnTheWayAsTheyAre) {
  FullRow row(7, 1001);
  std::vector<std::pair<FullRow, Bytes>> sharers;
  std::vector<const byte_t*> buffers;
  {
    RowWriter writer(row, base);
    for (const len_t slot : {PlainRow::kName, PlainRow::kAddr, PlainRow::kList}) {
      writer.setColumn(slot, std::string(900, 'n'));
      sharers.emplace_back(row, imageOf(row));
      buffers.push_back(row.rowBuf());
    }
  }
  EXPECT_LT(malloc_usable_size(row.rowBuf()), rowLength(row) + blockSlack);
  for (std::size_t i = 0; i < sharers.size(); ++i) {
    EXPECT_EQ(hex(sharers[i].first), hex(sharers[i].second));
    EXPECT_EQ(sharers[i].first.rowBuf(), buffers[i]);
  }
}

// ---------------------------------------------------------------------------------------------
// Null rows, damaged lengths, references from outside

TEST(NullPlainRow, CannotBePacked) {
  BaseRow row;
  EXPECT_THROW(row.compactVariableData(base), KoNullRow);
  FullRow full;
  EXPECT_THROW(full.compactVariableData(base), KoNullRow);
}

TEST(NullPlainRow, HasNoFieldMap) {
  const BaseRow row;
  EXPECT_THROW(varFieldMap map(row), KoNullRow);
}

TEST(ClearedRow, OfALengthBelow4StaysAsItIs) {
  for (len_t length = 0; length < 4; ++length) {
    for (const bool shared : {false, true}) {
      SCOPED_TRACE(std::to_string(length) + (shared ? ", shared" : ""));
      const Bytes image = ascending(0x80, 40);
      PlainRow row(image);
      PlainRow sharer;
      if (shared) sharer = row;
      byte_t* const buf = row.rowBuf();
      storeField<len_t>(buf, length);
      const Bytes before(buf, buf + 40);
      row.clearRow();
      ASSERT_EQ(row.rowBuf(), buf);
      EXPECT_EQ(hex(Bytes(buf, buf + 40)), hex(before));
      EXPECT_EQ(row.useCount(), shared ? 2 : 1);
    }
  }
}

TEST(ClearedRow, OfAShortLengthIsClearedUpToIt) {
  for (len_t length = 4; length < 12; ++length) {
    SCOPED_TRACE(length);
    PlainRow row(ascending(0x80, 40));
    byte_t* const buf = row.rowBuf();
    storeField<len_t>(buf, length);
    Bytes expected(buf, buf + 40);
    std::fill(expected.begin() + 4, expected.begin() + length, byte_t{0});
    row.clearRow();
    EXPECT_EQ(hex(Bytes(buf, buf + 40)), hex(expected));
  }
}

/// A row whose block stands in the middle of other bytes, so that a value can reach into it from
/// before its first byte. The block must not grow.
class RowInside : public FullRow {
 public:
  static constexpr std::size_t before = 64;

  explicit RowInside(const Bytes& image) : around_(before + image.size() + 64, 0xB7) {
    for (std::size_t i = 0; i < before; ++i) around_[i] = static_cast<byte_t>(0x40 + i);
    std::copy(image.begin(), image.end(), around_.begin() + before);
    storeField<len_t>(around_.data() + before, static_cast<len_t>(image.size()));
    rowBuf_ = Korvo::KoPtr<KoRowBuf>(new KoRowBuf(around_.data() + before), [](KoRowBuf* owner) {
      owner->buf_ = nullptr;
      delete owner;
    });
  }
  RowInside(const RowInside&) = delete;
  RowInside& operator=(const RowInside&) = delete;

 private:
  Bytes around_;
};

/// A row with `name` and `child` set, and with much free space: a gap before `child` alone is large
/// enough for what is written, or, if `fragmented`, neither that nor the row's end is.
Bytes roomyImage(bool fragmented) {
  const Bytes name = ascending(0xC0, 20);
  const Bytes child = ascending(0x20, 24);
  const unsigned childAt = fragmented ? 133u : 60u;
  Bytes image(fragmented ? 200 : 400, 0x99);
  std::fill(image.begin(), image.begin() + base, byte_t{0});
  writeSlot(image.data() + PlainRow::kName, {base, 20, false});
  writeSlot(image.data() + PlainRow::kChild, {childAt, 24, false});
  std::copy(name.begin(), name.end(), image.begin() + base);
  std::copy(child.begin(), child.end(), image.begin() + static_cast<std::ptrdiff_t>(childAt));
  storeField<len_t>(image.data(), static_cast<len_t>(image.size()));
  return image;
}

TEST(ReferenceFromBeforeTheRow, IsWrittenAsIfCopiedFirst) {
  for (const bool fragmented : {false, true}) {
    for (const bool shared : {false, true}) {
      for (const std::size_t ahead : {1u, 3u, 8u, 60u}) {
        for (const std::size_t length : {12u, 30u, 62u, 80u, 100u}) {
          for (const len_t slot : {PlainRow::kName, PlainRow::kList, PlainRow::kChild}) {
            SCOPED_TRACE(testing::Message()
                         << "fragmented " << fragmented << ", shared " << shared << ", " << ahead
                         << " ahead, " << length << " long, slot " << slot);
            const Bytes image = roomyImage(fragmented);
            RowInside row(image);
            FullRow expected(image);
            FullRow sharer;
            if (shared) sharer.shareContents(row);
            const byte_t* const from = row.rowBuf() - ahead;
            const Bytes value(from, from + length);
            expected.setColumn<std::string>(slot, std::string(value.begin(), value.end()), base);
            if (rowLength(expected) != image.size()) continue;  // it would grow
            row.setColumn<StringValueReference>(
                slot,
                StringValueReference(reinterpret_cast<const char*>(from),
                                     static_cast<len_t>(length)),
                base);
            ASSERT_EQ(hex(row), hex(expected));
          }
        }
      }
    }
  }
}

TEST(ReferenceFromBeforeTheRow, OfAnAddressOrPrefixIsWrittenAsIfCopiedFirst) {
  for (const len_t slot : {PlainRow::kName, PlainRow::kList}) {
    for (const std::size_t ahead : {1u, 4u, 8u, 15u}) {
      SCOPED_TRACE(testing::Message() << "slot " << slot << ", " << ahead << " ahead");
      const Bytes image = roomyImage(false);
      {
        RowInside row(image);
        FullRow expected(image);
        const byte_t* const from = row.rowBuf() - ahead;
        const std::string value(from, from + 16);
        expected.setColumn<std::string>(slot, value, base);
        row.setColumn<IpGenAddrReference>(slot, IpGenAddrReference(from, Korvo::ipv6_), base);
        EXPECT_EQ(hex(row), hex(expected));
      }
      {
        RowInside row(image);
        FullRow expected(image);
        const byte_t* const from = row.rowBuf() - ahead;
        const std::string value = "\x77" + std::string(from, from + 16);
        expected.setColumn<std::string>(slot, value, base);
        row.setColumn<IpGenPrefixReference>(slot, IpGenPrefixReference(from, Korvo::ipv6_, 0x77),
                                            base);
        EXPECT_EQ(hex(row), hex(expected));
      }
    }
  }
}

// By the writer of many columns, too.
TEST(ReferenceFromBeforeTheRow, IsWrittenByAWriterAsIfCopiedFirst) {
  for (const std::size_t length : {12u, 62u, 100u, 200u}) {
    SCOPED_TRACE(length);
    const Bytes image = roomyImage(false);
    RowInside row(image);
    FullRow expected(image);
    const byte_t* const from = row.rowBuf() - 5;
    const std::string value(from, from + length);
    expected.setColumn<std::string>(PlainRow::kList, value, base);
    RowWriter writer(row, base);
    writer.setColumn(PlainRow::kList, StringValueReference(reinterpret_cast<const char*>(from),
                                                           static_cast<len_t>(length)));
    EXPECT_EQ(hex(row), hex(expected));
  }
}

}  // namespace
