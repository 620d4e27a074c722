// Merely names every public member and instance, each with its exact type. Linked against the
// shared library, it finds what is declared and not exported. A second source that includes
// everything (public_api_second.cpp) is linked with it: nothing that the headers define is defined
// twice.

#include "public_api_second.h"

#include <Korvo/AnyRow.h>
#include <Korvo/KoStrUtils.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/RowConverter.h>
#include <Korvo/Scheduler.h>
#include <Korvo/TableRow.h>
#include <Korvo/assertion.h>
#include <Korvo/baseRow.h>
#include <Korvo/korvo_types.h>
#include <Korvo/layoutText.h>
#include <Korvo/rowCheck.h>
#include <Velto/DebugSupport.h>
#include <Velto/Exception.h>
#include <Velto/Platform.h>
#include <gtest/gtest.h>

#include <compare>
#include <ostream>
#include <ranges>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace Korvo;  // NOLINT: this file names nearly all of it

/// Whether the function or member is there. Its address is used, so that it has to be linked.
template <typename Exact>
testing::AssertionResult named(std::type_identity_t<Exact> member) {
  asm volatile("" : : "m"(member));
  return testing::AssertionResult(member != nullptr);
}

/// For virtual members: a call that never takes place, of this very class's function.
template <typename Class>
using Call = void (*)(Class&);

template <typename Class>
testing::AssertionResult called(std::initializer_list<Call<Class>> calls) {
  for (const Call<Class> call : calls) {
    if (!named<Call<Class>>(call)) return testing::AssertionFailure();
  }
  return testing::AssertionSuccess();
}

using Text = std::string;
using Texts = std::vector<std::string>;

TEST(PublicApiTest, Exceptions) {
  const KoBaseException base("text", "class");
  const Velto::Exception& root = base;
  EXPECT_STREQ(root.what(), "text");
  EXPECT_TRUE(root.flag());
  KoBaseException copy(base);
  copy = base;
  EXPECT_STREQ(copy.KoBaseException::name(), "class");
  EXPECT_STREQ(KoInvalidArgument("a").what(), "a");
  EXPECT_STREQ(KoInvalidTypeName("b").what(), "b");
  EXPECT_STREQ(KoOutOfRange("c").what(), "c");
  EXPECT_STREQ(KoNullRow().what(), "null row");
  EXPECT_STREQ(KoSchedulableDisabled("d").what(), "d");
}

/// An exception is caught by its type across the library's boundary.
TEST(PublicApiTest, ExceptionsCrossTheBoundary) {
  EXPECT_THROW(IpGenPrefix("10.0.0.0/33"), KoOutOfRange);
  EXPECT_THROW(IpGenAddr("10.0.0"), Velto::Exception);
  EXPECT_THROW(BaseRow().rowLength(), KoNullRow);
}

TEST(PublicApiTest, TypeCatalogue) {
  EXPECT_EQ(Korvo::hash()(stringType_), 11U);
  EXPECT_TRUE(named<unsigned short (*)(unsigned short)>(&getKorvoTypeLength));
  EXPECT_TRUE(named<bool (*)(KorvoTypes)>(&korvoTypeIsVariableLength));
  EXPECT_TRUE(named<const Text& (*)(KorvoTypes)>(&getKorvoTypeName));
  EXPECT_TRUE(named<KorvoTypes (*)(const Text&)>(&korvoCppTypeNameToType));
  EXPECT_TRUE(named<unsigned char(*)[9]>(&byteMaskTbl));
}

template <typename T>
using Inserter = std::ostream& (*)(std::ostream&, const T&);

TEST(PublicApiTest, Inserters) {
  EXPECT_TRUE(named<Inserter<FMT<unsigned char>>>(&operator<<));
  EXPECT_TRUE(named<Inserter<FMT<signed char>>>(&operator<<));
  EXPECT_TRUE(named<Inserter<FMT<bool>>>(&operator<<));
  EXPECT_TRUE(named<Inserter<FMT<std::string>>>(&operator<<));
  EXPECT_TRUE(named<Inserter<FMT<StringValueReference>>>(&operator<<));
  EXPECT_TRUE(named<Inserter<FMT<int>>>(&operator<<));
  EXPECT_EQ(FMT<int>(3).value(), 3);
  EXPECT_TRUE(named<Inserter<IpAddr>>(&operator<<));
  EXPECT_TRUE(named<Inserter<Ip6Addr>>(&operator<<));
  EXPECT_TRUE(named<Inserter<IpGenAddr>>(&operator<<));
  EXPECT_TRUE(named<Inserter<IpGenPrefix>>(&operator<<));
  EXPECT_TRUE(named<Inserter<StringValueReference>>(&operator<<));
  EXPECT_TRUE(named<Inserter<IpGenAddrReference>>(&operator<<));
  EXPECT_TRUE(named<Inserter<IpGenPrefixReference>>(&operator<<));
  EXPECT_TRUE(named<Inserter<BaseRow>>(&operator<<));
}

