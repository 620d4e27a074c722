// Reading, writing and copying variable-length columns.

#include "row_test_support.h"

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kPrefix = PlainRow::kPrefix;
constexpr len_t kList = PlainRow::kList;
constexpr len_t kChild = PlainRow::kChild;

template <typename T>
T columnOf(const BaseRow& row, len_t slotOffset) {
  T value;
  row.getColumn<T>(slotOffset, value);
  return value;
}

std::string textOf(const StringValueReference& ref) {
  return std::string(ref.data(), ref.length());
}

// ---------------------------------------------------------------------------------------------
// Reading

TEST(GetColumn, NullRowGivesTheNullValueOfEveryType) {
  const FullRow row;
  const byte_t bytes[16] = {1, 2, 3};

  std::string text = "before";
  row.getColumn<std::string>(kName, text);
  EXPECT_EQ(text, "");
  IpGenAddr addr("10.1.2.3");
  row.getColumn<IpGenAddr>(kName, addr);
  EXPECT_EQ(addr, IpGenAddr());
  IpGenPrefix prefix("10.0.0.0/8");
  row.getColumn<IpGenPrefix>(kName, prefix);
  EXPECT_EQ(prefix, IpGenPrefix());
  StringValueReference stringReference = stringRef("before");
  row.getColumn<StringValueReference>(kName, stringReference);
  EXPECT_EQ(stringReference.data(), nullptr);
  EXPECT_EQ(stringReference.length(), 0);
  IpGenAddrReference addrReference(bytes, Korvo::ipv4_);
  row.getColumn<IpGenAddrReference>(kName, addrReference);
  EXPECT_EQ(addrReference.addr(), nullptr);
  EXPECT_EQ(addrReference.af(), Korvo::unknown_);
  IpGenPrefixReference prefixReference(bytes, Korvo::ipv4_, 8);
  row.getColumn<IpGenPrefixReference>(kName, prefixReference);
  EXPECT_EQ(prefixReference.addr(), nullptr);
  EXPECT_EQ(prefixReference.af(), Korvo::unknown_);
  EXPECT_EQ(prefixReference.mask(), 0);
  SubRowReference subRow(nestedImage().data());
  row.getColumn<SubRowReference>(kName, subRow);
  EXPECT_TRUE(subRow.isNull());
}

TEST(GetColumn, NullColumnGivesTheNullValueOfEveryType) {
  FullRow row(1, 1);
  const byte_t bytes[16] = {1, 2, 3};
  for (const Slot slot : {Slot{0, 0, false}, Slot{0, 0, true}, Slot{33, 0, false}}) {
    setSlot(row, kName, slot);
    std::string text = "before";
    row.getColumn<std::string>(kName, text);
    EXPECT_EQ(text, "");
    IpGenAddr addr("10.1.2.3");
    row.getColumn<IpGenAddr>(kName, addr);
    EXPECT_EQ(addr, IpGenAddr());
    IpGenPrefix prefix("10.0.0.0/8");
    row.getColumn<IpGenPrefix>(kName, prefix);
    EXPECT_EQ(prefix, IpGenPrefix());
    StringValueReference stringReference = stringRef("before");
    row.getColumn<StringValueReference>(kName, stringReference);
    EXPECT_EQ(stringReference.data(), nullptr);
    EXPECT_EQ(stringReference.length(), 0);
    IpGenAddrReference addrReference(bytes, Korvo::ipv4_);
    row.getColumn<IpGenAddrReference>(kName, addrReference);
    EXPECT_EQ(addrReference.addr(), nullptr);
    EXPECT_EQ(addrReference.af(), Korvo::unknown_);
    IpGenPrefixReference prefixReference(bytes, Korvo::ipv4_, 8);
    row.getColumn<IpGenPrefixReference>(kName, prefixReference);
    EXPECT_EQ(prefixReference.addr(), nullptr);
    EXPECT_EQ(prefixReference.af(), Korvo::unknown_);
    EXPECT_EQ(prefixReference.mask(), 0);
    SubRowReference subRow(nestedImage().data());
    row.getColumn<SubRowReference>(kName, subRow);
    EXPECT_TRUE(subRow.isNull());
  }
}

