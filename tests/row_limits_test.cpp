// Rows and values at their size limits, and writes that run out of memory: what throws leaves the
// row, its buffer and the column's old value as they were.
//
// This executable has its own malloc, calloc, realloc, operator new and operator delete, which
// count and can be told to fail; the library uses them too, linked either way. They hand on to the
// address sanitizer's where there is one. The thread sanitizer allows no allocator but its own: the
// tests that need one are left out there.

#include "row_test_support.h"

#include <cstddef>
#include <new>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ROWTEST_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define ROWTEST_THREAD_SANITIZER 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define ROWTEST_ADDRESS_SANITIZER 1
#endif
#ifdef __SANITIZE_THREAD__
#define ROWTEST_THREAD_SANITIZER 1
#endif

#ifndef ROWTEST_THREAD_SANITIZER

#ifdef ROWTEST_ADDRESS_SANITIZER
#define ROWTEST_UNDERLYING(function) __interceptor_##function
#else
#define ROWTEST_UNDERLYING(function) __libc_##function
#endif

extern "C" {
void* ROWTEST_UNDERLYING(malloc)(std::size_t size);
void* ROWTEST_UNDERLYING(calloc)(std::size_t count, std::size_t size);
void* ROWTEST_UNDERLYING(realloc)(void* block, std::size_t size);
void ROWTEST_UNDERLYING(free)(void* block);
}

