#pragma once

// Uses a name whose header it does not include.

inline uint32_t canary() {
  return 1;
}