TEST(GetColumn, ReferencesPointIntoTheRow) {
  FullRow row(1, 1);
  setString(row, kName, "abc");
  row.setColumn<IpGenAddr>(kAddr, IpGenAddr("10.1.2.3"), kBase);
  row.setColumn<IpGenPrefix>(kPrefix, IpGenPrefix("10.1.0.0/16"), kBase);
  const auto name = columnOf<StringValueReference>(row, kName);
  EXPECT_EQ(name.data(), reinterpret_cast<const char*>(row.rowBuf() + 33));
  EXPECT_EQ(textOf(name), "abc");
  const auto addr = columnOf<IpGenAddrReference>(row, kAddr);
  EXPECT_EQ(addr.addr(), row.rowBuf() + 36);
  EXPECT_EQ(addr.af(), Korvo::ipv4_);
  const auto prefix = columnOf<IpGenPrefixReference>(row, kPrefix);
  EXPECT_EQ(prefix.addr(), row.rowBuf() + 41);
  EXPECT_EQ(prefix.af(), Korvo::ipv4_);
  EXPECT_EQ(prefix.mask(), 16);
}

TEST(GetColumn, ArrayFormLeavesTheVectorOfANullRowOrColumn) {
  const FullRow nullRow;
  FullRow row(1, 1);
  setSlot(row, kList, {0, 0, true});
  const BaseRow* const rows[] = {&nullRow, &row};
  for (const BaseRow* r : rows) {
    std::vector<std::string> strings{"before"};
    r->getColumn<std::string>(kList, strings);
    EXPECT_EQ(strings, std::vector<std::string>{"before"});
    std::vector<IpGenAddr> addrs{IpGenAddr("1.2.3.4")};
    r->getColumn<IpGenAddr>(kList, addrs);
    EXPECT_EQ(addrs, std::vector<IpGenAddr>{IpGenAddr("1.2.3.4")});
    std::vector<IpGenPrefix> prefixes{IpGenPrefix("1.0.0.0/8")};
    r->getColumn<IpGenPrefix>(kList, prefixes);
    EXPECT_EQ(prefixes, std::vector<IpGenPrefix>{IpGenPrefix("1.0.0.0/8")});
  }
}

TEST(GetColumn, ArrayFormAppends) {
  FullRow row(1, 1);
  const std::vector<IpGenAddr> three{IpGenAddr("10.0.0.1"), IpGenAddr("::1"),
                                     IpGenAddr("10.0.0.3")};
  row.setColumn<IpGenAddr>(kList, three, kBase);
  std::vector<IpGenAddr> gathered(2, IpGenAddr("1.1.1.1"));
  row.getColumn<IpGenAddr>(kList, gathered);
  ASSERT_EQ(gathered.size(), 5u);
  EXPECT_EQ(gathered[1], IpGenAddr("1.1.1.1"));
  EXPECT_EQ(std::vector<IpGenAddr>(gathered.begin() + 2, gathered.end()), three);

  const std::vector<IpGenPrefix> prefixes{IpGenPrefix("10.0.0.0/8"), IpGenPrefix("2001:db8::/33")};
  row.setColumn<IpGenPrefix>(kChild, prefixes, kBase);
  std::vector<IpGenPrefix> out{IpGenPrefix("1.0.0.0/8")};
  row.getColumn<IpGenPrefix>(kChild, out);
  EXPECT_EQ(out, (std::vector<IpGenPrefix>{IpGenPrefix("1.0.0.0/8"), prefixes[0], prefixes[1]}));

  row.setColumn<std::string>(kName, std::vector<std::string>{"b", "", "c"}, kBase);
  std::vector<std::string> strings{"a"};
  row.getColumn<std::string>(kName, strings);
  EXPECT_EQ(strings, (std::vector<std::string>{"a", "b", "", "c"}));
}