namespace {

constinit bool countingAllocations = false;
constinit unsigned allocations = 0;
/// The number of the allocation that fails, from 0; any number that is not reached: none.
constinit unsigned failingAllocation = ~0u;

bool allocationFails() {
  if (!countingAllocations) return false;
  return allocations++ == failingAllocation;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  return allocationFails() ? nullptr : ROWTEST_UNDERLYING(malloc)(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
  return allocationFails() ? nullptr : ROWTEST_UNDERLYING(calloc)(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size) {
  return allocationFails() ? nullptr : ROWTEST_UNDERLYING(realloc)(block, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
  void* const block = allocationFails() ? nullptr : ROWTEST_UNDERLYING(malloc)(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocationFails() ? nullptr : ROWTEST_UNDERLYING(malloc)(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}
void operator delete[](void* block) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}
void operator delete(void* block, std::size_t) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  ROWTEST_UNDERLYING(free)(block);
}

#endif  // ROWTEST_THREAD_SANITIZER

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kPrefix = PlainRow::kPrefix;
constexpr len_t kList = PlainRow::kList;
constexpr len_t kChild = PlainRow::kChild;

/// Everything that a failed write must leave as it was, its twin included.
template <typename Row>
class Unchanged {
 public:
  explicit Unchanged(const Row& row)
      : row_(row),
        buffer_(row.rowBuf()),
        owner_(row.owner()),
        useCount_(row.useCount()),
        image_(imageOf(row)) {}
  testing::AssertionResult holds() const {
    if (row_.rowBuf() != buffer_) return testing::AssertionFailure() << "another buffer";
    if (row_.owner() != owner_) return testing::AssertionFailure() << "another owner";
    if (row_.useCount() != useCount_) {
      return testing::AssertionFailure()
             << "use count " << row_.useCount() << ", not " << useCount_;
    }
    const Bytes image = imageOf(row_);
    if (image.size() != image_.size()) {
      return testing::AssertionFailure()
             << "row length " << image.size() << ", not " << image_.size();
    }
    for (std::size_t i = 0; i < image.size(); ++i) {
      if (image[i] != image_[i]) return testing::AssertionFailure() << "byte " << i << " differs";
    }
    return testing::AssertionSuccess();
  }

 private:
  const Row& row_;
  const byte_t* buffer_;
  const KoRowBuf* owner_;
  long useCount_;
  Bytes image_;
};

/// Runs `write` on a row that is alone and on one that has a twin; both times it must throw
/// KoOutOfRange and leave everything as it was.
template <typename Row, typename Write>
void refused(const Row& start, Write write) {
  for (const bool shared : {false, true}) {
    Row row(imageOf(start));
    Row twin;
    if (shared) twin.shareContents(row);
    const Unchanged<Row> unchanged(row);
    bool thrown = false;
    try {
      write(row);
    } catch (const KoOutOfRange&) {
      thrown = true;
    }
    EXPECT_TRUE(thrown) << (shared ? "shared" : "alone");
    EXPECT_TRUE(unchanged.holds()) << (shared ? "shared" : "alone");
  }
}

template <typename Row>
class RowLimits : public testing::Test {
 protected:
  /// A row with values in two columns, `length` bytes long: the second one fills it up.
  static Row rowOfLength(std::size_t length) {
    Row row(1, 1);
    setString(row, kName, "old value");
    std::size_t left = length - rowLength(row);
    for (const len_t slot : {kChild, kPrefix, kList}) {
      const std::size_t part = std::min(left, kMaxValueLen);
      setString(row, slot, std::string(part, 'f'));
      left -= part;
    }
    EXPECT_EQ(rowLength(row), length);
    return row;
  }
};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(RowLimits, RowClasses);

// ---------------------------------------------------------------------------------------------
// Values of 32767 and 32768 bytes

TYPED_TEST(RowLimits, StringOf32767Bytes) {
  TypeParam row(1, 1);
  const std::string text(kMaxValueLen, 'x');
  setString(row, kName, text);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 32767, false}));
  EXPECT_EQ(stringOf(row, kName), text);
  TypeParam other(1, 1);
  other.template setColumn<StringValueReference>(kAddr, stringRef(text), kBase);
  EXPECT_EQ(slotOf(other, kAddr), (Slot{33, 32767, false}));
  EXPECT_EQ(stringOf(other, kAddr), text);
}

TYPED_TEST(RowLimits, LongerValuesAreRefused) {
  TypeParam start(1, 1);
  setString(start, kName, "old value");
  setString(start, kAddr, "neighbour");
  // Lengths that look short in 16 or 15 bits among them.
  for (const std::size_t length : {32768u, 32771u, 40000u, 65535u, 65536u, 65539u, 131072u + 3}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    refused(start, [&](TypeParam& row) { setString(row, kName, text); });
    refused(start, [&](TypeParam& row) { setString(row, kList, text); });
    refused(start, [&](TypeParam& row) {
      row.template updateVarElement<std::string>(kName, kBase, text);
    });
  }
  for (const len_t length : {len_t{32768}, len_t{65535}}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    refused(start, [&](TypeParam& row) {
      row.template setColumn<StringValueReference>(kName, StringValueReference(text.data(), length),
                                                   kBase);
    });
  }
}

TYPED_TEST(RowLimits, SubRowsOf32767And32768Bytes) {
  Bytes nested(kMaxValueLen + 1, 0x5A);
  storeField<len_t>(nested.data(), 32767);
  TypeParam row(1, 1);
  row.template setColumn<SubRowReference>(kChild, SubRowReference(nested.data()), kBase);
  EXPECT_EQ(slotOf(row, kChild), (Slot{33, 32767, false}));
  storeField<len_t>(nested.data(), 32768);
  TypeParam start(1, 1);
  setString(start, kChild, "old value");
  refused(start, [&](TypeParam& r) {
    r.template setColumn<SubRowReference>(kChild, SubRowReference(nested.data()), kBase);
  });
}

TYPED_TEST(RowLimits, ArraysOf32767And32768Bytes) {
  TypeParam row(1, 1);
  // 2 + 8 + 32757
  std::vector<std::string> values{std::string(30000, 'x'), std::string(2757, 'y')};
  row.template setColumn<std::string>(kList, values, kBase);
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 32767, true}));
  EXPECT_EQ(row.template arrayReference<std::string>(kList)[1], values[1]);

  TypeParam start(1, 1);
  setString(start, kList, "old value");
  values[1] += 'z';
  refused(start, [&](TypeParam& r) { r.template setColumn<std::string>(kList, values, kBase); });
  refused(start,
          [&](TypeParam& r) { r.template updateVarElemArray<std::string>(kList, kBase, values); });
}