template <typename T>
void expectOrderedAndHashed(const T& small, const T& large) {
  EXPECT_TRUE(small == small && small != large && small < large && large > small &&
              small <= large && large >= small);
  EXPECT_EQ(std::hash<T>()(small), std::hash<T>()(T(small)));
}

TEST(PublicApiTest, Addresses) {
  static_assert(std::is_same_v<std::underlying_type_t<AddressFamily>, std::uint32_t>);
  static_assert(std::is_same_v<std::underlying_type_t<KorvoTypes>, std::uint32_t>);
  const unsigned char bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

  expectOrderedAndHashed(IpAddr(), IpAddr(Text("1.2.3.4")));
  EXPECT_EQ(IpAddr(0x04030201U).addr(), 0x04030201U);

  expectOrderedAndHashed(Ip6Addr(), Ip6Addr(bytes));
  EXPECT_EQ(Ip6Addr(Text("::1")).bytes()[15], 1);
  EXPECT_TRUE(
      (named<void (Ip6Addr::*)(unsigned short, unsigned short)>(&Ip6Addr::clearLowerAddrBits)));

  expectOrderedAndHashed(IpGenAddr(), IpGenAddr(IpAddr()));
  EXPECT_EQ(IpGenAddr(Ip6Addr(bytes)), IpGenAddr(ipv6_, bytes));
  EXPECT_EQ(IpGenAddr(Text("1.2.3.4")).bytes()[3], 4);
  EXPECT_TRUE(named<AddressFamily (IpGenAddr::*)() const>(&IpGenAddr::af));
  EXPECT_TRUE(named<int (IpGenAddr::*)() const>(&IpGenAddr::addressLengthBytes));
  EXPECT_TRUE(named<void (IpGenAddr::*)(unsigned short)>(&IpGenAddr::clearLowerAddrBits));

  EXPECT_TRUE(named<int (*)(const Text&, unsigned int*)>(&strToV4Addr));
  EXPECT_TRUE(named<bool (*)(const Text&)>(&validV4Addr));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&expandV6Addr));
  EXPECT_TRUE(named<bool (*)(const Text&)>(&validV6Addr));
  EXPECT_TRUE((named<bool (*)(IpGenAddr, int)>(&validPrefix)));
}

TEST(PublicApiTest, Prefixes) {
  const unsigned char bytes[16] = {10};
  const IpGenPrefix prefix(IpAddr(10), 8);
  EXPECT_EQ(IpGenPrefix(IpGenAddr(IpAddr(10)), 8), prefix);
  EXPECT_EQ(IpGenPrefix(ipv4_, 8, bytes), prefix);
  EXPECT_EQ(IpGenPrefix(Text("10.0.0.0/8")), prefix);
  EXPECT_NE(IpGenPrefix(Ip6Addr(bytes), 8), prefix);
  EXPECT_NE(IpGenPrefix(), prefix);
  EXPECT_EQ(std::hash<IpGenPrefix>()(prefix), std::hash<IpGenPrefix>()(IpGenPrefix(prefix)));
  EXPECT_TRUE(named<const IpGenAddr& (IpGenPrefix::*)() const>(&IpGenPrefix::addr));
  EXPECT_TRUE(named<unsigned int (IpGenPrefix::*)() const>(&IpGenPrefix::mask));
  EXPECT_TRUE(named<void (IpGenPrefix::*)()>(&IpGenPrefix::reset));
  EXPECT_TRUE(named<bool (IpGenPrefix::*)(const IpGenPrefix&) const>(&IpGenPrefix::contains));
  EXPECT_TRUE(named<bool (IpGenPrefix::*)(const IpGenPrefix&) const>(&IpGenPrefix::operator<));
  EXPECT_TRUE(named<void (IpGenPrefix::*)()>(&IpGenPrefix::clearLowerAddrBits));
  EXPECT_TRUE(named<void (IpGenPrefix::*)(unsigned short)>(&IpGenPrefix::clearLowerAddrBits));
  EXPECT_TRUE(named<void (IpGenPrefix::*)(const IpGenAddr&)>(&IpGenPrefix::addrIs));
  EXPECT_TRUE(named<void (IpGenPrefix::*)(unsigned int)>(&IpGenPrefix::maskIs));
  EXPECT_TRUE(named<void (IpGenPrefix::*)(AddressFamily)>(&IpGenPrefix::afIs));
}

