// Array columns: their bytes, the indexed view, the bulk read and the writers.

#include "row_test_support.h"

#include <algorithm>
#include <concepts>
#include <iterator>
#include <ranges>

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kList = PlainRow::kList;
constexpr len_t kChild = PlainRow::kChild;

template <typename T>
void setArray(BaseRow& row, len_t slotOffset, const std::vector<T>& values) {
  row.setColumn<T>(slotOffset, values, kBase);
}

void setBools(BaseRow& row, len_t slotOffset, const std::vector<bool>& values) {
  row.updateFixElemArray<bool>(slotOffset, kBase, values);
}

unsigned headerOf(const BaseRow& row, len_t slotOffset) {
  return loadField<std::uint16_t>(row.rowBuf() + slotOf(row, slotOffset).offset);
}

// ---------------------------------------------------------------------------------------------
// The bytes

TEST(ArrayBytes, ThreeStrings) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, {"a", "", "xyz"});
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 18, true}));
  EXPECT_EQ(hex(valueOf(row, kList)),
            // 3 elements of variable length
            "03 10 "
            // their slots: at 14, 1 byte; at 15, none; at 15, 3 bytes
            "0E 00 01 00 0F 00 00 00 0F 00 03 00 "
            // "a", "", "xyz"
            "61 78 79 7A");
}

TEST(ArrayBytes, ThreeBooleans) {
  FullRow row(1, 1);
  setBools(row, kList, {true, false, true});
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 5, true}));
  EXPECT_EQ(hex(valueOf(row, kList)), "03 00 01 00 01");
}

