#include "base/time-util.h"

#include <time.h>

namespace plr {

// CLOCK_MONOTONIC never jumps with wall-clock changes, so deadlines built on
// it stay honest; the call cannot fail with a valid clock id.
uint64_t MonotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace plr