TEST(PublicApiTest, RowParts) {
  static_assert(std::is_same_v<BaseRow::vcdType, std::vector<len_t>>);
  static_assert(!std::is_copy_constructible_v<KoRowBuf>);
  const KoRowBuf owner;
  EXPECT_EQ(owner.buf_, nullptr);
  EXPECT_TRUE(named<len_t (VColType::*)() const noexcept>(&VColType::offset));
  EXPECT_TRUE(named<len_t (VColType::*)() const noexcept>(&VColType::length));
  EXPECT_TRUE(named<bool (VColType::*)() const noexcept>(&VColType::isArray));
  EXPECT_TRUE((named<void (VColType::*)(len_t, len_t, bool) noexcept>(&VColType::valueIs)));
  EXPECT_TRUE(named<void (VColType::*)() noexcept>(&VColType::clear));
  EXPECT_TRUE((named<const VColType& (*)(const byte_t*, std::size_t) noexcept>(&VColType::at)));
  EXPECT_TRUE((named<VColType& (*)(byte_t*, std::size_t) noexcept>(&VColType::at)));
  static_assert(std::is_base_of_v<std::map<len_t, len_t>, varFieldMap>);
  EXPECT_TRUE(called<const BaseRow>({[](const BaseRow& row) { varFieldMap map(row); }}));
}

template <typename T>
void expectComparable() {
  const T null;
  EXPECT_TRUE(null == null);
  EXPECT_FALSE(null != null);
  using Compare = bool (T::*)(const T&) const;
  EXPECT_TRUE(named<Compare>(&T::operator<));
  EXPECT_TRUE(named<Compare>(&T::operator>));
  EXPECT_TRUE(named<Compare>(&T::operator<=));
  EXPECT_TRUE(named<Compare>(&T::operator>=));
}

TEST(PublicApiTest, ValueReferences) {
  expectComparable<StringValueReference>();
  constexpr StringValueReference text("abc", 3);
  static_assert(text.length() == 3 && text.size() == 3 && !text.empty() && text.view() == "abc");
  EXPECT_EQ(std::string_view(text).data(), text.data());

  expectComparable<IpGenAddrReference>();
  const byte_t bytes[16] = {};
  const IpGenAddrReference addr(bytes, ipv4_);
  EXPECT_TRUE(addr.addr() == bytes && addr.af() == ipv4_);

  expectComparable<IpGenPrefixReference>();
  const IpGenPrefixReference prefix(bytes, ipv6_, 8);
  EXPECT_TRUE(prefix.addr() == bytes && prefix.af() == ipv6_ && prefix.mask() == 8);
  EXPECT_TRUE(prefix.contains(prefix));
}

template <typename T>
void expectArrayReference() {
  using Array = ArrayReference<T>;
  static_assert(std::ranges::random_access_range<Array> && std::ranges::borrowed_range<Array>);
  EXPECT_EQ(Array().size(), 0U);
  EXPECT_TRUE(Array().empty());
  const byte_t none[2] = {};
  EXPECT_EQ(Array(none).begin(), Array(none).end());
  EXPECT_TRUE(named<T (Array::*)(unsigned int) const>(&Array::operator[]));
  EXPECT_TRUE(named<Array (BaseRow::*)(len_t) const>(&BaseRow::arrayReference<T>));
}

TEST(PublicApiTest, Arrays) {
  expectArrayReference<std::string>();
  expectArrayReference<IpGenAddr>();
  expectArrayReference<IpGenPrefix>();
  expectArrayReference<StringValueReference>();
  expectArrayReference<IpGenAddrReference>();
  expectArrayReference<IpGenPrefixReference>();
  expectArrayReference<SubRowReference>();
  expectArrayReference<bool>();
}