TEST(ArrayBytes, Addresses) {
  FullRow row(1, 1);
  setArray<IpGenAddr>(row, kList, {IpGenAddr("10.1.2.3"), IpGenAddr(), IpGenAddr("::1")});
  EXPECT_EQ(hex(valueOf(row, kList)),
            "03 10 "
            // at 14, 4 bytes; at 18, none; at 18, 16 bytes
            "0E 00 04 00 12 00 00 00 12 00 10 00 "
            "0A 01 02 03 "
            "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
}

TEST(ArrayBytes, Prefixes) {
  FullRow row(1, 1);
  setArray<IpGenPrefix>(row, kList, {IpGenPrefix("10.1.0.0/16"), IpGenPrefix("::1/128")});
  EXPECT_EQ(hex(valueOf(row, kList)),
            "02 10 "
            // at 10, 5 bytes; at 15, 17 bytes
            "0A 00 05 00 0F 00 11 00 "
            "10 0A 01 00 00 "
            "80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
}

TEST(ArrayBytes, CountOfMoreThanOneByte) {
  FullRow row(1, 1);
  setBools(row, kList, std::vector<bool>(0x123, true));
  EXPECT_EQ(headerOf(row, kList), 0x0123u);
  setArray<std::string>(row, kChild, std::vector<std::string>(0x123));
  EXPECT_EQ(headerOf(row, kChild), 0x1123u);
  EXPECT_EQ(slotOf(row, kChild).length, 2u + 4 * 0x123);
}

TEST(ArrayBytes, BitsOfTheHeaderThatAreNotWrittenStay) {
  // The header's bits 13 to 15 are those that the buffer held before.
  for (const unsigned old : {0x00u, 0xFFu, 0xA5u, 0x4Fu}) {
    FullRow row(1, 1);
    setString(row, kList, std::string(30, static_cast<char>(old)));
    setArray<std::string>(row, kList, {"x"});
    EXPECT_EQ(slotOf(row, kList).offset, kBase);
    EXPECT_EQ(headerOf(row, kList), ((old & 0xE0) << 8) + 0x1001) << old;
    EXPECT_EQ(row.arrayReference<std::string>(kList).size(), 1u);

    setString(row, kList, std::string(7, static_cast<char>(old)));
    setBools(row, kList, {true, true});
    EXPECT_EQ(slotOf(row, kList).offset, kBase);
    EXPECT_EQ(headerOf(row, kList), ((old & 0xE0) << 8) + 0x0002) << old;
    EXPECT_EQ(row.arrayReference<bool>(kList).size(), 2u);
  }
}

TEST(ArrayBytes, ElementLengthsAreWrittenWithoutBit15) {
  FullRow row(1, 1);
  setString(row, kList, std::string(30, '\xFF'));
  setArray<std::string>(row, kList, {"ab", ""});
  EXPECT_EQ(hex(valueOf(row, kList)), "02 F0 0A 00 02 00 0C 00 00 00 61 62");
}

TEST(ArrayBytes, EmptyArrayIsNotStored) {
  for (const bool mark : {false, true}) {
    FullRow row(1, 1);
    setString(row, kList, "some value");
    setSlot(row, kList, {33, 10, mark});
    const std::vector<std::function<void()>> writers{
        [&] { setArray<std::string>(row, kList, {}); },
        [&] { setArray<IpGenAddr>(row, kList, {}); },
        [&] { setArray<IpGenPrefix>(row, kList, {}); },
        [&] { setBools(row, kList, {}); },
        [&] { row.updateVarElemArray<std::string>(kList, kBase, {}); },
    };
    for (const auto& write : writers) {
      setSlot(row, kList, {33, 10, mark});
      const Bytes before = imageOf(row);
      write();
      EXPECT_EQ(slotOf(row, kList), (Slot{0, 0, mark}));
      setSlot(row, kList, {33, 10, mark});
      EXPECT_EQ(hex(row), hex(before)) << "nothing else changes";
    }
  }
}

TEST(ArrayBytes, WritersMayBeCalledDirectly) {
  FullRow viaColumn(1, 1);
  FullRow direct(1, 1);
  setArray<std::string>(viaColumn, kList, {"a", "bc"});
  direct.updateVarElemArray<std::string>(kList, kBase, {"a", "bc"});
  setArray<IpGenAddr>(viaColumn, kName, {IpGenAddr("1.2.3.4")});
  direct.updateVarElemArray<IpGenAddr>(kName, kBase, {IpGenAddr("1.2.3.4")});
  setArray<IpGenPrefix>(viaColumn, kChild, {IpGenPrefix("1.0.0.0/8")});
  direct.updateVarElemArray<IpGenPrefix>(kChild, kBase, {IpGenPrefix("1.0.0.0/8")});
  viaColumn.setColumn<std::string>(kAddr, std::string("abc"), kBase);
  direct.updateVarElement<std::string>(kAddr, kBase, "abc");
  EXPECT_EQ(hex(direct), hex(viaColumn));
}

// ---------------------------------------------------------------------------------------------
// The view

TEST(ArrayView, OfNothing) {
  const FullRow null;
  const FullRow row(1, 1);
  const ArrayReference<std::string> views[] = {ArrayReference<std::string>(),
                                               null.arrayReference<std::string>(kList),
                                               row.arrayReference<std::string>(kList)};
  for (const auto& view : views) {
    EXPECT_EQ(view.size(), 0u);
    EXPECT_EQ(view.begin(), view.end());
    for (const unsigned index : {0u, 1u, 4096u, 0xFFFFFFFFu}) {
      EXPECT_EQ(thrownMessage<KoOutOfRange>([&] { static_cast<void>(view[index]); }),
                "Invalid index");
    }
  }
  EXPECT_EQ(ArrayReference<bool>().size(), 0u);
  EXPECT_THROW(static_cast<void>(ArrayReference<bool>()[0]), KoOutOfRange);
  EXPECT_THROW(static_cast<void>(ArrayReference<SubRowReference>()[0]), KoOutOfRange);
  EXPECT_EQ(SubRowReference().arrayReference<IpGenAddr>(kList).size(), 0u);
}

TEST(ArrayView, FromTheArraysFirstByte) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, {"a", "", "xyz"});
  const ArrayReference<std::string> view(row.rowBuf() + slotOf(row, kList).offset);
  EXPECT_EQ(view.size(), 3u);
  EXPECT_EQ(view[2], "xyz");
}

