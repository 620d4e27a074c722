#pragma once

/// A class whose comments are wrong.
class Canary {
 public:
  /// Does nothing.
  /// \param canaryParameter is not there
  void nothing(int parameter);
};