TYPED_TEST(RowLimits, ArraysThatAreShortIn16BitsAreRefused) {
  TypeParam start(1, 1);
  setString(start, kList, "old value");
  const std::vector<std::vector<std::string>> cases{
      std::vector<std::string>(3, std::string(30000, 'x')),
      std::vector<std::string>(2, std::string(32767, 'x')),
      // 2 + 12 + 65536 - 14 + 6: 6 in 16 bits
      {std::string(32766, 'x'), std::string(32766, 'x'), std::string(10, 'x')},
      {std::string(65536, 'x')},
      std::vector<std::string>(8192),
      std::vector<std::string>(16384),
      std::vector<std::string>(65536),
      std::vector<std::string>(65537),
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    refused(start,
            [&](TypeParam& r) { r.template setColumn<std::string>(kList, cases[i], kBase); });
  }
  refused(start, [&](TypeParam& r) {
    r.template setColumn<IpGenAddr>(kList, std::vector<IpGenAddr>(8192), kBase);
  });
  refused(start, [&](TypeParam& r) {
    r.template setColumn<IpGenAddr>(kList, std::vector<IpGenAddr>(1639, IpGenAddr("::1")), kBase);
  });
  refused(start, [&](TypeParam& r) {
    r.template setColumn<IpGenPrefix>(kList, std::vector<IpGenPrefix>(65536), kBase);
  });
  for (const std::size_t count : {32766u, 32768u, 65534u, 65536u, 65540u}) {
    SCOPED_TRACE(count);
    refused(start, [&](TypeParam& r) {
      r.template updateFixElemArray<bool>(kList, kBase, std::vector<bool>(count));
    });
  }
  TypeParam row(1, 1);
  row.template updateFixElemArray<bool>(kList, kBase, std::vector<bool>(32765));
  EXPECT_EQ(slotOf(row, kList), (Slot{33, 32767, true}));
}

// ---------------------------------------------------------------------------------------------
// Rows of 65535 bytes

TYPED_TEST(RowLimits, RowGrowsTo65535BytesAndNoFurther) {
  TypeParam row = TestFixture::rowOfLength(kMaxRowLen - 10);
  setString(row, kAddr, "0123456789");
  EXPECT_EQ(rowLength(row), kMaxRowLen);
  EXPECT_EQ(stringOf(row, kAddr), "0123456789");
  EXPECT_EQ(stringOf(row, kName), "old value");

  const TypeParam ten = TestFixture::rowOfLength(kMaxRowLen - 10);
  refused(ten, [](TypeParam& r) { setString(r, kAddr, "0123456789A"); });
  refused(ten, [](TypeParam& r) { setString(r, kAddr, std::string(32767, 'x')); });
}

TYPED_TEST(RowLimits, FullestRowTakesWhatFitsInPlace) {
  const TypeParam full = TestFixture::rowOfLength(kMaxRowLen);
  TypeParam row(imageOf(full));
  setString(row, kName, "new value");
  EXPECT_EQ(stringOf(row, kName), "new value");
  EXPECT_EQ(rowLength(row), kMaxRowLen);
  setString(row, kChild, "");
  EXPECT_EQ(rowLength(row), kMaxRowLen);
}

TYPED_TEST(RowLimits, EveryWriterRefusesAFullRow) {
  // The column `name` is empty, so every value needs room.
  TypeParam full(1, 1);
  setString(full, kChild, std::string(32767, 'f'));
  setString(full, kPrefix, std::string(32735, 'f'));
  ASSERT_EQ(rowLength(full), kMaxRowLen);
  for (const Writer& writer : everyWriter()) {
    SCOPED_TRACE(writer.name);
    refused(full, [&](TypeParam& row) { writer.write(row, kBase); });
  }
  refused(full, [](TypeParam& row) { row.copyVarColumn(kPrefix, row, kName, kBase); });
}

TYPED_TEST(RowLimits, RefusedWriteLeavesSlotAndMark) {
  // The old value is too small to be reused; a writer that cleared the slot first would lose it.
  TypeParam full = TestFixture::rowOfLength(kMaxRowLen);
  Slot slot = slotOf(full, kName);
  slot.array = true;
  setSlot(full, kName, slot);
  refused(full, [](TypeParam& row) { setString(row, kName, "ten bytes."); });
  refused(full, [](TypeParam& row) { row.copyVarColumn(kChild, row, kName, kBase); });
  refused(full, [](TypeParam& row) { row.makeFreeSpace(kName, 20000, kBase); });
}

TYPED_TEST(RowLimits, SourceRowOfARefusedCopyIsUnchanged) {
  const TypeParam full = TestFixture::rowOfLength(kMaxRowLen);
  TypeParam source(1, 1);
  setString(source, kName, "cannot be taken");
  const Unchanged<TypeParam> unchanged(source);
  refused(full, [&](TypeParam& row) { row.copyVarColumn(kName, source, kAddr, kBase); });
  EXPECT_TRUE(unchanged.holds());
}

