#pragma once

// For a member function that calls code which may destroy its own object.

namespace Korvo::detail {

/// Tells whether an object was destroyed since the watch began. The object holds the head of the
/// list of its watches, null at first, and calls notify() in its destructor. Watches live on the
/// stack and end in the reverse order of their beginning.
class DestructionWatch {
 public:
  explicit DestructionWatch(DestructionWatch*& watches) : watches_(watches), outer_(watches) {
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"  // the destructor takes it out again
#endif
    watches_ = this;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  }
  DestructionWatch(const DestructionWatch&) = delete;
  DestructionWatch& operator=(const DestructionWatch&) = delete;
  ~DestructionWatch() {
    if (!destroyed_) watches_ = outer_;
  }

  bool destroyed() const {
    return destroyed_;
  }

  static void notify(DestructionWatch* watches) {
    for (; watches != nullptr; watches = watches->outer_) watches->destroyed_ = true;
  }

 private:
  DestructionWatch*& watches_;
  DestructionWatch* outer_;
  bool destroyed_ = false;
};

}  // namespace Korvo::detail
