// Uses a string after it was moved from.

#include <string>
#include <utility>

int main() {
  std::string text = "a text that is too long to be kept in the string object";
  const std::string taken = std::move(text);
  return text.size() == taken.size() ? 1 : 0;
}
