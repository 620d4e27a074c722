#pragma once

// A table on a terminal, drawn anew in place.

#include "../output.h"

#include <string>
#include <string_view>
#include <vector>

namespace korvotool {

/// Has the terminal of standard output for itself, and gives it back as it was.
class Screen {
 public:
  explicit Screen(Output& out);
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen();

  struct Size {
    std::size_t lines = 24;
    std::size_t columns = 80;
    bool operator==(const Size&) const = default;
  };
  static Size size();

  /// Lines without control characters, of which as many are shown as there is room for. They may be
  /// painted.
  void draw(const std::vector<std::string>& lines);

 private:
  Output& out_;
};

/// The beginning of a text that has that width at the most, without half a character.
std::string_view cut(std::string_view text, std::size_t width);

}  // namespace korvotool
