#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <limits>
#include <locale>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

using namespace Korvo;

KorvoTypes typeOf(std::uint32_t number) {
  return static_cast<KorvoTypes>(number);
}

/// A static object that uses the tables while this file's static objects are built, and again when
/// they are destroyed.
struct EarlyAndLateUser {
  EarlyAndLateUser() : name(getKorvoTypeName(typeOf(15))), type(korvoCppTypeNameToType("len_t")) {}
  ~EarlyAndLateUser() {
    if (getKorvoTypeName(typeOf(15)) != name || korvoCppTypeNameToType("len_t") != type) {
      std::abort();
    }
  }
  std::string name;
  KorvoTypes type;
};
const EarlyAndLateUser earlyAndLateUser;

struct CatalogueRow {
  std::uint32_t number;
  const char* name;
  unsigned short length;
  bool isVariableLength;
};

constexpr CatalogueRow catalogue[] = {
    {0, "uint8_t", 1, false},      //
    {1, "uint16_t", 2, false},     //
    {2, "uint32_t", 4, false},     //
    {3, "uint64_t", 8, false},     //
    {4, "int8_t", 1, false},       //
    {5, "int16_t", 2, false},      //
    {6, "int32_t", 4, false},      //
    {7, "int64_t", 8, false},      //
    {8, "float", 4, false},        //
    {9, "double", 8, false},       //
    {10, "bool", 1, false},        //
    {11, "string_t", 4, true},     //
    {12, "<struct>", 4, true},     //
    {13, "oid_t", 4, false},       //
    {14, "len_t", 2, false},       //
    {15, "IpAddr", 4, false},      //
    {16, "Ip6Addr", 16, false},    //
    {17, "IpGenAddr", 4, true},    //
    {18, "IpGenPrefix", 4, true},  //
};

/// The message of the Exception that the action throws.
template <typename Exception, typename Action>
std::string messageOf(const Action& action) {
  try {
    action();
  } catch (const Exception& thrown) {
    return thrown.what();
  }
  return "(nothing thrown)";
}

// ---------------------------------------------------------------------------------------------
// Catalogue

TEST(TypeCatalogueTest, Shapes) {
  static_assert(sizeof(KorvoTypes) == 4);
  static_assert(std::is_convertible_v<KorvoTypes, unsigned short>, "unscoped");
  static_assert(sizeof(byte_t) == 1 && std::is_unsigned_v<byte_t>);
  static_assert(sizeof(len_t) == 2 && std::is_unsigned_v<len_t>);
  static_assert(sizeof(oid_t) == 4 && std::is_unsigned_v<oid_t>);
  static_assert(std::is_same_v<KoPtr<int>, std::shared_ptr<int>>);
  static_assert(std::is_same_v<decltype(getKorvoTypeLength(0)), unsigned short>);
  static_assert(std::is_same_v<decltype(getKorvoTypeName(typeOf(0))), const std::string&>);
}

TEST(TypeCatalogueTest, Enumerators) {
  const KorvoTypes inOrder[] = {uint8Type_,   uint16Type_,    uint32Type_,     uint64Type_,
                                int8Type_,    int16Type_,     int32Type_,      int64Type_,
                                floatType_,   doubleType_,    boolType_,       stringType_,
                                structType_,  oidType_,       lenType_,        ipAddrType_,
                                ip6AddrType_, ipGenAddrType_, ipGenPrefixType_};
  ASSERT_EQ(std::size(inOrder), std::size(catalogue));
  for (std::uint32_t i = 0; i < std::size(inOrder); ++i) EXPECT_EQ(inOrder[i], i);
}

TEST(TypeCatalogueTest, EveryRow) {
  for (const CatalogueRow& row : catalogue) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(getKorvoTypeLength(static_cast<unsigned short>(row.number)), row.length);
    EXPECT_EQ(korvoTypeIsVariableLength(typeOf(row.number)), row.isVariableLength);
    EXPECT_EQ(getKorvoTypeName(typeOf(row.number)), row.name);
    if (row.number == 12) continue;
    EXPECT_EQ(korvoCppTypeNameToType(row.name), row.number);
  }
}

