// The bytes of each variable-length value, the null values, and decoding of lengths that no encoder
// makes.

#include "row_test_support.h"

#include <initializer_list>
#include <numeric>

namespace rowtest {
namespace {

const byte_t kV4Bytes[] = {10, 1, 2, 3};
const byte_t kV6Bytes[] = {0x20, 0x01, 0x0D, 0xB8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0xA, 0xB, 0xC};
constexpr std::string_view kV6Hex = "20 01 0D B8 01 02 03 04 05 06 07 08 09 0A 0B 0C";

const auto kNoFamily = static_cast<AddressFamily>(3);

template <typename T>
std::string encoded(const T& value) {
  // Two guard bytes behind the encoding must stay.
  const len_t length = BaseRow::encodeLength<T>(value);
  Bytes dst(length + 2u, 0xEE);
  EXPECT_EQ(BaseRow::encode<T>(dst.data(), value), length);
  EXPECT_EQ(dst[length], 0xEE);
  EXPECT_EQ(dst[length + 1u], 0xEE);
  return hex(dst.data(), length);
}

template <typename T>
void decodeInto(const Bytes& bytes, T& out) {
  const ExactBlock block(bytes);
  BaseRow::decode<T>(block.data(), static_cast<len_t>(bytes.size()), out);
}

// ---------------------------------------------------------------------------------------------
// Encoding

TEST(RowEncoding, Strings) {
  EXPECT_EQ(encoded<std::string>("abc"), "61 62 63");
  EXPECT_EQ(encoded<std::string>(std::string("\0\xFF\n", 3)), "00 FF 0A");
  EXPECT_EQ(encoded<std::string>(""), "");
  EXPECT_EQ(encoded<StringValueReference>(stringRef("abc")), "61 62 63");
  EXPECT_EQ(encoded<StringValueReference>(StringValueReference()), "");
  EXPECT_EQ(encoded<StringValueReference>(StringValueReference("abc", 0)), "");
  const std::string longest(kMaxValueLen, 'x');
  EXPECT_EQ(BaseRow::encodeLength<std::string>(longest), kMaxValueLen);
}

TEST(RowEncoding, AddressesInNetworkOrderWithoutAFamilyByte) {
  EXPECT_EQ(encoded(IpGenAddr("10.1.2.3")), "0A 01 02 03");
  EXPECT_EQ(encoded(IpGenAddr("0.0.0.0")), "00 00 00 00");
  EXPECT_EQ(encoded(IpGenAddr("2001:db8:102:304:506:708:90a:b0c")), kV6Hex);
  EXPECT_EQ(encoded(IpGenAddr()), "");
  EXPECT_EQ(encoded(IpGenAddr(Korvo::unknown_, kV4Bytes)), "");
  EXPECT_EQ(encoded(IpGenAddrReference(kV4Bytes, Korvo::ipv4_)), "0A 01 02 03");
  EXPECT_EQ(encoded(IpGenAddrReference(kV6Bytes, Korvo::ipv6_)), kV6Hex);
  EXPECT_EQ(encoded(IpGenAddrReference(kV4Bytes, Korvo::unknown_)), "");
  EXPECT_EQ(encoded(IpGenAddrReference(kV4Bytes, kNoFamily)), "");
  EXPECT_EQ(encoded(IpGenAddrReference()), "");
}

TEST(RowEncoding, PrefixesLengthFirst) {
  EXPECT_EQ(encoded(IpGenPrefix("10.1.0.0/16")), "10 0A 01 00 00");
  EXPECT_EQ(encoded(IpGenPrefix("0.0.0.0/0")), "00 00 00 00 00");
  EXPECT_EQ(encoded(IpGenPrefix("::/0")), "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_EQ(encoded(IpGenPrefix("2001:db8:102:304:506:708:90a:b0c/128")),
            "80 " + std::string(kV6Hex));
  // Host bits are encoded as they are held.
  EXPECT_EQ(encoded(IpGenPrefix(IpGenAddr("10.1.2.3"), 8)), "08 0A 01 02 03");
  EXPECT_EQ(encoded(IpGenPrefix()), "");
  EXPECT_EQ(encoded(IpGenPrefix(IpGenAddr(), 300)), "") << "no family, no bytes";
  EXPECT_EQ(encoded(IpGenPrefixReference(kV4Bytes, Korvo::ipv4_, 24)), "18 0A 01 02 03");
  EXPECT_EQ(encoded(IpGenPrefixReference(kV4Bytes, Korvo::ipv4_, 255)), "FF 0A 01 02 03");
  EXPECT_EQ(encoded(IpGenPrefixReference(kV6Bytes, Korvo::ipv6_, 0)), "00 " + std::string(kV6Hex));
  EXPECT_EQ(encoded(IpGenPrefixReference(kV4Bytes, Korvo::unknown_, 8)), "");
  EXPECT_EQ(encoded(IpGenPrefixReference(kV4Bytes, kNoFamily, 8)), "");
  EXPECT_EQ(encoded(IpGenPrefixReference()), "");
}

TEST(RowEncoding, ArrayLengths) {
  // 2 for the count, 4 per slot, then the elements.
  const std::vector<IpGenAddr> three(3, IpGenAddr("10.1.2.3"));
  EXPECT_EQ(BaseRow::encodeLength<std::vector<IpGenAddr>>(three), 26);
  EXPECT_EQ(BaseRow::encodeLength(three), 26);
  const std::vector<std::string> strings{"a", "", "xyz"};
  EXPECT_EQ(BaseRow::encodeLength<std::vector<std::string>>(strings), 18);
  const std::vector<IpGenPrefix> prefixes{IpGenPrefix("::/0"), IpGenPrefix("0.0.0.0/0"),
                                          IpGenPrefix()};
  EXPECT_EQ(BaseRow::encodeLength<std::vector<IpGenPrefix>>(prefixes), 2 + 12 + 17 + 5);
  EXPECT_EQ(BaseRow::encodeLength<std::vector<std::string>>(std::vector<std::string>()), 2);
  const std::vector<IpGenAddr> mixed{IpGenAddr("::1"), IpGenAddr(), IpGenAddr("1.2.3.4")};
  EXPECT_EQ(BaseRow::encodeLength<std::vector<IpGenAddr>>(mixed), 2 + 12 + 16 + 4);
}

TEST(RowEncoding, DestinationMayStandAtAnyAddress) {
  for (unsigned shift = 0; shift < 16; ++shift) {
    Bytes dst(64);
    BaseRow::encode<IpGenPrefix>(dst.data() + shift,
                                 IpGenPrefix("2001:db8:102:304:506:708:90a:b0c/128"));
    EXPECT_EQ(hex(dst.data() + shift, 17), "80 " + std::string(kV6Hex));
    IpGenPrefix back;
    BaseRow::decode<IpGenPrefix>(dst.data() + shift, 17, back);
    EXPECT_EQ(back, IpGenPrefix("2001:db8:102:304:506:708:90a:b0c/128"));
  }
}

// ---------------------------------------------------------------------------------------------
// Decoding

TEST(RowDecoding, Strings) {
  std::string text = "before";
  decodeInto<std::string>(bytesOf("61 00 62"), text);
  EXPECT_EQ(text, std::string("a\0b", 3));
  decodeInto<std::string>({}, text);
  EXPECT_EQ(text, "");

  const char bytes[] = "abc";
  StringValueReference ref;
  BaseRow::decode<StringValueReference>(bytes, 3, ref);
  EXPECT_EQ(ref.data(), bytes) << "no copy";
  EXPECT_EQ(ref.length(), 3);
  BaseRow::decode<StringValueReference>(bytes, 0, ref);
  EXPECT_EQ(ref.data(), bytes);
  EXPECT_EQ(ref.length(), 0);
}

TEST(RowDecoding, Addresses) {
  IpGenAddr addr;
  decodeInto<IpGenAddr>(bytesOf(kV6Hex), addr);
  EXPECT_EQ(addr.af(), Korvo::ipv6_);
  EXPECT_EQ(hex(addr.bytes(), 16), kV6Hex);
  decodeInto<IpGenAddr>(bytesOf("0A 01 02 03"), addr);
  EXPECT_EQ(addr.af(), Korvo::ipv4_);
  EXPECT_EQ(hex(addr.bytes(), 16), "0A 01 02 03 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(RowDecoding, AddressOfLengthZeroTakesFourBytesAllTheSame) {
  const ExactBlock four(bytesOf("0A 01 02 03"));
  IpGenAddr addr("::1");
  BaseRow::decode<IpGenAddr>(four.data(), 0, addr);
  EXPECT_EQ(addr.af(), Korvo::unknown_);
  EXPECT_EQ(hex(addr.bytes(), 16), "0A 01 02 03 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(RowDecoding, Prefixes) {
  IpGenPrefix prefix("2001:db8::/32");
  decodeInto<IpGenPrefix>(bytesOf("10 0A 01 00 00"), prefix);
  EXPECT_EQ(prefix, IpGenPrefix("10.1.0.0/16")) << "reset first: the family may change";
  decodeInto<IpGenPrefix>(bytesOf("80") + bytesOf(kV6Hex), prefix);
  EXPECT_EQ(prefix, IpGenPrefix("2001:db8:102:304:506:708:90a:b0c/128"));
  decodeInto<IpGenPrefix>(Bytes(17), prefix);
  EXPECT_EQ(prefix, IpGenPrefix("::/0"));
  decodeInto<IpGenPrefix>(Bytes(5), prefix);
  EXPECT_EQ(prefix, IpGenPrefix("0.0.0.0/0"));
}

TEST(RowDecoding, PrefixOfLengthZeroTakesFiveBytesAllTheSame) {
  const ExactBlock five(bytesOf("FF 0A 01 02 03"));
  IpGenPrefix prefix("10.0.0.0/8");
  BaseRow::decode<IpGenPrefix>(five.data(), 0, prefix);
  EXPECT_EQ(prefix.addr().af(), Korvo::unknown_);
  EXPECT_EQ(prefix.mask(), 255u);
  EXPECT_EQ(hex(prefix.addr().bytes(), 16), "0A 01 02 03 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(RowDecoding, PrefixThatItsSettersRefuseThrows) {
  const std::string kMessage = "Invalid Prefix - non-zero after prefixlen";
  const struct {
    Bytes bytes;
    const char* reason;
  } cases[] = {
      {bytesOf("08 0A 01 00 00"), "10.1.0.0/8 has host bits"},
      {bytesOf("21 0A 01 00 00"), "length 33 of an IPv4 address"},
      {bytesOf("FF 00 00 00 00"), "length 255 of an IPv4 address"},
      {bytesOf("81") + bytesOf(kV6Hex), "length 129 of an IPv6 address"},
      {bytesOf("7F") + Bytes(15) + bytesOf("01"), "host bit in the last byte"},
  };
  for (const auto& c : cases) {
    IpGenPrefix prefix;
    EXPECT_EQ(thrownMessage<KoOutOfRange>([&] { decodeInto<IpGenPrefix>(c.bytes, prefix); }),
              kMessage)
        << c.reason;
  }
}

TEST(RowDecoding, PrefixWhoseLengthEndsInAWordThatIsNotExamined) {
  // The word in which the host part begins is not looked at for a length of 0.
  IpGenPrefix prefix;
  decodeInto<IpGenPrefix>(bytesOf("00 0A 01 02 03"), prefix);
  EXPECT_EQ(prefix.mask(), 0u);
  EXPECT_EQ(hex(prefix.addr().bytes(), 4), "0A 01 02 03");
}

TEST(RowDecoding, AddressReferencesTakeAnyLength) {
  Bytes bytes(20);
  for (len_t length = 0; length <= 20; ++length) {
    IpGenAddrReference ref(kV4Bytes, Korvo::ipv4_);
    BaseRow::decode<IpGenAddrReference>(bytes.data(), length, ref);
    const AddressFamily family = length == 4    ? Korvo::ipv4_
                                 : length == 16 ? Korvo::ipv6_
                                                : Korvo::unknown_;
    EXPECT_EQ(ref.af(), family) << length;
    EXPECT_EQ(ref.addr(), bytes.data()) << length;
  }
}

TEST(RowDecoding, PrefixReferencesTakeAnyLength) {
  Bytes bytes(20);
  std::iota(bytes.begin(), bytes.end(), byte_t{0x60});
  for (len_t length = 1; length <= 20; ++length) {
    const ExactBlock block(Bytes(bytes.begin(), bytes.begin() + length));
    IpGenPrefixReference ref;
    BaseRow::decode<IpGenPrefixReference>(block.data(), length, ref);
    const AddressFamily family = length == 5    ? Korvo::ipv4_
                                 : length == 17 ? Korvo::ipv6_
                                                : Korvo::unknown_;
    EXPECT_EQ(ref.af(), family) << length;
    EXPECT_EQ(ref.addr(), block.data() + 1) << length;
    EXPECT_EQ(ref.mask(), 0x60) << length;
  }
  const struct {
    const byte_t* src;
    len_t length;
  } nulls[] = {{bytes.data(), 0}, {nullptr, 5}, {nullptr, 0}};
  for (const auto& c : nulls) {
    IpGenPrefixReference ref(kV4Bytes, Korvo::ipv4_, 8);
    BaseRow::decode<IpGenPrefixReference>(c.src, c.length, ref);
    EXPECT_EQ(ref.addr(), nullptr);
    EXPECT_EQ(ref.af(), Korvo::unknown_);
    EXPECT_EQ(ref.mask(), 0);
  }
}

TEST(RowDecoding, EveryEncodingComesBack) {
  for (const std::string text : {"0.0.0.0", "255.255.255.255", "10.1.2.3", "::", "::1", "ffff::"}) {
    const IpGenAddr addr(text);
    Bytes dst(BaseRow::encodeLength(addr));
    BaseRow::encode(dst.data(), addr);
    IpGenAddr back;
    decodeInto<IpGenAddr>(dst, back);
    EXPECT_EQ(back, addr) << text;
  }
  for (unsigned length = 0; length <= 128; ++length) {
    IpGenPrefix prefix(IpGenAddr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"), length);
    prefix.clearLowerAddrBits();
    Bytes dst(BaseRow::encodeLength(prefix));
    BaseRow::encode(dst.data(), prefix);
    IpGenPrefix back;
    decodeInto<IpGenPrefix>(dst, back);
    EXPECT_EQ(back, prefix) << length;
  }
}

// ---------------------------------------------------------------------------------------------
// Null values

TEST(RowNullValues, OfEveryType) {
  std::string text = "before";
  BaseRow::setToNull<std::string>(text);
  EXPECT_EQ(text, "");

  IpAddr v4("10.1.2.3");
  BaseRow::setToNull<IpAddr>(v4);
  EXPECT_EQ(v4.addr(), 0u);

  Ip6Addr v6("2001:db8::1");
  BaseRow::setToNull<Ip6Addr>(v6);
  EXPECT_EQ(hex(v6.bytes(), 16), hex(Bytes(16)));

  IpGenAddr addr("10.1.2.3");
  BaseRow::setToNull<IpGenAddr>(addr);
  EXPECT_EQ(addr.af(), Korvo::unknown_);
  EXPECT_EQ(hex(addr.bytes(), 16), hex(Bytes(16)));

  IpGenPrefix prefix("10.0.0.0/8");
  BaseRow::setToNull<IpGenPrefix>(prefix);
  EXPECT_EQ(prefix.addr().af(), Korvo::unknown_);
  EXPECT_EQ(hex(prefix.addr().bytes(), 16), hex(Bytes(16)));
  EXPECT_EQ(prefix.mask(), 0u);

  StringValueReference stringReference = stringRef("abc");
  BaseRow::setToNull<StringValueReference>(stringReference);
  EXPECT_EQ(stringReference.data(), nullptr);
  EXPECT_EQ(stringReference.length(), 0);

  IpGenAddrReference addrReference(kV4Bytes, Korvo::ipv4_);
  BaseRow::setToNull<IpGenAddrReference>(addrReference);
  EXPECT_EQ(addrReference.addr(), nullptr);
  EXPECT_EQ(addrReference.af(), Korvo::unknown_);

  IpGenPrefixReference prefixReference(kV4Bytes, Korvo::ipv4_, 8);
  BaseRow::setToNull<IpGenPrefixReference>(prefixReference);
  EXPECT_EQ(prefixReference.addr(), nullptr);
  EXPECT_EQ(prefixReference.af(), Korvo::unknown_);
  EXPECT_EQ(prefixReference.mask(), 0);

  SubRowReference subRow(nestedImage().data());
  BaseRow::setToNull<SubRowReference>(subRow);
  EXPECT_TRUE(subRow.isNull());
}

// ---------------------------------------------------------------------------------------------

std::string decodeSignature(const std::string& type) {
  return "static void Korvo::BaseRow::decode(const void*, Korvo::len_t, T&) [with T = " + type +
         "; Korvo::len_t = short unsigned int]";
}

TEST(RowDecodingDeathTest, AddressOfAnyOtherLength) {
  const Bytes bytes(40);
  for (const len_t length : std::initializer_list<len_t>{1, 3, 5, 7, 15, 17, 32}) {
    IpGenAddr addr;
    EXPECT_ASSERTION(BaseRow::decode<IpGenAddr>(bytes.data(), length, addr), kSourceFile,
                     decodeSignature("Korvo::IpGenAddr"), "0");
  }
}

TEST(RowDecodingDeathTest, PrefixOfAnyOtherLength) {
  const Bytes bytes(40);
  for (const len_t length : std::initializer_list<len_t>{1, 4, 6, 16, 18, 32}) {
    IpGenPrefix prefix;
    EXPECT_ASSERTION(BaseRow::decode<IpGenPrefix>(bytes.data(), length, prefix), kSourceFile,
                     decodeSignature("Korvo::IpGenPrefix"), "0");
  }
}

TEST(RowDecodingDeathTest, CorruptColumns) {
  const PlainRow row(imageWith(PlainRow::kAddr, Bytes(7)));
  IpGenAddr addr;
  EXPECT_ASSERTION(row.getColumn<IpGenAddr>(PlainRow::kAddr, addr), kSourceFile,
                   decodeSignature("Korvo::IpGenAddr"), "0");
  IpGenPrefix prefix;
  EXPECT_ASSERTION(row.getColumn<IpGenPrefix>(PlainRow::kAddr, prefix), kSourceFile,
                   decodeSignature("Korvo::IpGenPrefix"), "0");
  // One element of 7 bytes at 6.
  const PlainRow array(imageWith(PlainRow::kList, bytesOf("01 10 06 00 07 00") + Bytes(7), true));
  std::vector<IpGenAddr> addrs;
  EXPECT_ASSERTION(array.getColumn<IpGenAddr>(PlainRow::kList, addrs), kSourceFile,
                   decodeSignature("Korvo::IpGenAddr"), "0");
  std::vector<IpGenPrefix> prefixes;
  EXPECT_ASSERTION(array.getColumn<IpGenPrefix>(PlainRow::kList, prefixes), kSourceFile,
                   decodeSignature("Korvo::IpGenPrefix"), "0");

  // The same bytes can be looked at through a reference.
  IpGenAddrReference ref;
  row.getColumn<IpGenAddrReference>(PlainRow::kAddr, ref);
  EXPECT_EQ(ref.af(), Korvo::unknown_);
  EXPECT_EQ(ref.addr(), row.rowBuf() + PlainRow::kBase);
}

}  // namespace
}  // namespace rowtest