/// What row classes may override, called as the base's own.
template <typename Row>
void expectVirtualMembers() {
  EXPECT_TRUE(called<Row>(
      {[](Row& row) { row.Row::rowBuf(); }, [](Row& row) { row.Row::rwRowBuf(); },
       [](Row& row) { row.Row::replaceRow(nullptr); },
       [](Row& row) { row.Row::shareContents(row); }, [](Row& row) { row.Row::vcd(); },
       [](Row& row) { row.Row::columnOffset(""); }, [](Row& row) { row.Row::nullifyRow(); },
       [](Row& row) { row.Row::isNull(); }, [](Row& row) { row.Row::toString(); },
       [](Row& row) { row.Row::toJson(); }, [](Row& row) { row.Row::baseRowLength(); },
       [](Row& row) { row.Row::isFullyDefined(); }, [](Row& row) { row.Row::clearRow(); }}));
  Row row;
  Row copy(row);
  copy = row;
  Row moved(std::move(copy));
  row = std::move(moved);
  EXPECT_TRUE(row.isNull());
}

template <typename T>
void expectFixedColumn() {
  EXPECT_TRUE(named<T (BaseRow::*)(len_t) const>(&BaseRow::fixedColumn<T>));
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, const T&)>(&BaseRow::setFixedColumn<T>)));
}

template <typename T>
void expectVariableColumn() {
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, T&) const>(&BaseRow::getColumn<T>)));
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, const T&, len_t)>(&BaseRow::setColumn<T>)));
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, len_t, const T&)>(&BaseRow::updateVarElement<T>)));
  EXPECT_TRUE(named<len_t (*)(const T&)>(&BaseRow::encodeLength<T>));
  EXPECT_TRUE((named<len_t (*)(void*, const T&)>(&BaseRow::encode<T>)));
  EXPECT_TRUE((named<void (*)(const void*, len_t, T&)>(&BaseRow::decode<T>)));
  EXPECT_TRUE(named<void (*)(T&)>(&BaseRow::setToNull<T>));
}

template <typename T>
void expectArrayColumn() {
  using Values = std::vector<T>;
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, Values&) const>(&BaseRow::getColumn<T>)));
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, Values&) const>(&BaseRow::getVarElemArray<T>)));
  EXPECT_TRUE((named<void (BaseRow::*)(len_t, const Values&, len_t)>(&BaseRow::setColumn<T>)));
  EXPECT_TRUE(
      (named<void (BaseRow::*)(len_t, len_t, const Values&)>(&BaseRow::updateVarElemArray<T>)));
  EXPECT_TRUE(named<len_t (*)(const Values&)>(&BaseRow::encodeLength<T>));
}

template <typename T>
void expectComparedColumn() {
  using Compare = bool (BaseRow::*)(len_t, const BaseRow&, len_t) const;
  EXPECT_TRUE(named<Compare>(&BaseRow::columnEqual<T>));
  EXPECT_TRUE(named<Compare>(&BaseRow::columnLess<T>));
  EXPECT_TRUE((named<bool (BaseRow::*)(len_t, const T&) const>(&BaseRow::columnEqualConst<T>)));
  EXPECT_TRUE(named<unsigned int (BaseRow::*)(len_t) const>(&BaseRow::columnHash<T>));
}

TEST(PublicApiTest, Rows) {
  expectVirtualMembers<BaseRow>();
  expectVirtualMembers<SubRowReference>();
  const byte_t bytes[8] = {8};
  EXPECT_EQ(SubRowReference(bytes).rowBuf(), bytes);

  EXPECT_TRUE(named<len_t (BaseRow::*)() const>(&BaseRow::rowLength));
  EXPECT_TRUE(named<std::uint16_t (BaseRow::*)() const>(&BaseRow::rowType));
  EXPECT_TRUE(named<oid_t (BaseRow::*)() const>(&BaseRow::rowOid));
  EXPECT_TRUE(named<void (BaseRow::*)(std::uint16_t)>(&BaseRow::rowTypeIs));
  EXPECT_TRUE(named<void (BaseRow::*)(oid_t)>(&BaseRow::rowOidIs));

  using CopyVarColumn = void (BaseRow::*)(len_t, const BaseRow&, len_t, len_t);
  EXPECT_TRUE(named<CopyVarColumn>(&BaseRow::copyVarColumn));
  EXPECT_TRUE((named<len_t (BaseRow::*)(len_t, len_t, len_t)>(&BaseRow::makeFreeSpace)));
  EXPECT_TRUE(named<len_t (BaseRow::*)(len_t)>(&BaseRow::compactVariableData));
  EXPECT_TRUE((named<len_t (BaseRow::*)(VColType*, len_t, len_t)>(&BaseRow::moveVariableColumn)));
}