template <typename T>
void refusesIndexes(const BaseRow& row, len_t slotOffset, unsigned count) {
  const Bytes before = imageOf(row);
  const ArrayReference<T> view = row.arrayReference<T>(slotOffset);
  EXPECT_EQ(view.size(), count);
  static_cast<void>(view[count - 1]);
  for (const unsigned index :
       {count, count + 1, 4095u, 4096u, count + 4096, 0x10000u, 0x40000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(thrownMessage<KoOutOfRange>([&] { static_cast<void>(view[index]); }), "Invalid index")
        << index;
  }
  EXPECT_EQ(hex(row), hex(before));
}

TEST(ArrayView, IndexAtOrBeyondTheCountThrows) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, {"a", "", "xyz"});
  refusesIndexes<std::string>(row, kList, 3);
  refusesIndexes<StringValueReference>(row, kList, 3);
  setArray<IpGenAddr>(row, kList, {IpGenAddr("1.2.3.4"), IpGenAddr("::1")});
  refusesIndexes<IpGenAddr>(row, kList, 2);
  refusesIndexes<IpGenAddrReference>(row, kList, 2);
  setArray<IpGenPrefix>(row, kList, {IpGenPrefix("1.0.0.0/8")});
  refusesIndexes<IpGenPrefix>(row, kList, 1);
  refusesIndexes<IpGenPrefixReference>(row, kList, 1);
  refusesIndexes<SubRowReference>(row, kList, 1);
  setBools(row, kList, {true, false, true, true, false});
  refusesIndexes<bool>(row, kList, 5);
}

TEST(ArrayView, Strings) {
  FullRow row(1, 1);
  const std::vector<std::string> values{"a", "", "xyz", std::string("\0\xFF", 2)};
  setArray<std::string>(row, kList, values);
  const auto view = row.arrayReference<std::string>(kList);
  const auto refs = row.arrayReference<StringValueReference>(kList);
  for (unsigned i = 0; i < values.size(); ++i) {
    static_assert(std::is_same_v<decltype(view[i]), std::string>);
    EXPECT_EQ(view[i], values[i]);
    EXPECT_EQ(refs[i].view(), values[i]);
  }
  EXPECT_EQ(refs[0].data(), reinterpret_cast<const char*>(row.rowBuf() + 33 + 18)) << "no copy";
  EXPECT_EQ(refs[1].data(), refs[2].data()) << "an element of length 0 has a place";
}

TEST(ArrayView, Addresses) {
  FullRow row(1, 1);
  setArray<IpGenAddr>(row, kList, {IpGenAddr("10.1.2.3"), IpGenAddr("2001:db8::1")});
  const auto view = row.arrayReference<IpGenAddr>(kList);
  EXPECT_EQ(view[0], IpGenAddr("10.1.2.3"));
  EXPECT_EQ(view[1], IpGenAddr("2001:db8::1"));
  const auto refs = row.arrayReference<IpGenAddrReference>(kList);
  EXPECT_EQ(refs[0].addr(), row.rowBuf() + 33 + 10);
  EXPECT_EQ(refs[0].af(), Korvo::ipv4_);
  EXPECT_EQ(refs[1].addr(), row.rowBuf() + 33 + 14);
  EXPECT_EQ(refs[1].af(), Korvo::ipv6_);
}