TYPED_TEST(RowLimits, MakeFreeSpaceRefusesToo) {
  TypeParam start = TestFixture::rowOfLength(60000);
  refused(start, [](TypeParam& row) { row.makeFreeSpace(kAddr, 5536, kBase); });
  TypeParam row(imageOf(start));
  EXPECT_EQ(row.makeFreeSpace(kAddr, 5535, kBase), 60000);
  EXPECT_EQ(rowLength(row), kMaxRowLen);
}

TEST(FullyDefinedLimits, GapsOfTheFullestRowAreUsed) {
  // 9 bytes in front, 32767 in the middle are free: 32000 fit after a compaction, 32777 as well as
  // a value allows, and no byte is added.
  FullRow row(1, 1);
  setString(row, kName, "old value");
  setString(row, kChild, std::string(32767, 'c'));
  setString(row, kPrefix, std::string(32726, 'p'));
  ASSERT_EQ(rowLength(row), kMaxRowLen);
  const Bytes fullest = imageOf(row);

  setString(row, kChild, "");
  setString(row, kList, std::string(32000, 'l'));
  EXPECT_EQ(rowLength(row), kMaxRowLen);
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{42, 32726, false}));
  EXPECT_EQ(slotOf(row, kList), (Slot{42 + 32726, 32000, false}));
  EXPECT_EQ(stringOf(row, kName), "old value");

  FullRow other(fullest);
  setString(other, kChild, "");
  setString(other, kName, "");
  setString(other, kAddr, std::string(32767, 'a'));
  EXPECT_EQ(rowLength(other), kMaxRowLen);
  EXPECT_EQ(slotOf(other, kPrefix), (Slot{33, 32726, false}));
  EXPECT_EQ(slotOf(other, kAddr), (Slot{33 + 32726, 32767, false}));

  // 9 bytes are left over; one more would need growth.
  setString(other, kChild, "nine left");
  EXPECT_EQ(rowLength(other), kMaxRowLen);
  refused(other, [](FullRow& r) { setString(r, kList, "x"); });
}

TEST(FullyDefinedLimits, ExactlyTheFreeBytesOfAFragmentedFullRow) {
  FullRow start(1, 1);
  setString(start, kName, "123456");
  setString(start, kChild, std::string(32767, 'c'));
  setString(start, kPrefix, std::string(32729, 'p'));
  ASSERT_EQ(rowLength(start), kMaxRowLen);
  setString(start, kName, "");
  FullRow row(imageOf(start));
  setString(row, kAddr, "abcdef");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{kMaxRowLen - 6, 6, false}));
  EXPECT_EQ(stringOf(row, kAddr), "abcdef");
  refused(start, [](FullRow& r) { setString(r, kAddr, "abcdefg"); });
}

#ifndef ROWTEST_THREAD_SANITIZER

// ---------------------------------------------------------------------------------------------
// Out of memory

/// Counts the allocations in its scope, and makes one of them fail.
class AllocationScope {
 public:
  explicit AllocationScope(unsigned failing = ~0u) {
    allocations = 0;
    failingAllocation = failing;
    countingAllocations = true;
  }
  ~AllocationScope() { countingAllocations = false; }
  AllocationScope(const AllocationScope&) = delete;
  AllocationScope& operator=(const AllocationScope&) = delete;
  unsigned count() const { return allocations; }
};

template <typename Action>
unsigned allocationsOf(Action action) {
  const AllocationScope scope;
  action();
  return scope.count();
}