TEST(PublicApiTest, Columns) {
  expectFixedColumn<std::uint8_t>();
  expectFixedColumn<std::uint16_t>();
  expectFixedColumn<std::uint32_t>();
  expectFixedColumn<std::uint64_t>();
  expectFixedColumn<std::int8_t>();
  expectFixedColumn<std::int16_t>();
  expectFixedColumn<std::int32_t>();
  expectFixedColumn<std::int64_t>();
  expectFixedColumn<float>();
  expectFixedColumn<double>();
  expectFixedColumn<bool>();
  expectFixedColumn<IpAddr>();
  expectFixedColumn<Ip6Addr>();

  expectVariableColumn<std::string>();
  expectVariableColumn<IpGenAddr>();
  expectVariableColumn<IpGenPrefix>();
  expectVariableColumn<StringValueReference>();
  expectVariableColumn<IpGenAddrReference>();
  expectVariableColumn<IpGenPrefixReference>();
  expectVariableColumn<SubRowReference>();
  EXPECT_TRUE(named<void (*)(IpAddr&)>(&BaseRow::setToNull<IpAddr>));
  EXPECT_TRUE(named<void (*)(Ip6Addr&)>(&BaseRow::setToNull<Ip6Addr>));

  expectArrayColumn<std::string>();
  expectArrayColumn<IpGenAddr>();
  expectArrayColumn<IpGenPrefix>();
  using Bools = std::vector<bool>;
  EXPECT_TRUE(
      (named<void (BaseRow::*)(len_t, len_t, const Bools&)>(&BaseRow::updateFixElemArray<bool>)));

  expectComparedColumn<StringValueReference>();
  expectComparedColumn<IpGenAddrReference>();
  expectComparedColumn<IpGenPrefixReference>();
}

using Inner = RowLayout<2, Column<"number", std::uint32_t>>;
using Outer = RowLayout<1, Column<"number", std::uint32_t>, Column<"text", std::string>,
                        Column<"flags", std::vector<bool>>, Column<"nested", Nested<Inner>>>;

TEST(PublicApiTest, RowWriters) {
  EXPECT_TRUE((std::is_constructible_v<RowWriter, BaseRow&, len_t>));
  EXPECT_TRUE((named<void (RowWriter::*)(len_t, const bool&)>(&RowWriter::setFixedColumn<bool>)));
  EXPECT_TRUE((named<void (RowWriter::*)(len_t, const Text&)>(&RowWriter::setColumn<Text>)));
  EXPECT_TRUE(
      (named<void (RowWriter::*)(len_t, const std::vector<Text>&)>(&RowWriter::setColumn<Text>)));
  EXPECT_TRUE((named<void (RowWriter::*)(len_t, const std::vector<bool>&)>(
      &RowWriter::updateFixElemArray<bool>)));
  TableRow<Outer> row;
  row.create();
  RowWriter(row, Outer::baseLength).setColumn(Outer::offset<"text">, Text("by offset"));
  row.writer().set<"text">("by name");
  EXPECT_EQ(row.get<"text">(), "by name");
}

TEST(PublicApiTest, TableRows) {
  using Row = TableRow<Outer>;
  EXPECT_TRUE(named<void (Row::*)(oid_t)>(&Row::create));
  EXPECT_TRUE((named<void (Row::*)(const void*, std::size_t)>(&Row::adopt)));
  Row row;
  row.create();
  row.set<"number">(7);
  row.set<"text">("text");
  row.set<"flags">({true});
  TableRow<Inner> inner;
  inner.create();
  row.set<"nested">(inner);
  EXPECT_EQ(row.get<"number">(), 7U);
  EXPECT_EQ(row.view<"nested">().view<"number">(), 0U);
  EXPECT_TRUE(row.equal<"text">(row) && !row.less<"text">(row) && row.hash<"text">() != 0);
  EXPECT_EQ(row.vcd().size(), 3U);
  EXPECT_EQ(row.columnOffset("number"), 8);
  EXPECT_EQ(row.view<"nested">().toJson(), inner.toJson());
  EXPECT_TRUE(
      (named<RowFault (*)(const void*, std::size_t, const LayoutInfo&, PrefixRule) noexcept>(
          &checkRow)));
  EXPECT_TRUE(
      (named<RowFault (*)(const void*, std::size_t, PrefixRule) noexcept>(&checkRow<Outer>)));
  EXPECT_TRUE(named<Text (RowFault::*)() const>(&RowFault::text));
  EXPECT_FALSE(checkRow(row.rowBuf(), row.rowLength(), Outer::info));
  EXPECT_FALSE(checkRow<Outer>(row.rowBuf(), row.rowLength()));
}