TEST(ArrayView, Prefixes) {
  FullRow row(1, 1);
  setArray<IpGenPrefix>(row, kList, {IpGenPrefix("10.1.0.0/16"), IpGenPrefix("2001:db8::/33")});
  const auto view = row.arrayReference<IpGenPrefix>(kList);
  EXPECT_EQ(view[0], IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(view[1], IpGenPrefix("2001:db8::/33"));
  const auto refs = row.arrayReference<IpGenPrefixReference>(kList);
  EXPECT_EQ(refs[0].addr(), row.rowBuf() + 33 + 11);
  EXPECT_EQ(refs[0].af(), Korvo::ipv4_);
  EXPECT_EQ(refs[0].mask(), 16);
  EXPECT_EQ(refs[1].af(), Korvo::ipv6_);
  EXPECT_EQ(refs[1].mask(), 33);
}

TEST(ArrayView, PrefixElementsAreBuiltByTheConstructor) {
  // The constructor takes host bits, which the bulk read refuses, and checks the length.
  const PlainRow row(imageWith(kList,
                               bytesOf("02 10 0A 00 05 00 0F 00 05 00"
                                       "08 0A 01 02 03"
                                       "21 0A 01 02 03"),
                               true));
  const auto view = row.arrayReference<IpGenPrefix>(kList);
  EXPECT_EQ(view[0], IpGenPrefix(IpGenAddr("10.1.2.3"), 8));
  EXPECT_EQ(thrownMessage<KoOutOfRange>([&] { static_cast<void>(view[1]); }),
            "Invalid IPv4 Prefix Length");
  std::vector<IpGenPrefix> out;
  EXPECT_THROW(row.getColumn<IpGenPrefix>(kList, out), KoOutOfRange);
}

TEST(ArrayView, ElementsOfLengthsThatNoWriterMakes) {
  // Elements of 7, 18 and 17 bytes: the address view takes 16 bytes of each, the references report
  // what fits.
  Bytes value = bytesOf("03 10 0E 00 07 00 15 00 12 00 27 00 11 00");
  for (byte_t b = 1; b <= 42; ++b) value.push_back(b);
  const PlainRow row(imageWith(kList, value, true));
  const byte_t* const data = row.rowBuf() + kBase;
  const auto addrs = row.arrayReference<IpGenAddr>(kList);
  EXPECT_EQ(addrs[0], IpGenAddr(Korvo::ipv6_, data + 14));
  EXPECT_EQ(addrs[1], IpGenAddr(Korvo::ipv6_, data + 0x15));
  const auto prefixes = row.arrayReference<IpGenPrefix>(kList);
  EXPECT_EQ(prefixes[0], IpGenPrefix(Korvo::ipv6_, 1, data + 15));
  EXPECT_EQ(prefixes[1], IpGenPrefix(Korvo::ipv6_, 8, data + 0x16));
  const auto addrRefs = row.arrayReference<IpGenAddrReference>(kList);
  EXPECT_EQ(addrRefs[0].af(), Korvo::unknown_);
  EXPECT_EQ(addrRefs[0].addr(), data + 14);
  const auto prefixRefs = row.arrayReference<IpGenPrefixReference>(kList);
  EXPECT_EQ(prefixRefs[1].af(), Korvo::unknown_);
  EXPECT_EQ(prefixRefs[1].addr(), data + 0x16);
  EXPECT_EQ(prefixRefs[1].mask(), 8);
  EXPECT_EQ(prefixRefs[2].af(), Korvo::ipv6_);
}

TEST(ArrayView, IgnoresBitsThatAreNotItsOwn) {
  // Count word 0xF001; the element's length word has bit 15 set.
  const PlainRow row(imageWith(kList, bytesOf("01 F0 06 00 04 80 0A 01 02 03")));
  EXPECT_EQ(row.arrayReference<IpGenAddr>(kList).size(), 1u);
  EXPECT_EQ(row.arrayReference<IpGenAddr>(kList)[0], IpGenAddr("10.1.2.3"));
  EXPECT_EQ(row.arrayReference<std::string>(kList)[0], "\x0A\x01\x02\x03");
  EXPECT_EQ(row.arrayReference<IpGenAddrReference>(kList)[0].af(), Korvo::ipv4_);
  const PlainRow bools(imageWith(kList, bytesOf("02 E0 01 00"), true));
  EXPECT_EQ(bools.arrayReference<bool>(kList).size(), 2u);
  EXPECT_TRUE(bools.arrayReference<bool>(kList)[0]);
  EXPECT_FALSE(bools.arrayReference<bool>(kList)[1]);
}

TEST(ArrayView, SubRows) {
  // Two nested rows of 40 and 8 bytes.
  const Bytes small = bytesOf("08 00 09 00 0A 00 00 00");
  const PlainRow row(
      imageWith(kList, bytesOf("02 10 0A 00 28 00 32 00 08 00") + nestedImage() + small, true));
  const auto view = row.arrayReference<SubRowReference>(kList);
  EXPECT_EQ(view[0].rowBuf(), row.rowBuf() + 33 + 10);
  EXPECT_EQ(view[0].toString(), "len = 40, type = 5, oid = 77");
  EXPECT_EQ(view[1].toString(), "len = 8, type = 9, oid = 10");
}

TEST(ArrayView, IsARange) {
  static_assert(std::ranges::random_access_range<ArrayReference<std::string>>);
  static_assert(std::ranges::random_access_range<ArrayReference<bool>>);
  static_assert(std::ranges::random_access_range<ArrayReference<SubRowReference>>);
  static_assert(std::same_as<std::ranges::range_value_t<ArrayReference<IpGenAddr>>, IpGenAddr>);

  FullRow row(1, 1);
  const std::vector<std::string> values{"c", "", "a"};
  setArray<std::string>(row, kList, values);
  const auto view = row.arrayReference<std::string>(kList);
  EXPECT_TRUE(std::ranges::equal(view, values));
  EXPECT_EQ(std::vector<std::string>(view.begin(), view.end()), values);
  std::vector<std::string> gathered;
  for (const std::string& text : view) gathered.push_back(text);
  EXPECT_EQ(gathered, values);
  EXPECT_EQ(*std::ranges::max_element(view), "c");
  EXPECT_EQ(std::ranges::distance(view), 3);
  EXPECT_EQ(view.begin()[2], "a");
  EXPECT_EQ(*(view.end() - 1), "a");
  EXPECT_EQ(view.end() - view.begin(), 3);

  setBools(row, kChild, {true, false, true});
  std::vector<bool> bools;
  for (const bool value : row.arrayReference<bool>(kChild)) bools.push_back(value);
  EXPECT_EQ(bools, (std::vector<bool>{true, false, true}));
}

// ---------------------------------------------------------------------------------------------
// Elements of length 0

TEST(EmptyElements, ReadNothingBehindTheRow) {
  // The array is the last thing in the row, in a block that ends with it. What lies outside counts
  // as zero.
  FullRow start(1, 1);
  setArray<IpGenAddr>(start, kList, {IpGenAddr("10.1.2.3"), IpGenAddr()});
  const PlainRow row(imageOf(start));
  const auto view = row.arrayReference<IpGenAddr>(kList);
  EXPECT_EQ(view[0], IpGenAddr("10.1.2.3"));
  EXPECT_EQ(view[1], IpGenAddr("::")) << "any length but 4 is an IPv6 address";
  std::vector<IpGenAddr> out;
  row.getColumn<IpGenAddr>(kList, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1], IpGenAddr()) << "decoding gives no family to length 0";

  const auto refs = row.arrayReference<IpGenAddrReference>(kList);
  EXPECT_EQ(refs[1].af(), Korvo::unknown_);
  EXPECT_EQ(refs[1].addr(), row.rowBuf() + rowLength(row));
}

