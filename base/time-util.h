// Monotonic clock for timeouts and benchmarks.
#pragma once

#include <stdint.h>

namespace plr {

// Nanoseconds of CLOCK_MONOTONIC.
uint64_t MonotonicNs();

}  // namespace plr