TEST(PublicApiTest, Layouts) {
  static_assert(std::is_base_of_v<KoInvalidArgument, KoTextError>);
  const KoTextError error("text", 2, 3);
  EXPECT_STREQ(error.what(), "line 2, column 3: text");
  EXPECT_EQ(error.line() + error.column(), 5U);
  EXPECT_TRUE(named<Text (*)(const LayoutInfo&)>(&layoutText));
  EXPECT_TRUE(named<Text (*)(const ColumnInfo&)>(&columnTypeText));
  EXPECT_TRUE(named<LayoutFingerprint (*)(const LayoutInfo&)>(&fingerprint));
  EXPECT_TRUE(named<LayoutFingerprint (*)()>(&fingerprint<Outer>));
  EXPECT_TRUE(named<Text (LayoutFingerprint::*)() const>(&LayoutFingerprint::text));
  EXPECT_TRUE(named<Text (LayoutFingerprint::*)() const>(&LayoutFingerprint::digest));
  static_assert(fingerprint<Outer>() > LayoutFingerprint() && fingerprint<Outer>().leading() != 0);
  const DynamicLayout layout(layoutText(Outer::info));
  const DynamicLayout copy(Outer::info);
  EXPECT_TRUE(named<const LayoutInfo& (DynamicLayout::*)() const noexcept>(&DynamicLayout::info));
  EXPECT_TRUE(named<Text (DynamicLayout::*)() const>(&DynamicLayout::text));
  EXPECT_TRUE(named<LayoutFingerprint (DynamicLayout::*)() const>(&DynamicLayout::fingerprint));
  EXPECT_TRUE(named<BaseRow::vcdType& (DynamicLayout::*)() const noexcept>(&DynamicLayout::slots));
  EXPECT_TRUE(named<const ColumnInfo* (DynamicLayout::*)(std::string_view) const noexcept>(
      &DynamicLayout::find));
  EXPECT_EQ(layout.fingerprint(), copy.fingerprint());
}

TEST(PublicApiTest, AnyRows) {
  AnyRow row{DynamicLayout(Outer::info)};
  EXPECT_TRUE(named<const DynamicLayout& (AnyRow::*)() const noexcept>(&AnyRow::layout));
  EXPECT_TRUE(named<void (AnyRow::*)(oid_t)>(&AnyRow::create));
  EXPECT_TRUE((named<void (AnyRow::*)(oid_t, std::size_t)>(&AnyRow::create)));
  EXPECT_TRUE((named<void (AnyRow::*)(const void*, std::size_t)>(&AnyRow::adopt)));
  EXPECT_TRUE(named<Text (AnyRow::*)(std::string_view) const>(&AnyRow::json));
  EXPECT_TRUE(named<Text (AnyRow::*)(std::string_view) const>(&AnyRow::text));
  EXPECT_TRUE((named<void (AnyRow::*)(std::string_view, std::string_view)>(&AnyRow::jsonIs)));
  EXPECT_TRUE((named<void (AnyRow::*)(std::string_view, std::string_view)>(&AnyRow::textIs)));
  EXPECT_TRUE(named<void (AnyRow::*)(std::string_view)>(&AnyRow::fromJson));
  EXPECT_EQ(row.AnyRow::toJson(), "null");
  EXPECT_EQ(row.AnyRow::vcd().size(), 3U);
  EXPECT_EQ(row.AnyRow::columnOffset("number"), 8);
  EXPECT_EQ(row.AnyRow::baseRowLength(), Outer::baseLength);
  EXPECT_TRUE(row.AnyRow::isFullyDefined());
}

TEST(PublicApiTest, Conversion) {
  EXPECT_TRUE(named<std::string_view (*)(ColumnChange)>(&columnChangeText));
  const ConversionRules rules = {{{"text", "former"}}, {"number"}};
  const LayoutComparison comparison(Outer::info, Outer::info, rules);
  EXPECT_EQ(comparison.conversion(), Conversion::same);
  EXPECT_EQ(comparison.columns().front().name(), "number");
  EXPECT_TRUE(named<Text (LayoutComparison::*)() const>(&LayoutComparison::refusal));
  EXPECT_TRUE(named<Text (LayoutComparison::*)() const>(&LayoutComparison::text));
  EXPECT_EQ(comparison.sender().fingerprint(), comparison.ours().fingerprint());
  EXPECT_TRUE((named<std::size_t (ConversionPlan::*)(const void*, std::size_t) const>(
      &ConversionPlan::convertedLength)));
  EXPECT_TRUE((named<void (ConversionPlan::*)(const void*, byte_t*) const noexcept>(
      &ConversionPlan::write)));
  using Row = TableRow<Outer>;
  const RowConverter<Row> converter(Outer::info);
  EXPECT_EQ(converter.comparison().refusal(), "");
  EXPECT_TRUE((named<void (RowConverter<Row>::*)(const void*, std::size_t, Row&) const>(
      &RowConverter<Row>::convert)));
  const RowConverter<AnyRow> any(Outer::info, DynamicLayout(Outer::info));
  EXPECT_TRUE((named<void (RowConverter<AnyRow>::*)(const void*, std::size_t, AnyRow&) const>(
      &RowConverter<AnyRow>::convert)));
}

