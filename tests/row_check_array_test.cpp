// Arrays in received rows: an element's length is believed only where it is one that its type has
// and where the element ends inside its array. Reading an element that passed touches no byte
// outside the row.

#include <Korvo/rowCheck.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

namespace Korvo {
/// How a failing test shows a fault.
static void PrintTo(const RowFault& fault, std::ostream* os) {
  *os << fault.text();
}
}  // namespace Korvo

namespace {

using namespace Korvo;

using Bytes = std::vector<byte_t>;

template <typename T>
using LayoutOf = RowLayout<1, Column<"list", std::vector<T>>>;
constexpr len_t base = 12;

/// Memory that ends where a page does: reading one byte more ends the process.
class GuardedBlock {
 public:
  explicit GuardedBlock(const Bytes& bytes) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    length_ = (bytes.size() / page + 2) * page;
    pages_ = mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages_ == MAP_FAILED) throw std::bad_alloc();
    byte_t* const end = static_cast<byte_t*>(pages_) + length_ - page;
    mprotect(end, page, PROT_NONE);
    data_ = end - bytes.size();
    std::copy(bytes.begin(), bytes.end(), data_);
  }
  ~GuardedBlock() { munmap(pages_, length_); }
  GuardedBlock(const GuardedBlock&) = delete;
  GuardedBlock& operator=(const GuardedBlock&) = delete;

  const byte_t* data() const { return data_; }

 private:
  void* pages_;
  std::size_t length_;
  byte_t* data_;
};

/// In both forms.
template <typename T>
RowFault check(const Bytes& bytes) {
  const GuardedBlock block(bytes);
  const RowFault found = checkRow(block.data(), bytes.size(), LayoutOf<T>::info);
  EXPECT_EQ(checkRow<LayoutOf<T>>(block.data(), bytes.size()), found);
  return found;
}

struct Element {
  std::size_t offset;
  std::size_t length;
};

/// A row of one array, which takes `length` bytes; all bytes of its elements are zero.
Bytes rowOf(const std::vector<Element>& elements, std::size_t length) {
  Bytes bytes(base + length);
  storeField<len_t>(bytes.data(), static_cast<len_t>(bytes.size()));
  storeField<std::uint16_t>(bytes.data() + 2, 1);
  VColType::at(bytes.data(), 8).valueIs(base, static_cast<len_t>(length), true);
  storeField<std::uint16_t>(bytes.data() + base,
                            static_cast<std::uint16_t>(0x1000 | elements.size()));
  for (std::size_t i = 0; i < elements.size(); ++i) {
    byte_t* const slot = bytes.data() + base + 2 + 4 * i;
    storeField<len_t>(slot, static_cast<len_t>(elements[i].offset));
    storeField<len_t>(slot + 2, static_cast<len_t>(elements[i].length));
  }
  return bytes;
}

/// Lengths that an element may say it has: about all that a type has, and far too long ones.
std::vector<std::size_t> elementLengths() {
  std::vector<std::size_t> lengths;
  for (std::size_t length = 0; length <= 40; ++length) lengths.push_back(length);
  for (const std::size_t length : {255u, 256u, 4096u, 32766u, 32767u}) lengths.push_back(length);
  return lengths;
}

template <typename T>
struct Kind;
template <>
struct Kind<IpGenAddr> {
  static constexpr RowFaultKind lengthFault = RowFaultKind::addressLength;
  static bool has(std::size_t length) { return length == 0 || length == 4 || length == 16; }
};
template <>
struct Kind<IpGenPrefix> {
  static constexpr RowFaultKind lengthFault = RowFaultKind::prefixLength;
  static bool has(std::size_t length) { return length == 0 || length == 5 || length == 17; }
};
template <>
struct Kind<std::string> {
  static constexpr RowFaultKind lengthFault = RowFaultKind::none;
  static bool has(std::size_t) { return true; }
};

/// What the rules say of an array, element by element.
template <typename T>
RowFault expected(const std::vector<Element>& elements, std::size_t length) {
  std::size_t end = 2 + 4 * elements.size();
  if (end > length) return {RowFaultKind::arrayLength, base};
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const std::size_t elementLength = elements[i].length & 0x7FFF;
    if (elements[i].offset < end || elements[i].offset + elementLength > length) {
      return {RowFaultKind::elementOutside, base + 2 + 4 * i};
    }
    if (!Kind<T>::has(elementLength)) {
      return {Kind<T>::lengthFault, base + elements[i].offset};
    }
    end = elements[i].offset + elementLength;
  }
  return {};
}

template <typename T>
class CheckedArrays : public testing::Test {};
using ElementTypes = testing::Types<std::string, IpGenAddr, IpGenPrefix>;
TYPED_TEST_SUITE(CheckedArrays, ElementTypes, );