TEST(TypeCatalogueTest, EveryOtherNumber) {
  for (std::uint32_t number = 19; number <= 65535; ++number) {
    ASSERT_EQ(getKorvoTypeLength(static_cast<unsigned short>(number)), 0) << number;
  }
  std::vector<std::uint32_t> numbers = {65536,      65536 + 11, 1U << 20,  0x7FFFFFFF,
                                        0x80000000, 0x8000000B, 0xFFFFFFFF};
  for (std::uint32_t number = 19; number < 1000; ++number) numbers.push_back(number);
  for (const std::uint32_t number : numbers) {
    ASSERT_FALSE(korvoTypeIsVariableLength(typeOf(number))) << number;
    ASSERT_EQ(messageOf<std::out_of_range>([&] { getKorvoTypeName(typeOf(number)); }),
              "_Map_base::at")
        << number;
  }
}

TEST(TypeCatalogueTest, UnknownNumberIsNoExceptionOfTheLibrary) {
  try {
    getKorvoTypeName(typeOf(19));
    FAIL();
  } catch (const std::exception& thrown) {
    EXPECT_EQ(dynamic_cast<const KoBaseException*>(&thrown), nullptr);
    EXPECT_TRUE(typeid(thrown) == typeid(std::out_of_range));
  }
}

TEST(TypeCatalogueTest, NameIsTheTablesOwn) {
  EXPECT_EQ(&getKorvoTypeName(typeOf(3)), &getKorvoTypeName(typeOf(3)));
}

TEST(TypeCatalogueTest, QualifiedNamesAreRows) {
  for (const char* name :
       {"ns::Row", "::", "a::", "::a", ":::", "uint8_t::", "a b::c", "x::y::z", "<struct>::"}) {
    EXPECT_EQ(korvoCppTypeNameToType(name), 12) << name;
  }
  EXPECT_EQ(korvoCppTypeNameToType(std::string("a\0::b", 5)), 12) << "behind a NUL byte";
}

TEST(TypeCatalogueTest, UnknownNames) {
  const std::string names[] = {
      "<struct>", "String_t", "string_T", "UINT8_T",  "",
      ":",        ": :",      "uint8",    "uint8_t ", " uint8_t",
      "string",   "struct",   "ipaddr",   "IpAddr\n", std::string("len_t\0", 6)};
  for (const std::string& name : names) {
    try {
      korvoCppTypeNameToType(name);
      ADD_FAILURE() << name;
    } catch (const KoInvalidTypeName& thrown) {
      EXPECT_STREQ(thrown.what(), name.c_str());
      EXPECT_STREQ(thrown.name(), "Korvo::InValidTypeName");
    }
  }
}

TEST(TypeCatalogueTest, HashIsTheNumber) {
  for (const std::uint32_t number : {0U, 1U, 18U, 19U, 0xFFFFFFFFU}) {
    EXPECT_EQ(Korvo::hash()(typeOf(number)), number);
  }
  std::unordered_map<KorvoTypes, int, Korvo::hash> map;
  for (std::uint32_t i = 0; i < 19; ++i) map[typeOf(i)] = static_cast<int>(i);
  EXPECT_EQ(map.bucket(typeOf(7)), 7 % map.bucket_count());
  EXPECT_EQ(map.bucket(typeOf(18)), 18 % map.bucket_count());
}

TEST(TypeCatalogueTest, UsedByStaticObjects) {
  EXPECT_EQ(earlyAndLateUser.name, "IpAddr");
  EXPECT_EQ(earlyAndLateUser.type, 14);
}

TEST(TypeCatalogueTest, ByteMasks) {
  static_assert(std::is_same_v<decltype(byteMaskTbl), unsigned char[9]>, "writable");
  const unsigned char expected[9] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(byteMaskTbl[i], expected[i]) << i;
}

// ---------------------------------------------------------------------------------------------
// Printers