TEST(EmptyElements, TakeTheBytesOfTheNextElements) {
  FullRow start(1, 1);
  setArray<IpGenAddr>(start, kList, {IpGenAddr(), IpGenAddr("10.1.2.3"), IpGenAddr("4.5.6.7")});
  const PlainRow row(imageOf(start));
  EXPECT_EQ(row.arrayReference<IpGenAddr>(kList)[0], IpGenAddr("a01:203:405:607::"));
  std::vector<IpGenAddr> out;
  row.getColumn<IpGenAddr>(kList, out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].af(), Korvo::unknown_);
  EXPECT_EQ(hex(out[0].bytes(), 16), "0A 01 02 03 00 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_EQ(out[1], IpGenAddr("10.1.2.3"));
  EXPECT_EQ(out[2], IpGenAddr("4.5.6.7"));

  // A whole address behind it.
  FullRow six(1, 1);
  setArray<IpGenAddr>(six, kList, {IpGenAddr(), IpGenAddr("2001:db8::1")});
  EXPECT_EQ(six.arrayReference<IpGenAddr>(kList)[0], IpGenAddr("2001:db8::1"));
}

TEST(EmptyElements, PrefixesReadNothingBehindTheRow) {
  FullRow start(1, 1);
  setArray<IpGenPrefix>(start, kList, {IpGenPrefix("10.0.0.0/8"), IpGenPrefix()});
  const PlainRow row(imageOf(start));
  const auto view = row.arrayReference<IpGenPrefix>(kList);
  EXPECT_EQ(view[1], IpGenPrefix("::/0"));
  std::vector<IpGenPrefix> out;
  row.getColumn<IpGenPrefix>(kList, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1], IpGenPrefix());
  const auto refs = row.arrayReference<IpGenPrefixReference>(kList);
  EXPECT_EQ(refs[1].addr(), nullptr);
  EXPECT_EQ(refs[1].af(), Korvo::unknown_);
  EXPECT_EQ(refs[1].mask(), 0);
}