TEST(GetColumn, ArrayFormReadsTwelveBitsOfTheCountAndFifteenOfALength) {
  // Count word 0xF001: one element. Its length word has bit 15 set.
  const PlainRow row(imageWith(kList, bytesOf("01 F0 06 00 04 80 0A 01 02 03"), /*array=*/false));
  std::vector<IpGenAddr> addrs;
  row.getColumn<IpGenAddr>(kList, addrs);
  EXPECT_EQ(addrs, std::vector<IpGenAddr>{IpGenAddr("10.1.2.3")});
  std::vector<std::string> strings;
  row.getColumn<std::string>(kList, strings);
  EXPECT_EQ(strings, std::vector<std::string>{"\x0A\x01\x02\x03"});
}

TEST(GetColumn, ArrayOfPrefixesThatItsSettersRefuseThrows) {
  // 10.1.0.0/8: a host bit is set.
  const PlainRow row(imageWith(kList, bytesOf("01 10 06 00 05 00 08 0A 01 00 00"), true));
  std::vector<IpGenPrefix> prefixes;
  EXPECT_THROW(row.getColumn<IpGenPrefix>(kList, prefixes), KoOutOfRange);
}

// ---------------------------------------------------------------------------------------------
// Writing

template <typename Row>
class SetColumn : public testing::Test {};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(SetColumn, RowClasses);

TYPED_TEST(SetColumn, EveryTypeComesBack) {
  TypeParam row(1, 1);
  for (const std::string& text : {std::string("abc"), std::string("\0x\xFF", 3), std::string()}) {
    row.template setColumn<std::string>(kName, text, kBase);
    EXPECT_EQ(stringOf(row, kName), text);
    row.template setColumn<StringValueReference>(kName, stringRef(text), kBase);
    EXPECT_EQ(stringOf(row, kName), text);
  }
  for (const IpGenAddr& addr : {IpGenAddr("10.1.2.3"), IpGenAddr("2001:db8::1"), IpGenAddr()}) {
    row.template setColumn<IpGenAddr>(kAddr, addr, kBase);
    EXPECT_EQ(columnOf<IpGenAddr>(row, kAddr), addr);
    row.template setColumn<IpGenAddrReference>(kAddr, IpGenAddrReference(addr.bytes(), addr.af()),
                                               kBase);
    EXPECT_EQ(columnOf<IpGenAddr>(row, kAddr), addr);
  }
  for (const IpGenPrefix& prefix : {IpGenPrefix("10.1.0.0/16"), IpGenPrefix("2001:db8::/64"),
                                    IpGenPrefix("::/0"), IpGenPrefix()}) {
    row.template setColumn<IpGenPrefix>(kPrefix, prefix, kBase);
    EXPECT_EQ(columnOf<IpGenPrefix>(row, kPrefix), prefix);
    row.template setColumn<IpGenPrefixReference>(
        kPrefix,
        IpGenPrefixReference(prefix.addr().bytes(), prefix.addr().af(),
                             static_cast<byte_t>(prefix.mask())),
        kBase);
    EXPECT_EQ(columnOf<IpGenPrefix>(row, kPrefix), prefix);
  }
}

TYPED_TEST(SetColumn, EmptyValueClearsTheSlotAndLeavesTheBytes) {
  TypeParam row(1, 1);
  setString(row, kName, "abc");
  setString(row, kName, "");
  EXPECT_EQ(slotOf(row, kName), (Slot{0, 0, false}));
  EXPECT_EQ(rowLength(row), 36);
  EXPECT_EQ(hex(row.rowBuf() + 33, 3), "61 62 63");
  EXPECT_EQ(stringOf(row, kName), "");
}