TEST(PublicApiTest, Registry) {
  EXPECT_TRUE(named<Text (*)()>(&sysname));
  EXPECT_TRUE(named<void (*)(const Text&)>(&sysnameIs));
  using Callback = std::function<void(const Text&, const Text&)>;
  EXPECT_TRUE((named<int (*)(const Text&, Callback)>(&registerSysnameCallback)));
  EXPECT_TRUE(named<void (*)()>(&runMeInIsolatedDatabase));
  EXPECT_TRUE(named<bool (*)()>(&requireSysnameChangeNotifications));
  static_assert(std::is_same_v<RowOps_p_t, KoPtr<RowOpsBase>>);
  EXPECT_TRUE((named<RowOps_p_t (*)(const Text&, std::uint8_t)>(&getRowOps)));
  using Factory = std::function<RowOps_p_t(const Text&, unsigned char)>;
  EXPECT_TRUE(named<void (*)(Factory)>(&rowOpsFactoryIs));
  EXPECT_TRUE(named<bool (*)(const Text&)>(&isInfrastructureTable));
  EXPECT_TRUE(named<void (*)()>(&initializeInfrastructurePrefixes));
}

struct Unit : Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override {}
};

TEST(PublicApiTest, Units) {
  EXPECT_TRUE(called<Unit>({[](Unit& unit) { unit.Schedulable::cleanup(); },
                            [](Unit& unit) { unit.Schedulable::clearScheduler(); },
                            [](Unit& unit) { unit.Schedulable::clientReadyIs(true); },
                            [](Unit& unit) { unit.Schedulable::onClientReady(); },
                            [](Unit& unit) { unit.Schedulable::operator=(Unit("other")); }}));
  EXPECT_TRUE(named<void (Schedulable::*)(bool)>(&Schedulable::invoke));
  EXPECT_TRUE(named<void (Schedulable::*)(bool)>(&Schedulable::runnableIs));
  EXPECT_TRUE(named<void (Schedulable::*)()>(&Schedulable::_considerRunnability));
  EXPECT_TRUE(named<bool (Schedulable::*)() const>(&Schedulable::shouldYield));
  EXPECT_TRUE(named<void (Schedulable::*)(const std::timespec&)>(&Schedulable::timeSliceIs));
  EXPECT_TRUE(named<void (Schedulable::*)(bool)>(&Schedulable::schedulingEnabledIs));
  EXPECT_TRUE(named<void (Schedulable::*)(bool)>(&Schedulable::disabledIs));
  EXPECT_TRUE(
      (named<void (Schedulable::*)(Velto::DebugChannel*, bool)>(&Schedulable::debugChannelIs)));

  const KoPtr<Scheduler> scheduler(new Scheduler("scheduler"));
  const Unit unit("unit", scheduler);
  EXPECT_EQ(unit.name(), "unit");
  EXPECT_EQ(unit.scheduler(), scheduler);
  EXPECT_EQ(unit.timeSlice().tv_nsec, Schedulable::defaultTimeSlice.tv_nsec);
  EXPECT_TRUE(unit.schedulingEnabled());
  EXPECT_FALSE(unit.runnable() || unit.clientReady() || unit.running() || unit.disabled());
  EXPECT_TRUE(unit.invocations() == 0 && unit.totalRunTime() == 0.0 && unit.entry() == nullptr);
  EXPECT_TRUE(unit.startTime().tv_sec == 0 && unit.deadline().tv_sec == 0);
}

/// What a scheduler on an event loop derives from.
struct LoopedScheduler : Scheduler {
  using Scheduler::runLoop;
  using Scheduler::Scheduler;
};