TEST(EmptyElements, PrefixesTakeTheBytesOfTheNextElements) {
  FullRow start(1, 1);
  setArray<IpGenPrefix>(start, kList, {IpGenPrefix(), IpGenPrefix("10.0.0.0/8")});
  const PlainRow row(imageOf(start));
  EXPECT_EQ(row.arrayReference<IpGenPrefix>(kList)[0], IpGenPrefix(IpGenAddr("a00::"), 8));
  std::vector<IpGenPrefix> out;
  row.getColumn<IpGenPrefix>(kList, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].addr().af(), Korvo::unknown_);
  EXPECT_EQ(out[0].mask(), 8u);
  EXPECT_EQ(hex(out[0].addr().bytes(), 4), "0A 00 00 00");
}

TEST(EmptyElements, NothingButEmptyElements) {
  for (unsigned count = 1; count <= 6; ++count) {
    FullRow start(1, 1);
    setArray<IpGenAddr>(start, kList, std::vector<IpGenAddr>(count));
    const PlainRow row(imageOf(start));
    const auto view = row.arrayReference<IpGenAddr>(kList);
    std::vector<IpGenAddr> out;
    row.getColumn<IpGenAddr>(kList, out);
    ASSERT_EQ(out.size(), count);
    for (unsigned i = 0; i < count; ++i) {
      EXPECT_EQ(view[i], IpGenAddr("::"));
      EXPECT_EQ(out[i], IpGenAddr());
    }
    const auto prefixes = row.arrayReference<IpGenPrefix>(kList);
    EXPECT_EQ(prefixes[count - 1], IpGenPrefix("::/0"));
    const auto strings = row.arrayReference<std::string>(kList);
    EXPECT_EQ(strings[count - 1], "");
  }
}

TEST(EmptyElements, BulkReadTakesTheRowsOwnBytesBehindTheArray) {
  // The array is followed by another column: its bytes are the row's own.
  FullRow row(1, 1);
  setArray<IpGenAddr>(row, kList, {IpGenAddr()});
  setString(row, kName, "\x01\x02");
  const PlainRow exact(imageOf(row));
  std::vector<IpGenAddr> out;
  exact.getColumn<IpGenAddr>(kList, out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].af(), Korvo::unknown_);
  EXPECT_EQ(hex(out[0].bytes(), 4), "01 02 00 00") << "and beyond the row there are zeros";
}

TEST(EmptyElements, ViewTakesTheRowsOwnBytesBehindTheArray) {
  FullRow row(1, 1);
  setArray<IpGenAddr>(row, kList, {IpGenAddr()});
  setString(row, kName, "\x01\x02");
  const PlainRow exact(imageOf(row));
  EXPECT_EQ(exact.arrayReference<IpGenAddr>(kList)[0], IpGenAddr("102::"));
}