TYPED_TEST(SetColumn, EmptyValuesOfEveryTypeKeepTheArrayMark) {
  const std::vector<std::function<void(BaseRow&)>> writers{
      [](BaseRow& row) { row.setColumn<std::string>(kName, "", kBase); },
      [](BaseRow& row) { row.setColumn<IpGenAddr>(kName, IpGenAddr(), kBase); },
      [](BaseRow& row) { row.setColumn<IpGenPrefix>(kName, IpGenPrefix(), kBase); },
      [](BaseRow& row) {
        row.setColumn<StringValueReference>(kName, StringValueReference(), kBase);
      },
      [](BaseRow& row) { row.setColumn<IpGenAddrReference>(kName, IpGenAddrReference(), kBase); },
      [](BaseRow& row) {
        row.setColumn<IpGenPrefixReference>(kName, IpGenPrefixReference(), kBase);
      },
      [](BaseRow& row) { row.setColumn<std::string>(kName, std::vector<std::string>(), kBase); },
      [](BaseRow& row) { row.setColumn<IpGenAddr>(kName, std::vector<IpGenAddr>(), kBase); },
      [](BaseRow& row) { row.setColumn<IpGenPrefix>(kName, std::vector<IpGenPrefix>(), kBase); },
  };
  for (std::size_t i = 0; i < writers.size(); ++i) {
    for (const bool array : {false, true}) {
      TypeParam row(1, 1);
      setString(row, kName, "abc");
      setSlot(row, kName, {33, 3, array});
      Bytes expected = imageOf(row);
      writeSlot(expected.data() + kName, {0, 0, array});
      writers[i](row);
      EXPECT_EQ(hex(row), hex(expected)) << "writer " << i;
    }
  }
}

TYPED_TEST(SetColumn, ScalarClearsTheArrayMarkAndArraySetsIt) {
  TypeParam row(1, 1);
  row.template setColumn<std::string>(kName, std::vector<std::string>{"long enough"}, kBase);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 17, true}));
  row.template setColumn<std::string>(kName, std::string("abc"), kBase);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 3, false}));
  row.template setColumn<std::string>(kName, std::vector<std::string>{""}, kBase);
  EXPECT_TRUE(slotOf(row, kName).array);
}

TYPED_TEST(SetColumn, RowsOfEveryAlignmentOfTheVariableArea) {
  for (unsigned pad = 0; pad < 8; ++pad) {
    TypeParam row(1, 1);
    setString(row, kChild, std::string(pad, 'p'));
    const std::vector<IpGenAddr> addrs{IpGenAddr("2001:db8::1"), IpGenAddr("10.0.0.1")};
    row.template setColumn<IpGenAddr>(kList, addrs, kBase);
    row.template setColumn<IpGenPrefix>(kPrefix, IpGenPrefix("2001:db8::/64"), kBase);
    std::vector<IpGenAddr> out;
    row.template getColumn<IpGenAddr>(kList, out);
    EXPECT_EQ(out, addrs);
    EXPECT_EQ(columnOf<IpGenPrefix>(row, kPrefix), IpGenPrefix("2001:db8::/64"));
  }
}

// ---------------------------------------------------------------------------------------------
// Copying a column

TYPED_TEST(SetColumn, CopyVarColumnCopiesBytesAndMark) {
  for (const bool array : {false, true}) {
    const PlainRow source(imageWith(kAddr, bytesOf("01 10 06 00 01 00 78"), array));
    const Bytes sourceImage = imageOf(source);
    TypeParam row(1, 1);
    setSlot(row, kList, {0, 0, !array});
    row.copyVarColumn(kAddr, source, kList, kBase);
    EXPECT_EQ(slotOf(row, kList), (Slot{33, 7, array}));
    EXPECT_EQ(hex(valueOf(row, kList)), "01 10 06 00 01 00 78");
    EXPECT_EQ(hex(source), hex(sourceImage));
    EXPECT_EQ(source.useCount(), 1);
  }
}

TYPED_TEST(SetColumn, CopyVarColumnReusesThePlace) {
  const PlainRow source(imageWith(kAddr, bytesOfString("ab")));
  TypeParam row(1, 1);
  setString(row, kName, "wxyz");
  row.copyVarColumn(kAddr, source, kName, kBase);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 2, false}));
  EXPECT_EQ(hex(row.rowBuf() + 33, 4), "61 62 79 7A");
  EXPECT_EQ(rowLength(row), 37);
}

TYPED_TEST(SetColumn, CopyVarColumnOfANullColumnClearsAndCopiesTheMark) {
  for (const bool array : {false, true}) {
    TypeParam source(1, 1);
    setSlot(source, kAddr, {33, 0, array});
    TypeParam row(1, 1);
    setString(row, kName, "abc");
    setSlot(row, kName, {33, 3, !array});
    row.copyVarColumn(kAddr, source, kName, kBase);
    EXPECT_EQ(slotOf(row, kName), (Slot{0, 0, array}));
    EXPECT_EQ(rowLength(row), 36);
  }
}

