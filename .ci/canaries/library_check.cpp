// Reads past the end of a vector, inside its allocation: only the standard library's checks see it.

#include <vector>

int main() {
  std::vector<int> values;
  values.reserve(8);
  values.push_back(0);
  const volatile std::size_t index = 4;
  return values[index] == 42 ? 1 : 0;
}
