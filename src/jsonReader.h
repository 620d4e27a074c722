#pragma once

// Reading JSON text, strictly: UTF-8 and the grammar, nothing else. The reader of a value knows
// what it expects, so the text is read from its front and no tree of it is built.

#include "textReader.h"

#include <string>
#include <string_view>

namespace Korvo::detail {

class JsonReader : public TextReader {
 public:
  using TextReader::TextReader;

  /// Takes the word (null, true, false) if it comes next, behind any space.
  bool takeWord(std::string_view expected);
  /// The string that comes next, behind any space.
  std::string string();
  /// The number that comes next, behind any space, as it stands; empty if there is none.
  std::string_view number();

 private:
  void readEscape(std::string& to, std::size_t begin);
  unsigned int hexWord(std::size_t begin);
  bool takeDigits();
};

}  // namespace Korvo::detail