TYPED_TEST(SetColumn, CopyVarColumnFromANullRowThrows) {
  TypeParam row(1, 1);
  setString(row, kName, "abc");
  const Bytes before = imageOf(row);
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { row.copyVarColumn(kAddr, TypeParam(), kName, kBase); }),
            "null row");
  EXPECT_EQ(
      thrownMessage<KoNullRow>([&] { row.copyVarColumn(kAddr, SubRowReference(), kName, kBase); }),
      "null row");
  EXPECT_EQ(hex(row), hex(before));
}

TYPED_TEST(SetColumn, CopyVarColumnBetweenRowsThatShareTheBuffer) {
  TypeParam row(1, 1);
  setString(row, kName, "the name");
  const TypeParam twin = row;
  const Bytes before = imageOf(twin);
  row.copyVarColumn(kName, twin, kAddr, kBase);
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_EQ(stringOf(row, kAddr), "the name");
  EXPECT_EQ(stringOf(row, kName), "the name");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{41, 8, false}));
}

TYPED_TEST(SetColumn, CopyVarColumnOntoItselfChangesNothing) {
  for (const bool array : {false, true}) {
    TypeParam row(1, 1);
    setString(row, kAddr, "before");
    setString(row, kName, "the name");
    setString(row, kPrefix, "behind");
    setSlot(row, kName, {39, 8, array});
    const Bytes before = imageOf(row);
    row.copyVarColumn(kName, row, kName, kBase);
    EXPECT_EQ(hex(row), hex(before));
    row.copyVarColumn(kList, row, kList, kBase);
    EXPECT_EQ(hex(row), hex(before)) << "a null column onto itself";
  }
}

TYPED_TEST(SetColumn, CopyVarColumnWithinARowThatGrows) {
  TypeParam row(1, 1);
  const std::string text(3000, 'n');
  setString(row, kName, text);
  for (const len_t slot : {kAddr, kPrefix, kList, kChild}) {
    row.copyVarColumn(kName, row, slot, kBase);
    EXPECT_EQ(stringOf(row, slot), text);
  }
  EXPECT_EQ(rowLength(row), kBase + 5 * 3000);
}

TEST(CopyVarColumn, WithinARowThatIsCompacted) {
  // The source moves to lower offsets while room is made for the copy.
  FullRow row(1, 1);
  setString(row, kChild, "gap gap gap ");
  setString(row, kName, "0123456789");
  setString(row, kPrefix, "pp");
  setString(row, kChild, "");
  row.copyVarColumn(kName, row, kAddr, kBase);
  EXPECT_EQ(rowLength(row), 33 + 12 + 10 + 2);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 10, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{43, 2, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{45, 10, false}));
  EXPECT_EQ(stringOf(row, kName), "0123456789");
  EXPECT_EQ(stringOf(row, kPrefix), "pp");
  EXPECT_EQ(stringOf(row, kAddr), "0123456789");
}

// ---------------------------------------------------------------------------------------------
// Values that refer into the row being written count as copied first

/// A sharer or none: the buffer of the row written to is copied first, or not.
template <typename Row>
class AliasingWrite : public testing::Test {
 protected:
  /// Runs `write` on `row`, once alone and once with a twin, which must keep its bytes. Both
  /// results must be the same.
  template <typename Write>
  Row written(const Row& start, Write write) {
    Row alone(imageOf(start));
    write(alone);

    Row shared(imageOf(start));
    const Row twin = shared;
    write(shared);
    EXPECT_EQ(hex(twin), hex(imageOf(start)));
    EXPECT_EQ(twin.useCount(), 1);
    EXPECT_EQ(hex(shared), hex(alone));
    return alone;
  }
};
TYPED_TEST_SUITE(AliasingWrite, RowClasses);