template <typename T>
std::string printed(const T& value) {
  std::ostringstream os;
  os << FMT<T>(value);
  return os.str();
}

TEST(FmtTest, EveryByteAsANumber) {
  for (int i = 0; i <= 255; ++i) {
    EXPECT_EQ(printed(static_cast<unsigned char>(i)), std::to_string(i));
  }
  for (int i = -128; i <= 127; ++i) {
    EXPECT_EQ(printed(static_cast<signed char>(i)), std::to_string(i));
  }
}

TEST(FmtTest, BytesFollowTheStream) {
  std::ostringstream os;
  os << std::hex << std::showbase << std::uppercase << std::setfill('*') << std::setw(6)
     << FMT<unsigned char>(171) << '|' << FMT<signed char>(-1) << '|' << std::oct
     << FMT<unsigned char>(8) << std::dec << std::showpos << FMT<signed char>(5)
     << FMT<unsigned char>(5);
  // A negative byte is an int in base 16; an unsigned number never shows a plus sign.
  EXPECT_EQ(os.str(), "**0XAB|0XFFFFFFFF|010+55");
}

TEST(FmtTest, BoolSetsTheFlagForGood) {
  std::ostringstream os;
  EXPECT_EQ(os.flags() & std::ios_base::boolalpha, 0);
  EXPECT_EQ(&(os << FMT<bool>(true)), &os);
  os << false;
  EXPECT_EQ(os.str(), "truefalse");
  EXPECT_NE(os.flags() & std::ios_base::boolalpha, 0);

  std::ostringstream padded;
  padded << std::setfill('.') << std::setw(7) << FMT<bool>(false) << FMT<bool>(true);
  EXPECT_EQ(padded.str(), "..falsetrue");
}

TEST(FmtTest, BoolSetsTheFlagOnABrokenStreamToo) {
  std::ostringstream os;
  os.setstate(std::ios_base::failbit);
  os << FMT<bool>(true);
  EXPECT_EQ(os.str(), "");
  EXPECT_NE(os.flags() & std::ios_base::boolalpha, 0);
}

struct Words : std::numpunct<char> {
  std::string do_truename() const override { return "yes"; }
  std::string do_falsename() const override { return "no"; }
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\1"; }
};

TEST(FmtTest, TheStreamsOwnLocaleCounts) {
  std::ostringstream os;
  os.imbue(std::locale(os.getloc(), new Words));
  os << FMT<bool>(true) << FMT<bool>(false) << FMT<unsigned char>(123) << FMT<signed char>(-123);
  EXPECT_EQ(os.str(), "yesno1,2,3-1,2,3");
}

TEST(FmtTest, Strings) {
  EXPECT_EQ(printed(std::string()), "\"\"");
  EXPECT_EQ(printed(std::string("plain text")), "\"plain text\"");
  EXPECT_EQ(printed(std::string("a\"b\\c\nd\te\rf")), "\"a\\\"b\\\\c\\nd\\te\rf\"");
  EXPECT_EQ(printed(std::string("\x80\xFF\0\x01", 4)), std::string("\"\x80\xFF\0\x01\"", 6));
}

TEST(FmtTest, StringWidthGoesToTheOpeningQuote) {
  std::ostringstream os;
  os << std::setfill('.') << std::setw(5) << FMT<std::string>("ab") << std::setw(3) << 'x';
  EXPECT_EQ(os.str(), "....\"ab\"..x");
  std::ostringstream left;
  left << std::left << std::setfill('.') << std::setw(3) << FMT<std::string>("ab");
  EXPECT_EQ(left.str(), "\"..ab\"");
}

TEST(FmtTest, HoldsItsValue) {
  std::string text = "before";
  const FMT<std::string> fmt(text);
  text = "after";
  EXPECT_EQ(fmt.value(), "before");
  static_assert(!std::is_convertible_v<bool, FMT<bool>>, "built on purpose only");
}

