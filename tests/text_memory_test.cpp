// What the text helpers take from the heap for texts of a hundred million bytes.

#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace {

struct Heap {
  std::size_t live = 0;
  std::size_t most = 0;
};
constinit Heap heap;

}  // namespace

// In place of the executable's and, linked either way, of the library's.
#define KORVO_REPLACES __attribute__((visibility("default"), used, noinline))

KORVO_REPLACES void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  heap.live += malloc_usable_size(block);
  heap.most = std::max(heap.most, heap.live);
  return block;
}
KORVO_REPLACES void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  heap.live -= malloc_usable_size(block);
  std::free(block);
}
KORVO_REPLACES void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace {

using Korvo::KoStrUtils;
using Korvo::splitString;
using Texts = std::vector<std::string>;

constexpr std::size_t many = 100'000'000;

/// How many bytes more than before the action has from the heap at a time.
template <typename Action>
std::size_t bytesTakenBy(const Action& action) {
  const std::size_t before = heap.live;
  heap.most = before;
  action();
  return heap.most - before;
}

/// What a vector of `count` short strings takes; the heap rounds it up to whole pages.
constexpr std::size_t vectorOf(std::size_t count) {
  return count * sizeof(std::string) + 4096;
}

TEST(SplitMemory, DelimitersAloneTakeNone) {
  const std::string text(many, ':');
  Texts out;
  EXPECT_EQ(bytesTakenBy([&] { EXPECT_EQ(splitString(text, ':', out), 0); }), 0U);
  EXPECT_EQ(out.capacity(), 0U);
}

TEST(SplitMemory, IsThatOfThePiecesKept) {
  std::string text(many, ':');
  for (const std::size_t at : {std::size_t{0}, many / 2, many - 1}) text[at] = 'x';
  Texts out;
  EXPECT_LE(bytesTakenBy([&] { EXPECT_EQ(splitString(text, ':', out), 3); }), vectorOf(3));
  EXPECT_EQ(out, (Texts{"x", "x", "x"}));

  const std::string piece = "a piece that is longer than a short string";
  text.replace(many / 4, piece.size(), piece);
  out = {};
  EXPECT_LE(bytesTakenBy([&] { EXPECT_EQ(splitString(text, ':', out), 4); }),
            vectorOf(4) + 2 * piece.size());
}

TEST(SplitMemory, OfEmptyPiecesIsThatOfTheVector) {
  for (const std::size_t count : {1U, 127U, 128U, 129U, 300U, 1'000'000U}) {
    Texts out;
    const std::string text(count, ':');
    EXPECT_LE(bytesTakenBy([&] { KoStrUtils::split(text, ':', out); }), vectorOf(count));
    EXPECT_EQ(out.size(), count);
    EXPECT_EQ(out.capacity(), count);
  }
}

/// Room for exactly the pieces, wherever the delimiters are.
TEST(SplitMemory, IsTakenOnceAndExactly) {
  for (std::size_t size = 1; size < 400; size += size < 20 ? 1 : 37) {
    for (std::size_t step = 1; step < 9; ++step) {
      for (std::size_t from = 0; from < std::min<std::size_t>(size, 5); ++from) {
        std::string text(size, 'x');
        for (std::size_t at = from; at < size; at += step) text[at] = ',';
        Texts all;
        KoStrUtils::split(text, ',', all);
        EXPECT_EQ(all.capacity(), all.size()) << text;
        Texts full;
        splitString(text, ',', full);
        EXPECT_EQ(full.capacity(), full.size()) << text;
      }
    }
  }
}

TEST(SplitMemory, OfManySmallAdditionsGrowsInLargeSteps) {
  Texts out;
  std::size_t moves = 0;
  for (std::size_t i = 0; i < 20'000; ++i) {
    const std::string* const before = out.data();
    splitString("a:b", ':', out);
    moves += static_cast<std::size_t>(out.data() != before);
  }
  EXPECT_EQ(out.size(), 40'000U);
  EXPECT_LE(moves, 20U);
}

#if __SIZEOF_POINTER__ == 4

// A result that no vector or string of this word size can hold is one that there is no memory for.
TEST(SplitMemory, PiecesThatDoNotFitTheAddressSpace) {
  const std::string text(many, ':');
  Texts out{"before"};
  EXPECT_THROW(KoStrUtils::split(text, ':', out), std::bad_alloc);
  EXPECT_EQ(out, Texts{"before"});
  EXPECT_THROW(KoStrUtils::split(text, ':', out), std::bad_alloc);
  EXPECT_THROW(Korvo::processArrayString(std::string(many, ',')), std::bad_alloc);
}

TEST(EscapeMemory, TextThatDoesNotFitTheAddressSpace) {
  const std::string text(6 * many, '"');
  EXPECT_THROW(Korvo::escapeString(text), std::bad_alloc);
  EXPECT_THROW(KoStrUtils::escapeString(text), std::bad_alloc);
}

#endif

}  // namespace
