// A library that exports names of its own beside some that are not.

#include <string>

namespace Korvo {
struct Canary {
  virtual ~Canary();
};
Canary::~Canary() {}
}  // namespace Korvo

void internalCanary(std::string*) {}
extern "C" void foreignCanary() {}