TEST(EmptyElements, ViewOfAnArrayAloneReadsNothingBehindIt) {
  // Nothing but the array's first byte is known: the block ends where the array does.
  FullRow row(1, 1);
  setArray<IpGenAddr>(row, kList, {IpGenAddr("10.1.2.3"), IpGenAddr()});
  const ExactBlock addrs(valueOf(row, kList));
  EXPECT_EQ(ArrayReference<IpGenAddr>(addrs.data())[1], IpGenAddr("::"));
  setArray<IpGenPrefix>(row, kChild, {IpGenPrefix(), IpGenPrefix("10.0.0.0/8")});
  const ExactBlock prefixes(valueOf(row, kChild));
  EXPECT_EQ(ArrayReference<IpGenPrefix>(prefixes.data())[0], IpGenPrefix(IpGenAddr("a00::"), 8));
}

TEST(EmptyElements, InASubRowThatEndsItsParent) {
  FullRow start(1, 1);
  setArray<IpGenAddr>(start, kList, {IpGenAddr("10.1.2.3"), IpGenAddr()});
  const PlainRow row(imageWith(kChild, imageOf(start)));
  SubRowReference child;
  row.getColumn<SubRowReference>(kChild, child);
  EXPECT_EQ(child.arrayReference<IpGenAddr>(kList)[1], IpGenAddr("::"));
  std::vector<IpGenAddr> out;
  child.getColumn<IpGenAddr>(kList, out);
  EXPECT_EQ(out, (std::vector<IpGenAddr>{IpGenAddr("10.1.2.3"), IpGenAddr()}));
}

// ---------------------------------------------------------------------------------------------
// Reading back

TEST(BulkRead, AppendsToWhatIsThere) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, {"a", "", "xyz"});
  std::vector<std::string> out{"one", "two"};
  row.getVarElemArray<std::string>(kList, out);
  EXPECT_EQ(out, (std::vector<std::string>{"one", "two", "a", "", "xyz"}));
  row.getColumn<std::string>(kList, out);
  EXPECT_EQ(out.size(), 8u);
}

TEST(BulkRead, LeavesTheVectorOfANullRowOrColumn) {
  std::vector<std::string> out{"one"};
  FullRow().getVarElemArray<std::string>(kList, out);
  SubRowReference().getVarElemArray<std::string>(kList, out);
  FullRow(1, 1).getVarElemArray<std::string>(kList, out);
  EXPECT_EQ(out, std::vector<std::string>{"one"});
}

TEST(BulkRead, ReservesRoom) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, std::vector<std::string>(100));
  std::vector<std::string> out;
  row.getVarElemArray<std::string>(kList, out);
  EXPECT_EQ(out.size(), 100u);
  EXPECT_EQ(out.capacity(), 100u);
  std::vector<IpGenAddr> addrs;
  setArray<IpGenAddr>(row, kList, std::vector<IpGenAddr>(100, IpGenAddr("1.2.3.4")));
  row.getColumn<IpGenAddr>(kList, addrs);
  EXPECT_EQ(addrs.capacity(), 100u);
}

// ---------------------------------------------------------------------------------------------
// Element counts at their limits

TEST(ArrayCounts, Of4095And4096) {
  const std::vector<std::string> most(4095, "");
  PlainRow row(1, 1);
  setArray<std::string>(row, kList, most);
  EXPECT_EQ(headerOf(row, kList), 0x1FFFu);
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 2 + 4 * 4095, true}));
  EXPECT_EQ(row.arrayReference<std::string>(kList).size(), 4095u);
  EXPECT_EQ(row.arrayReference<std::string>(kList)[4094], "");
  EXPECT_THROW(static_cast<void>(row.arrayReference<std::string>(kList)[4095]), KoOutOfRange);
  std::vector<std::string> out;
  row.getColumn<std::string>(kList, out);
  EXPECT_EQ(out.size(), 4095u);

  // One more does not fit the count, of which only the low 12 bits are kept; all elements and their
  // slots are written all the same.
  std::vector<std::string> tooMany(4096, "");
  tooMany.back() = "last";
  PlainRow other(1, 1);
  setArray<std::string>(other, kList, tooMany);
  EXPECT_EQ(headerOf(other, kList), 0x1000u);
  EXPECT_EQ(slotOf(other, kList), (Slot{33, 2 + 4 * 4096 + 4, true}));
  EXPECT_EQ(other.arrayReference<std::string>(kList).size(), 0u);
  const Bytes value = valueOf(other, kList);
  EXPECT_EQ(hex(value.data() + 2, 4), "02 40 00 00") << "the first element is at 2 + 4 * 4096";
  EXPECT_EQ(hex(value.data() + 2 + 4 * 4095, 4), "02 40 04 00");
  EXPECT_EQ(hex(value.data() + 2 + 4 * 4096, 4), "6C 61 73 74");
}

