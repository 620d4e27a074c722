#pragma once

// The states that a publisher's tables were in, for those who check copies: each state of a copy
// was a state of the publisher (atomic), and they come in the publisher's order (ordered).

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tabletest {

class States {
 public:
  /// The publisher's tables are so now. Copies are empty at first.
  void remember(std::string state) { all_.push_back(std::move(state)); }

  /// Whether a copy that was at `place` may be so now; moves the place there.
  bool isNext(const std::string& state, std::size_t& place) const {
    for (std::size_t i = place; i < all_.size(); ++i) {
      if (all_[i] != state) continue;
      place = i;
      return true;
    }
    return false;
  }

  std::size_t size() const { return all_.size(); }

 private:
  std::vector<std::string> all_{""};
};

}  // namespace tabletest