TYPED_TEST(CheckedArrays, OfOneElementPassOnlyWithALengthThatItHas) {
  unsigned passed = 0;
  for (std::size_t length = 6; length <= 40; ++length) {
    for (const std::size_t elementLength : elementLengths()) {
      for (const std::size_t mark : {0x0000u, 0x8000u}) {
        const std::vector<Element> elements = {{6, elementLength | mark}};
        const RowFault found = check<TypeParam>(rowOf(elements, length));
        ASSERT_EQ(found, expected<TypeParam>(elements, length))
            << elementLength << " bytes of " << length << ", mark " << mark;
        if (!found) ++passed;
      }
    }
  }
  EXPECT_GT(passed, 0u);
}

TYPED_TEST(CheckedArrays, OfSeveralElementsPassOnlyOneBehindTheOther) {
  const std::size_t lengths[] = {0, 1, 4, 5, 16, 17, 32767};
  for (const std::size_t first : lengths) {
    for (const std::size_t second : lengths) {
      for (const std::size_t length : {10u, 14u, 15u, 18u, 20u, 26u, 27u, 42u, 44u, 60u}) {
        // The second right behind the first, at the same place, one byte too early, with a gap.
        for (const std::size_t at : {10 + first, std::size_t{10}, 9 + first, 12 + first}) {
          const std::vector<Element> elements = {{10, first}, {at, second}};
          if (at > 65535) continue;
          ASSERT_EQ(check<TypeParam>(rowOf(elements, length)),
                    expected<TypeParam>(elements, length))
              << first << " and " << second << " at " << at << " of " << length;
        }
      }
    }
  }
}

TYPED_TEST(CheckedArrays, OfManyElementsAtOnePlaceAreRefused) {
  for (std::size_t count = 2; count <= 20; ++count) {
    const std::size_t begin = 2 + 4 * count;
    for (const std::size_t elementLength : {4u, 5u, 16u, 17u}) {
      const std::vector<Element> elements(count, Element{begin, elementLength});
      const std::size_t length = begin + count * elementLength;
      const RowFault found = check<TypeParam>(rowOf(elements, length));
      EXPECT_EQ(found, expected<TypeParam>(elements, length));
      EXPECT_TRUE(found);
    }
  }
}

// The slots of elements that a count promises are not read where the array has no room for them.
TYPED_TEST(CheckedArrays, OfMoreElementsThanTheyHaveRoomForAreRefused) {
  for (const unsigned count : {1u, 2u, 3u, 100u, 4095u}) {
    for (std::size_t length = 2; length < 2 + 4 * count && length < 30; ++length) {
      Bytes bytes = rowOf({}, length);
      storeField<std::uint16_t>(bytes.data() + base, static_cast<std::uint16_t>(0x1000 | count));
      ASSERT_EQ(check<TypeParam>(bytes), (RowFault{RowFaultKind::arrayLength, base}))
          << count << " elements in " << length << " bytes";
    }
  }
}

TYPED_TEST(CheckedArrays, BeyondTheRowAreRefusedUnread) {
  for (std::size_t left = 0; left <= 20; ++left) {
    for (const std::size_t beyond : {1u, 2u, 30u, 4000u, 30000u}) {
      Bytes bytes(base + left);
      storeField<len_t>(bytes.data(), static_cast<len_t>(bytes.size()));
      storeField<std::uint16_t>(bytes.data() + 2, 1);
      VColType::at(bytes.data(), 8).valueIs(base, static_cast<len_t>(left + beyond), true);
      if (left >= 2) storeField<std::uint16_t>(bytes.data() + base, 0x1000 + 4095);
      ASSERT_EQ(check<TypeParam>(bytes), (RowFault{RowFaultKind::valueBeyondRow, 8}))
          << left << " bytes in the row, " << beyond << " beyond";
    }
  }
}

using Inner = RowLayout<2, Column<"number", std::uint8_t>>;

// A layout of nested rows is known at run time only.
TEST(CheckedArraysOfRows, PassOnlyWithTheRowsOwnLength) {
  const ColumnInfo column = {"rows", structType_, 8, 4, true, &Inner::info};
  const LayoutInfo layout = {1, base, std::span<const ColumnInfo>(&column, 1)};
  for (std::size_t length = 6; length <= 30; ++length) {
    for (const std::size_t elementLength : elementLengths()) {
      Bytes bytes = rowOf({{6, elementLength}}, length);
      if (length >= 8) storeField<len_t>(bytes.data() + base + 6, 9);
      if (length >= 10) storeField<std::uint16_t>(bytes.data() + base + 8, Inner::rowType);
      const bool passes = elementLength == 9 && 6 + elementLength <= length;
      const GuardedBlock block(bytes);
      ASSERT_EQ(!checkRow(block.data(), bytes.size(), layout), passes)
          << elementLength << " bytes of " << length;
    }
  }
}

}  // namespace