TEST(ArrayCounts, OfBooleans) {
  for (const unsigned count : {1u, 255u, 256u, 4095u, 4096u, 4097u, 32765u}) {
    std::vector<bool> values(count);
    for (unsigned i = 0; i < count; ++i) values[i] = i % 3 == 0;
    PlainRow row(1, 1);
    setBools(row, kList, values);
    EXPECT_EQ(slotOf(row, kList), (Slot{33, count + 2, true}));
    EXPECT_EQ(headerOf(row, kList), count % 4096);
    const auto view = row.arrayReference<bool>(kList);
    ASSERT_EQ(view.size(), count % 4096);
    for (unsigned i = 0; i < view.size(); ++i) ASSERT_EQ(view[i], values[i]);
    const Bytes value = valueOf(row, kList);
    for (unsigned i = 0; i < count; ++i) ASSERT_EQ(value[i + 2], values[i] ? 1 : 0);
  }
}

TEST(ArrayCounts, MostElementsThatAValueHolds) {
  // 2 + 4 * 8191 = 32766 bytes.
  PlainRow row(1, 1);
  setArray<IpGenAddr>(row, kList, std::vector<IpGenAddr>(8191));
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 32766, true}));
  EXPECT_EQ(headerOf(row, kList), 0x1000u + 8191 % 4096);
}

TEST(ArrayCounts, LongElements) {
  PlainRow row(1, 1);
  const std::vector<std::string> values{std::string(20000, 'x'), std::string(12755, 'y')};
  setArray<std::string>(row, kList, values);
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 2 + 8 + 32755, true}));
  const auto view = row.arrayReference<std::string>(kList);
  EXPECT_EQ(view[0], values[0]);
  EXPECT_EQ(view[1], values[1]);
}

// ---------------------------------------------------------------------------------------------
// Rewriting

TEST(ArrayRewrite, ReusesItsPlaceAndLeavesATail) {
  FullRow row(1, 1);
  setArray<std::string>(row, kList, {"first", "second", "third"});
  const Slot first = slotOf(row, kList);
  setString(row, kName, "behind");
  const len_t length = rowLength(row);
  setArray<std::string>(row, kList, {"", "x"});
  EXPECT_EQ(slotOf(row, kList), (Slot{first.offset, 11, true}));
  EXPECT_EQ(rowLength(row), length);
  EXPECT_EQ(stringOf(row, kName), "behind");
  setBools(row, kList, {true});
  EXPECT_EQ(hex(valueOf(row, kList)), "01 00 01");
}

TEST(ArrayRewrite, SurvivesCompactionAndCopies) {
  FullRow row(1, 1);
  setString(row, kName, "a gap that is long enough for the array behind it to move");
  const std::vector<IpGenPrefix> prefixes{IpGenPrefix("10.0.0.0/8"), IpGenPrefix("::1/128")};
  setArray<IpGenPrefix>(row, kList, prefixes);
  setString(row, kName, "");
  setString(row, kAddr, "needs room");
  EXPECT_EQ(slotOf(row, kList).offset, kBase);
  std::vector<IpGenPrefix> out;
  row.getColumn<IpGenPrefix>(kList, out);
  EXPECT_EQ(out, prefixes);

  PlainRow copy(1, 1);
  copy.copyVarColumn(kList, row, kChild, kBase);
  out.clear();
  copy.getColumn<IpGenPrefix>(kChild, out);
  EXPECT_EQ(out, prefixes);
}

}  // namespace
}  // namespace rowtest