/// Fails each allocation of `write` in turn. Every failure must be a bad_alloc that leaves the row
/// and its twin as they were; at last the write succeeds. Returns the number of failures.
template <typename Row, typename Write>
unsigned failsCleanly(const Row& start, bool shared, Write write) {
  for (unsigned failing = 0; failing < 50; ++failing) {
    SCOPED_TRACE("allocation " + std::to_string(failing));
    Row row(imageOf(start));
    Row twin;
    if (shared) twin.shareContents(row);
    const Unchanged<Row> unchanged(row);
    const Bytes before = imageOf(row);
    bool thrown = false;
    {
      const AllocationScope scope(failing);
      try {
        write(row);
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
    }
    if (!thrown) {
      if (shared) {
        EXPECT_EQ(twin.useCount(), 1);
        EXPECT_EQ(imageOf(twin), before);
      }
      return failing;
    }
    EXPECT_TRUE(unchanged.holds());
  }
  ADD_FAILURE() << "the write never succeeds";
  return 50;
}

template <typename Row>
Row fragmentedRow() {
  Row row(1, 1);
  setString(row, kChild, "a gap of this length");
  setString(row, kName, "old value");
  setString(row, kAddr, "another gap");
  setString(row, kPrefix, "neighbour");
  setString(row, kChild, "");
  setString(row, kAddr, "");
  return row;
}

TYPED_TEST(RowLimits, FailedAllocationLeavesEverythingAsItWas) {
  // Values that go in place, grow the row, and make it be compacted, grown or not.
  for (const unsigned length : {5u, 25u, 31u, 200u, 32767u}) {
    const std::string text(length, 'v');
    for (const bool shared : {false, true}) {
      SCOPED_TRACE(std::to_string(length) + (shared ? " bytes, shared" : " bytes, alone"));
      const unsigned failures = failsCleanly(fragmentedRow<TypeParam>(), shared,
                                             [&](TypeParam& row) { setString(row, kName, text); });
      if (shared) {
        EXPECT_GE(failures, 1u);
      }
      if (length > 40) {
        EXPECT_GE(failures, 1u);
      }
    }
  }
}

TYPED_TEST(RowLimits, FailedAllocationOfEveryWriter) {
  for (const Writer& writer : everyWriter()) {
    for (const bool shared : {false, true}) {
      SCOPED_TRACE(writer.name + (shared ? ", shared" : ", alone"));
      failsCleanly(TypeParam(1, 1), shared, [&](TypeParam& row) { writer.write(row, kBase); });
    }
  }
}

TYPED_TEST(RowLimits, FailedAllocationOfAliasingWrites) {
  TypeParam start = fragmentedRow<TypeParam>();
  for (const bool shared : {false, true}) {
    SCOPED_TRACE(shared ? "shared" : "alone");
    failsCleanly(start, shared,
                 [](TypeParam& row) { row.copyVarColumn(kName, row, kList, kBase); });
    failsCleanly(start, shared, [](TypeParam& row) {
      row.template setColumn<StringValueReference>(
          kPrefix,
          StringValueReference(reinterpret_cast<const char*>(row.rowBuf()), rowLength(row)), kBase);
    });
    failsCleanly(start, shared, [](TypeParam& row) {
      row.template setColumn<StringValueReference>(
          kName, StringValueReference(reinterpret_cast<const char*>(row.rowBuf() + 54), 8), kBase);
    });
  }
}

TYPED_TEST(RowLimits, FailedAllocationOfMakeFreeSpace) {
  for (const len_t needed : {len_t{4}, len_t{25}, len_t{31}, len_t{500}}) {
    SCOPED_TRACE(needed);
    failsCleanly(fragmentedRow<TypeParam>(), false,
                 [&](TypeParam& row) { row.makeFreeSpace(kName, needed, kBase); });
  }
}

TYPED_TEST(RowLimits, FailedCopyOfASharedRowLeavesIt) {
  // The block, its owner, the owner's control block: whichever fails.
  const unsigned failures =
      failsCleanly(fragmentedRow<TypeParam>(), true, [](TypeParam& row) { row.clearRow(); });
  EXPECT_GE(failures, 2u);
  failsCleanly(fragmentedRow<TypeParam>(), true, [](TypeParam& row) { setString(row, kName, ""); });
}

TEST(FullyDefinedLimits, FailedAllocationOfARowOfManyColumns) {
  WideRow start;
  for (unsigned column = 0; column < WideRow::kColumns; ++column) {
    start.setColumn<std::string>(WideRow::slot(column), "some value", WideRow::kWideBase);
  }
  start.setColumn<std::string>(WideRow::slot(3), "", WideRow::kWideBase);
  for (const bool shared : {false, true}) {
    // Room is found by packing, without and with growth.
    for (const unsigned length : {10u, 20u, 1000u}) {
      SCOPED_TRACE(std::to_string(length) + (shared ? " bytes, shared" : " bytes, alone"));
      const std::string text(length, 'v');
      failsCleanly(start, shared, [&](WideRow& row) {
        row.setColumn<std::string>(WideRow::slot(3), text, WideRow::kWideBase);
      });
    }
    SCOPED_TRACE(shared ? "shared" : "alone");
    failsCleanly(start, shared, [](WideRow& row) { row.compactVariableData(WideRow::kWideBase); });
  }
}

TEST(FullyDefinedLimits, FailedAllocationOfACompaction) {
  for (const bool shared : {false, true}) {
    SCOPED_TRACE(shared ? "shared" : "alone");
    failsCleanly(fragmentedRow<FullRow>(), shared,
                 [](FullRow& row) { row.compactVariableData(kBase); });
  }
}

// ---------------------------------------------------------------------------------------------
// What needs no memory

TEST(RowAllocations, ReadingThroughReferencesAllocatesNothing) {
  FullRow row(1, 1);
  setString(row, kName, std::string(100, 'x'));
  row.setColumn<IpGenAddr>(kAddr, IpGenAddr("2001:db8::1"), kBase);
  row.setColumn<IpGenPrefix>(kPrefix, IpGenPrefix("2001:db8::/32"), kBase);
  row.setColumn<std::string>(kList, std::vector<std::string>(3, std::string(100, 'y')), kBase);
  row.setColumn<SubRowReference>(kChild, sample<SubRowReference>(), kBase);
  const FullRow other = row;
  EXPECT_EQ(allocationsOf([&] {
              StringValueReference name;
              row.getColumn<StringValueReference>(kName, name);
              IpGenAddrReference addr;
              row.getColumn<IpGenAddrReference>(kAddr, addr);
              IpGenPrefixReference prefix;
              row.getColumn<IpGenPrefixReference>(kPrefix, prefix);
              IpGenAddr addrValue;
              row.getColumn<IpGenAddr>(kAddr, addrValue);
              IpGenPrefix prefixValue;
              row.getColumn<IpGenPrefix>(kPrefix, prefixValue);
              static_cast<void>(row.arrayReference<StringValueReference>(kList)[2].length());
            }),
            0u);
  EXPECT_EQ(allocationsOf([&] {
              row.columnEqual<StringValueReference>(kName, other, kName);
              row.columnLess<StringValueReference>(kName, other, kName);
              row.columnEqualConst<StringValueReference>(kName, StringValueReference());
              row.columnEqual<IpGenAddrReference>(kAddr, other, kAddr);
              row.columnLess<IpGenAddrReference>(kAddr, other, kAddr);
              row.columnHash<IpGenAddrReference>(kAddr);
              row.columnEqual<IpGenPrefixReference>(kPrefix, other, kPrefix);
              row.columnLess<IpGenPrefixReference>(kPrefix, other, kPrefix);
              row.columnHash<IpGenPrefixReference>(kPrefix);
            }),
            0u);
}

TEST(RowAllocations, WritingAllocatesOnlyToGrow) {
  PlainRow row(1, 1);
  const std::string text(100, 'x');
  EXPECT_EQ(allocationsOf([&] { setString(row, kName, text); }), 1u) << "one realloc";
  EXPECT_EQ(allocationsOf([&] { setString(row, kName, text); }), 0u) << "in place";
  const std::string empty;
  EXPECT_EQ(allocationsOf([&] { setString(row, kName, empty); }), 0u);
  const IpGenAddr addr("10.0.0.1");
  EXPECT_EQ(allocationsOf([&] { row.setColumn<IpGenAddr>(kAddr, addr, kBase); }), 1u);
  const std::vector<std::string> values(5, text);
  EXPECT_EQ(allocationsOf([&] { row.setColumn<std::string>(kList, values, kBase); }), 1u);
  EXPECT_EQ(allocationsOf([&] { row.setColumn<std::string>(kList, values, kBase); }), 0u);
  EXPECT_EQ(allocationsOf([&] { row.clearRow(); }), 0u);
}

TEST(RowAllocations, TheFailingAllocatorReachesTheLibrary) {
  // Without this, the tests above would hold for nothing.
  FullRow row(1, 1);
  const std::string text(1000, 'x');
  const AllocationScope scope(0);
  EXPECT_THROW(setString(row, kName, text), std::bad_alloc);
}

#endif  // ROWTEST_THREAD_SANITIZER

}  // namespace
}  // namespace rowtest