TEST(PublicApiTest, Schedulers) {
  EXPECT_TRUE(called<Scheduler>(
      {[](Scheduler& scheduler) { scheduler.Scheduler::pauseTime(); },
       [](Scheduler& scheduler) { scheduler.Scheduler::pauseScheduler(nullptr); },
       [](Scheduler& scheduler) { scheduler.Scheduler::triggerScheduler(); },
       [](Scheduler& scheduler) { scheduler.Scheduler::runnableIs(nullptr, true); },
       [](Scheduler& scheduler) { scheduler.Scheduler::unschedule(nullptr); },
       [](Scheduler& scheduler) { scheduler.Scheduler::run(); },
       [](Scheduler& scheduler) { scheduler.Scheduler::run(1, 0.0, true); },
       [](Scheduler& scheduler) { scheduler.Scheduler::getTimerControl(nullptr); },
       [](Scheduler& scheduler) { scheduler.Scheduler::getFdControl(nullptr); }}));
  EXPECT_TRUE(called<LoopedScheduler>(
      {[](LoopedScheduler& scheduler) { scheduler.runLoop(1, 0.0, true, nullptr); }}));
  Scheduler scheduler("scheduler");
  scheduler.activeIs(true);
  scheduler.triggerSuppressedIs(false);
  scheduler.debugChannelIs(nullptr, false);
  EXPECT_TRUE(scheduler.name() == "scheduler" && scheduler.active() &&
              !scheduler.triggerSuppressed());
  const RunnableEntry entry;
  EXPECT_TRUE(!entry.valid && entry.unit == nullptr);
}

TEST(PublicApiTest, TextAndFiles) {
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::canonicalize));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::extractQueryName));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::extractOutputType));
  EXPECT_TRUE((named<unsigned int (*)(Texts&, const Text&, unsigned int)>(
      &KoStrUtils::extractEnquotedString)));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::replaceMultiBlanks));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::trim));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::escapeString));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::replaceCtrl));
  EXPECT_TRUE((named<Texts& (*)(const Text&, char, Texts&)>(&KoStrUtils::split)));
  EXPECT_TRUE(named<Text (*)(Text&)>(&KoStrUtils::baseName));
  EXPECT_TRUE(named<void (*)(Text&)>(&KoStrUtils::addTrailingSlash));
  EXPECT_TRUE((named<Text (*)(const Text&, const Text&)>(&KoStrUtils::dropTail)));
  EXPECT_TRUE((named<Text (*)(const Text&, const Text&)>(&KoStrUtils::keepTail)));
  EXPECT_TRUE(named<std::uint64_t (*)(const Text&)>(&KoStrUtils::stoUint64_t));
  EXPECT_TRUE(named<double (*)(const Text&)>(&KoStrUtils::stoDouble));
  EXPECT_TRUE((named<bool (*)(const Text&, const Text&)>(&KoStrUtils::iequals)));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&KoStrUtils::sha1));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&Korvo::escapeString));
  EXPECT_TRUE(named<Text (*)(const Text&)>(&deescapeString));
  EXPECT_TRUE((named<int (*)(const Text&, char, Texts&)>(&splitString)));
  EXPECT_TRUE(named<Texts (*)(const Text&)>(&processArrayString));
  EXPECT_TRUE(named<int (*)(Text)>(&removeTree));
  EXPECT_TRUE((named<int (*)(const Text&, const Text&)>(&copyFile)));
}

struct Channel : Velto::DebugChannel {
  void trace(std::ostringstream&, unsigned int, const char*, unsigned int, const char*) override {}
};

TEST(PublicApiTest, HostFramework) {
  Channel channel;
  channel.levelMaskIs(4);
  EXPECT_EQ(channel.levelMask(), 4U);
  Velto::DebugSupport support;
  support.channelIs(&channel, false);
  EXPECT_TRUE(support.channel() == &channel && !support.owned());
  static_assert(std::is_abstract_v<Velto::Platform::TimeoutHandler>);
  static_assert(std::is_abstract_v<Velto::Platform::TimerControl>);
  static_assert(std::is_abstract_v<Velto::Platform::FdEventHandler>);
  static_assert(std::is_abstract_v<Velto::Platform::FdControl>);
}

TEST(PublicApiTest, TwoSourcesAgree) {
  EXPECT_EQ(secondSource::maskTable(), &byteMaskTbl[0]);
  EXPECT_EQ(secondSource::lengthOf(Outer::info), Outer::baseLength);
  EXPECT_TRUE(secondSource::throwsOutOfRange());
}

}  // namespace
