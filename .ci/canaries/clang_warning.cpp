// A warning that only clang gives.

class Canary {
 public:
  explicit Canary(int value) : value_(value) {}

 private:
  int value_;
};

int main() {
  Canary canary(1);
}
