#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "base/random-util.h"
#include "base/time-util.h"

namespace plr {
namespace {

TEST(CryptoRandom, FillsLargeBuffersCompletely) {
  // A request above the kernel's per-call limit must still be filled whole.
  std::string a(40 << 20, '\0'), b(4096, '\0');
  ASSERT_TRUE(CryptoRandom(a.data(), a.size()));
  ASSERT_TRUE(CryptoRandom(b.data(), b.size()));
  EXPECT_NE(a.substr(0, b.size()), b);
  // The last kilobyte is filled too: all zeros there is a 2^-8192 event.
  EXPECT_NE(a.substr(a.size() - 1024), std::string(1024, '\0'));
  EXPECT_TRUE(CryptoRandom(nullptr, 0));
}

TEST(MonotonicNs, AdvancesWithTime) {
  uint64_t start = MonotonicNs();
  usleep(20000);
  uint64_t elapsed = MonotonicNs() - start;
  EXPECT_GE(elapsed, 20'000'000u);
  EXPECT_LT(elapsed, 2'000'000'000u);
}

}  // namespace
}  // namespace plr
