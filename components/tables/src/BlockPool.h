#pragma once

// Memory in blocks of whole cache lines, taken from large pieces. What looks things up in it meets
// one line for one look, and few pages that the processor has to find first.

#include <array>
#include <cstddef>

namespace Korvo::detail {

class BlockPool {
 public:
  static constexpr std::size_t unit = 64;       ///< bytes
  static constexpr std::size_t mostUnits = 96;  ///< of a block

  BlockPool() = default;
  BlockPool(const BlockPool&) = delete;
  BlockPool& operator=(const BlockPool&) = delete;
  ~BlockPool() { clear(); }

  /// Throws std::bad_alloc with all as before.
  void* allocate(std::size_t units);
  /// Takes a block back, for blocks of as many units to come.
  void giveBack(void* block, std::size_t units) noexcept;
  /// Takes all blocks back and gives their memory to the system.
  void clear() noexcept;

 private:
  struct Free {
    Free* next;
  };
  struct Piece {
    Piece* next;
  };
  void addPiece(std::size_t units);

  std::array<Free*, mostUnits + 1> free_{};  ///< by units
  Piece* pieces_ = nullptr;
  std::byte* rest_ = nullptr;  ///< of the latest piece
  std::size_t restUnits_ = 0;
  std::size_t allUnits_ = 0;
};

}  // namespace Korvo::detail
