// A library that exports a name of its own beside one that is not.

namespace Korvo {
void canary() {}
}  // namespace Korvo

extern "C" void foreignCanary() {}