template <typename Row>
Row rowForAliasing() {
  Row row(1, 1);
  setString(row, kName, "0123456789");
  row.template setColumn<IpGenAddr>(kAddr, IpGenAddr("10.1.2.3"), kBase);
  row.template setColumn<IpGenPrefix>(kPrefix, IpGenPrefix("10.1.0.0/16"), kBase);
  setString(row, kChild, "gapgapgapgapgap");
  setString(row, kList, "tail");
  setString(row, kChild, "");
  return row;
}

TYPED_TEST(AliasingWrite, PartsOfAStringOverItself) {
  for (unsigned first = 0; first < 10; ++first) {
    for (unsigned length = 1; first + length <= 10; ++length) {
      const TypeParam row = this->written(rowForAliasing<TypeParam>(), [&](TypeParam& r) {
        const auto name = columnOf<StringValueReference>(r, kName);
        r.template setColumn<StringValueReference>(
            kName, StringValueReference(name.data() + first, static_cast<len_t>(length)), kBase);
      });
      EXPECT_EQ(stringOf(row, kName), std::string("0123456789").substr(first, length));
      EXPECT_EQ(slotOf(row, kName).offset, 33u);
    }
  }
}

TYPED_TEST(AliasingWrite, StringIntoAnotherColumn) {
  for (const len_t target : {kAddr, kPrefix, kList, kChild}) {
    const TypeParam row = this->written(rowForAliasing<TypeParam>(), [&](TypeParam& r) {
      r.template setColumn<StringValueReference>(target, columnOf<StringValueReference>(r, kName),
                                                 kBase);
    });
    EXPECT_EQ(stringOf(row, target), "0123456789");
    EXPECT_EQ(stringOf(row, kName), "0123456789");
  }
}

TYPED_TEST(AliasingWrite, StringIntoAnotherColumnOfARowThatGrowsMuch) {
  TypeParam start(1, 1);
  std::string text(30000, 'x');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
  setString(start, kName, text);
  const TypeParam row = this->written(start, [&](TypeParam& r) {
    r.template setColumn<StringValueReference>(kAddr, columnOf<StringValueReference>(r, kName),
                                               kBase);
  });
  EXPECT_EQ(stringOf(row, kAddr), text);
  EXPECT_EQ(stringOf(row, kName), text);
}

