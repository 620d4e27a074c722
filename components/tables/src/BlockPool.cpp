#include "BlockPool.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr std::size_t leastUnits = 64;
constexpr std::size_t largestUnits = std::size_t{16} << 20 >> 6;
constexpr std::size_t hugePage = std::size_t{2} << 20;

/// Asks for large pages where whole ones lie inside. A system without them is as good but slower.
void askForHugePages(std::byte* begin, std::size_t length) {
  const auto address = reinterpret_cast<std::uintptr_t>(begin);
  const std::size_t before = (hugePage - address % hugePage) % hugePage;
  if (before >= length) return;
  const std::size_t whole = (length - before) / hugePage * hugePage;
  if (whole != 0) static_cast<void>(madvise(begin + before, whole, MADV_HUGEPAGE));
}

}  // namespace

void* BlockPool::allocate(std::size_t units) {
  if (Free* const free = free_[units]; free != nullptr) {
    free_[units] = free->next;
    return free;
  }
  if (units > restUnits_) addPiece(units);
  restUnits_ -= units;
  return std::exchange(rest_, rest_ + units * unit);
}

void BlockPool::giveBack(void* block, std::size_t units) noexcept {
  free_[units] = new (block) Free{free_[units]};
}

/// Pieces grow with what there is, so that a quarter of it lies idle at the most.
void BlockPool::addPiece(std::size_t units) {
  const std::size_t most = std::clamp(allUnits_ / 4, leastUnits, largestUnits);
  const std::size_t wanted = std::max(most, units + 1);
  auto* const memory = static_cast<std::byte*>(::operator new(wanted* unit));
  askForHugePages(memory, wanted * unit);
  if (restUnits_ != 0) {
    const std::size_t kept = std::min(restUnits_, mostUnits);
    giveBack(rest_, kept);
  }
  pieces_ = new (memory) Piece{pieces_};
  allUnits_ += wanted;
  // The first block begins on a line of its own.
  static_assert(sizeof(Piece) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  const auto behind = reinterpret_cast<std::uintptr_t>(memory) + sizeof(Piece);
  rest_ = memory + sizeof(Piece) + (unit - behind % unit) % unit;
  restUnits_ = wanted - 1;
}

void BlockPool::clear() noexcept {
  while (pieces_ != nullptr) {
    Piece* const gone = std::exchange(pieces_, pieces_->next);
    ::operator delete(gone);
  }
  free_.fill(nullptr);
  rest_ = nullptr;
  restUnits_ = 0;
  allUnits_ = 0;
}

}  // namespace Korvo::detail