TEST(FmtTest, OtherTypesPrintAsTheyAre) {
  EXPECT_EQ(printed(-5), "-5");
  EXPECT_EQ(printed(1.5), "1.5");
  EXPECT_EQ(printed(IpAddr(std::string("10.1.0.9"))), "10.1.0.9");
}

// ---------------------------------------------------------------------------------------------
// Exceptions

/// Every class as every base, thrown by value.
template <typename Thrown>
void expectThrown(const Thrown& exception, const std::string& name, const std::string& message) {
  static_assert(std::is_base_of_v<KoBaseException, Thrown>);
  static_assert(std::is_base_of_v<Velto::Exception, KoBaseException>);
  static_assert(std::is_base_of_v<std::exception, Velto::Exception>);
  static_assert(std::has_virtual_destructor_v<Velto::Exception>);
  static_assert(sizeof(Thrown) == sizeof(KoBaseException), "no members of its own");
  static_assert(std::is_copy_constructible_v<Thrown> && std::is_copy_assignable_v<Thrown>);

  EXPECT_EQ(name, exception.name());
  EXPECT_EQ(message, exception.what());
  try {
    throw exception;
  } catch (const Thrown& caught) {
    EXPECT_EQ(name, caught.name());
    EXPECT_EQ(message, caught.what());
  }
  try {
    throw exception;
  } catch (const KoBaseException& caught) {
    EXPECT_EQ(name, caught.name());
    EXPECT_EQ(message, caught.what());
    EXPECT_TRUE(typeid(caught) == typeid(Thrown));
  }
  try {
    throw exception;
  } catch (const Velto::Exception& caught) {
    EXPECT_EQ(message, caught.what());
  }
  try {
    throw exception;
  } catch (const std::exception& caught) {
    EXPECT_EQ(message, caught.what());
  }
}

TEST(ExceptionTest, NamesAndMessages) {
  expectThrown(KoInvalidArgument("some text"), "Korvo::KoInvalidArgument", "some text");
  expectThrown(KoInvalidTypeName("foo"), "Korvo::InValidTypeName", "foo");
  expectThrown(KoOutOfRange("Invalid index"), "Korvo::OutOfRange", "Invalid index");
  expectThrown(KoNullRow(), "Korvo::KoNullRow", "null row");
  expectThrown(KoSchedulableDisabled("unit"), "Korvo::KoSchedulableDisabled", "unit");
  expectThrown(KoInvalidArgument(""), "Korvo::KoInvalidArgument", "");
}

TEST(ExceptionTest, BaseTakesMessageAndName) {
  const KoBaseException exception("the message", "the name");
  EXPECT_STREQ(exception.what(), "the message");
  EXPECT_STREQ(exception.name(), "the name");
}

TEST(ExceptionTest, CopiesOwnTheirTexts) {
  const std::string longText(1000, 'x');
  auto* original = new KoInvalidArgument(longText);
  const KoInvalidArgument copy(*original);
  delete original;
  EXPECT_EQ(copy.what(), longText);
  EXPECT_STREQ(copy.name(), "Korvo::KoInvalidArgument");
}

TEST(ExceptionTest, DestroyedThroughTheHostsBase) {
  struct Watched : KoOutOfRange {
    explicit Watched(bool& flag) : KoOutOfRange("message"), isDestroyed(flag) {}
    ~Watched() override { isDestroyed = true; }
    bool& isDestroyed;
  };
  bool isDestroyed = false;
  std::unique_ptr<Velto::Exception> exception = std::make_unique<Watched>(isDestroyed);
  exception.reset();
  EXPECT_TRUE(isDestroyed);
}

/// A stand-in that keeps the flag shows it.
template <typename Exception>
void expectFlag(const Exception& exception) {
  if constexpr (requires { exception.flag(); }) {
    EXPECT_TRUE(exception.flag());
  } else {
    GTEST_SKIP() << "the host's framework does not show its flag";
  }
}

TEST(ExceptionTest, PassesTheFlag) {
  expectFlag(KoNullRow());
}

}  // namespace
