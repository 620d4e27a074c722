// Two threads count without agreeing on it.

#include <thread>

int main() {
  int count = 0;
  const auto countUp = [&count] {
    for (int i = 0; i < 100000; ++i) {
      ++count;
    }
  };
  std::thread one(countUp);
  std::thread two(countUp);
  one.join();
  two.join();
  return count == 0 ? 1 : 0;
}
