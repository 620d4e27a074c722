// The hash of a string column: the 32-bit MurmurHash2 with seed 0xC70F6907 on every word size.

#include "row_test_support.h"

#include <functional>
#include <random>

namespace rowtest {
namespace {

constexpr std::uint32_t kSeed = 0xC70F6907;
constexpr len_t kName = PlainRow::kName;

/// Straight from the definition: four bytes at a time, the rest, the final mix.
std::uint32_t murmurHash2(const Bytes& bytes) {
  constexpr std::uint32_t m = 0x5BD1E995;
  std::uint32_t h = kSeed ^ static_cast<std::uint32_t>(bytes.size());
  std::size_t i = 0;
  for (; i + 4 <= bytes.size(); i += 4) {
    std::uint32_t k = bytes[i] | static_cast<std::uint32_t>(bytes[i + 1]) << 8 |
                      static_cast<std::uint32_t>(bytes[i + 2]) << 16 |
                      static_cast<std::uint32_t>(bytes[i + 3]) << 24;
    k *= m;
    k ^= k >> 24;
    k *= m;
    h *= m;
    h ^= k;
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 3) h ^= static_cast<std::uint32_t>(bytes[i + 2]) << 16;
  if (rest >= 2) h ^= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
  if (rest >= 1) {
    h ^= bytes[i];
    h *= m;
  }
  h ^= h >> 13;
  h *= m;
  h ^= h >> 15;
  return h;
}

unsigned hashOf(const Bytes& value) {
  return PlainRow(imageWith(kName, value)).columnHash<StringValueReference>(kName);
}

Bytes randomBytes(std::mt19937& random, std::size_t length) {
  Bytes bytes(length);
  for (byte_t& byte : bytes) byte = static_cast<byte_t>(random());
  return bytes;
}

TEST(StringHash, GoldenValues) {
  // What std::hash<std::string> gives in a 32-bit program.
  const struct {
    std::string_view text;
    std::uint32_t hash;
  } cases[] = {
      {"", 0xEDD39288},
      {"a", 0x8129EEEE},
      {"ab", 0xA73301B9},
      {"abc", 0xC7BBDBB5},
      {"abcd", 0x2FF70F61},
      {"abcde", 0x2B851A5E},
      {"hello world", 0xD2DB6039},
      {"The quick brown fox jumps over the lazy dog", 0x98BA0788},
      {"\x80\xFF\xFE", 0x0C9B2903},
      {std::string_view("\0\0", 2), 0x1BF0CC4D},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(hashOf(bytesOfString(c.text)), c.hash) << c.text;
    EXPECT_EQ(murmurHash2(bytesOfString(c.text)), c.hash) << c.text;
  }
  Bytes all(256);
  for (unsigned i = 0; i < 256; ++i) all[i] = static_cast<byte_t>(i);
  EXPECT_EQ(hashOf(all), 0x60ED4289u);
}

TEST(StringHash, EmptyColumnHashesAsAZeroLengthInput) {
  const FullRow row(1, 1);
  EXPECT_EQ(row.columnHash<StringValueReference>(kName), murmurHash2({}));
}

TEST(StringHash, EveryLengthAndEveryByte) {
  std::mt19937 random(20240607);
  for (std::size_t length = 0; length <= 64; ++length) {
    for (int round = 0; round < 20; ++round) {
      const Bytes bytes = randomBytes(random, length);
      ASSERT_EQ(hashOf(bytes), murmurHash2(bytes)) << length << ": " << hex(bytes);
    }
  }
  // High bytes in each place of the rest.
  for (std::size_t length = 1; length <= 7; ++length) {
    const Bytes high(length, 0xFF);
    EXPECT_EQ(hashOf(high), murmurHash2(high)) << length;
  }
  const Bytes longest = randomBytes(random, kMaxValueLen);
  EXPECT_EQ(hashOf(longest), murmurHash2(longest));
}

#if __SIZEOF_SIZE_T__ == 4  // elsewhere the standard library's hash has another width
TEST(StringHash, IsTheStandardLibrarysOn32Bit) {
  std::mt19937 random(19990331);
  for (std::size_t length = 0; length <= 64; ++length) {
    for (int round = 0; round < 20; ++round) {
      const Bytes bytes = randomBytes(random, length);
      const std::string text(bytes.begin(), bytes.end());
      ASSERT_EQ(hashOf(bytes), std::hash<std::string>()(text)) << hex(bytes);
      ASSERT_EQ(hashOf(bytes), std::_Hash_bytes(text.data(), text.size(), kSeed));
    }
  }
}
#endif

TEST(StringHash, DoesNotDependOnTheAlignment) {
  std::mt19937 random(1);
  const Bytes bytes = randomBytes(random, 37);
  for (std::size_t shift = 0; shift < 16; ++shift) {
    Bytes image = imageWith(kName, Bytes(shift) + bytes);
    writeSlot(image.data() + kName,
              {static_cast<unsigned>(PlainRow::kBase + shift), 37, shift % 2 == 0});
    EXPECT_EQ(PlainRow(image).columnHash<StringValueReference>(kName), murmurHash2(bytes));
  }
}

}  // namespace
}  // namespace rowtest