TYPED_TEST(AliasingWrite, StringIntoTheColumnWhoseOldBytesItHolds) {
  // From the middle of `name` through `addr` into `prefix`: longer than the old value, whose bytes
  // are free as soon as room is sought, and everything behind them moves.
  const TypeParam start = rowForAliasing<TypeParam>();
  const std::string text(reinterpret_cast<const char*>(start.rowBuf() + 35), 15);
  const TypeParam row = this->written(start, [&](TypeParam& r) {
    r.template setColumn<StringValueReference>(
        kName, StringValueReference(reinterpret_cast<const char*>(r.rowBuf() + 35), 15), kBase);
  });
  EXPECT_EQ(stringOf(row, kName), text);
  EXPECT_EQ(columnOf<IpGenAddr>(row, kAddr), IpGenAddr("10.1.2.3"));
  EXPECT_EQ(columnOf<IpGenPrefix>(row, kPrefix), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(stringOf(row, kList), "tail");
}

TYPED_TEST(AliasingWrite, BytesOfAGap) {
  const TypeParam start = rowForAliasing<TypeParam>();
  const len_t gap = 33 + 10 + 4 + 5;
  const TypeParam row = this->written(start, [&](TypeParam& r) {
    r.template setColumn<StringValueReference>(
        kChild, StringValueReference(reinterpret_cast<const char*>(r.rowBuf() + gap), 15), kBase);
  });
  EXPECT_EQ(stringOf(row, kChild), "gapgapgapgapgap");
  EXPECT_EQ(stringOf(row, kList), "tail");
}

TYPED_TEST(AliasingWrite, HeaderAndSlotsThemselves) {
  // The value holds the row length and the slot as they were before the write.
  const TypeParam start = rowForAliasing<TypeParam>();
  const Bytes fixedArea(start.rowBuf(), start.rowBuf() + kBase);
  const TypeParam row = this->written(start, [&](TypeParam& r) {
    r.template setColumn<StringValueReference>(
        kName, StringValueReference(reinterpret_cast<const char*>(r.rowBuf()), kBase), kBase);
  });
  EXPECT_EQ(hex(valueOf(row, kName)), hex(fixedArea));
}

TYPED_TEST(AliasingWrite, WholeRow) {
  const TypeParam start = rowForAliasing<TypeParam>();
  for (const len_t target : kVariableSlots) {
    const TypeParam row = this->written(start, [&](TypeParam& r) {
      r.template setColumn<StringValueReference>(
          target, StringValueReference(reinterpret_cast<const char*>(r.rowBuf()), rowLength(r)),
          kBase);
    });
    EXPECT_EQ(hex(valueOf(row, target)), hex(start));
  }
}

TYPED_TEST(AliasingWrite, AddressReferences) {
  // Four bytes of the name are read as an address.
  for (const len_t target : {kName, kAddr, kPrefix, kChild}) {
    for (len_t first = 0; first <= 6; ++first) {
      const TypeParam row = this->written(rowForAliasing<TypeParam>(), [&](TypeParam& r) {
        r.template setColumn<IpGenAddrReference>(
            target, IpGenAddrReference(r.rowBuf() + 33 + first, Korvo::ipv4_), kBase);
      });
      EXPECT_EQ(hex(valueOf(row, target)),
                hex(bytesOfString(std::string("0123456789").substr(first, 4))));
    }
  }
}

TYPED_TEST(AliasingWrite, PrefixReferences) {
  // The length byte is written before the address bytes, which may begin where it goes.
  for (const len_t target : {kName, kAddr, kPrefix, kChild}) {
    for (len_t first = 0; first <= 6; ++first) {
      const TypeParam row = this->written(rowForAliasing<TypeParam>(), [&](TypeParam& r) {
        r.template setColumn<IpGenPrefixReference>(
            target, IpGenPrefixReference(r.rowBuf() + 33 + first, Korvo::ipv4_, 0xAB), kBase);
      });
      EXPECT_EQ(hex(valueOf(row, target)),
                hex(bytesOf("AB") + bytesOfString(std::string("0123456789").substr(first, 4))));
    }
  }
}

TYPED_TEST(AliasingWrite, WritersCalledDirectly) {
  const TypeParam row = this->written(rowForAliasing<TypeParam>(), [&](TypeParam& r) {
    r.template updateVarElement<StringValueReference>(
        kChild, kBase, StringValueReference(reinterpret_cast<const char*>(r.rowBuf() + 33), 10));
    r.template updateVarElement<IpGenPrefixReference>(
        kName, kBase, IpGenPrefixReference(r.rowBuf() + slotOf(r, kName).offset, Korvo::ipv4_, 9));
  });
  EXPECT_EQ(stringOf(row, kChild), "0123456789");
  EXPECT_EQ(hex(valueOf(row, kName)), "09 30 31 32 33");
}

TYPED_TEST(AliasingWrite, CopyVarColumnToEveryOtherColumn) {
  for (const len_t source : {kName, kAddr, kPrefix, kList}) {
    for (const len_t target : kVariableSlots) {
      const TypeParam start = rowForAliasing<TypeParam>();
      const TypeParam row =
          this->written(start, [&](TypeParam& r) { r.copyVarColumn(source, r, target, kBase); });
      for (const len_t slot : kVariableSlots) {
        EXPECT_EQ(hex(valueOf(row, slot)), hex(valueOf(start, slot == target ? source : slot)))
            << source << " to " << target << ", column " << slot;
      }
    }
  }
}

TEST(AliasingValue, RefersIntoABufferThatOnlyTheTwinHolds) {
  FullRow row(1, 1);
  setString(row, kName, "0123456789");
  const FullRow twin = row;
  const auto name = columnOf<StringValueReference>(twin, kName);
  for (unsigned i = 0; i < 5; ++i) {
    row.setColumn<StringValueReference>(kVariableSlots[i], name, kBase);
  }
  for (const len_t slot : kVariableSlots) EXPECT_EQ(stringOf(row, slot), "0123456789");
  EXPECT_EQ(textOf(name), "0123456789");
}

// ---------------------------------------------------------------------------------------------

std::string setColumnSignature(const std::string& parameter, const std::string& type) {
  return "void Korvo::BaseRow::setColumn(Korvo::len_t, " + parameter +
         ", Korvo::len_t) [with T = " + type + "; Korvo::len_t = short unsigned int]";
}

template <typename T>
void scalarNeedsFdLen(const std::string& type, const T& value) {
  FullRow row(1, 1);
  EXPECT_ASSERTION(row.setColumn<T>(kName, value, 0), kSourceFile,
                   setColumnSignature("const T&", type), "fdLen != 0");
}

template <typename T>
void arrayNeedsFdLen(const std::string& type, const std::vector<T>& values) {
  FullRow row(1, 1);
  EXPECT_ASSERTION(row.setColumn<T>(kName, values, 0), kSourceFile,
                   setColumnSignature("const std::vector<T>&", type), "fdLen != 0");
}

TEST(SetColumnDeathTest, EveryMemberNeedsFdLen) {
  scalarNeedsFdLen("std::basic_string<char>", sample<std::string>());
  scalarNeedsFdLen("Korvo::IpGenAddr", sample<IpGenAddr>());
  scalarNeedsFdLen("Korvo::IpGenPrefix", sample<IpGenPrefix>());
  scalarNeedsFdLen("Korvo::StringValueReference", sample<StringValueReference>());
  scalarNeedsFdLen("Korvo::IpGenAddrReference", sample<IpGenAddrReference>());
  scalarNeedsFdLen("Korvo::IpGenPrefixReference", sample<IpGenPrefixReference>());
  scalarNeedsFdLen("Korvo::SubRowReference", sample<SubRowReference>());
  arrayNeedsFdLen<std::string>("std::basic_string<char>", {"x"});
  arrayNeedsFdLen<IpGenAddr>("Korvo::IpGenAddr", {sample<IpGenAddr>()});
  arrayNeedsFdLen<IpGenPrefix>("Korvo::IpGenPrefix", {sample<IpGenPrefix>()});
}

TEST(SetColumnDeathTest, EmptyValuesNeedItToo) {
  scalarNeedsFdLen("std::basic_string<char>", std::string());
  scalarNeedsFdLen("Korvo::IpGenAddr", IpGenAddr());
  scalarNeedsFdLen("Korvo::SubRowReference", SubRowReference());
  arrayNeedsFdLen<std::string>("std::basic_string<char>", {});
}

TEST(SetColumn, ANullRowIsToldBeforeTheMissingBaseLength) {
  FullRow row;
  EXPECT_THROW(row.setColumn<std::string>(kName, "x", 0), KoNullRow);
  EXPECT_THROW(row.setColumn<std::string>(kName, std::vector<std::string>{"x"}, 0), KoNullRow);
  EXPECT_THROW(row.updateVarElement<std::string>(kName, 0, "x"), KoNullRow);
}

TEST(SetColumnDeathTest, OtherWritersMeetTheBaseLengthWhenTheyNeedRoom) {
  constexpr std::string_view signature =
      "Korvo::len_t Korvo::BaseRow::makeFreeSpace(Korvo::len_t, Korvo::len_t, Korvo::len_t)";
  FullRow row(1, 1);
  setString(row, kName, "abc");
  EXPECT_ASSERTION(row.updateVarElement<std::string>(kName, 0, "x"), kSourceFile, signature,
                   "baseRowLength != 0");
  EXPECT_ASSERTION(row.updateVarElemArray<std::string>(kName, 0, {"x"}), kSourceFile, signature,
                   "baseRowLength != 0");
  EXPECT_ASSERTION(row.updateFixElemArray<bool>(kName, 0, {true}), kSourceFile, signature,
                   "baseRowLength != 0");
  EXPECT_ASSERTION(row.copyVarColumn(kName, row, kAddr, 0), kSourceFile, signature,
                   "baseRowLength != 0");
  // No room, no question.
  row.updateVarElement<std::string>(kName, 0, "");
  row.copyVarColumn(kList, row, kName, 0);
  EXPECT_EQ(slotOf(row, kName), (Slot{0, 0, false}));
}

}  // namespace
}  // namespace rowtest
