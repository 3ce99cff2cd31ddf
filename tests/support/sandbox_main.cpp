// Test entry point: enters the sandbox before any case runs. Listing the
// cases (ctest's discovery) needs no sandbox and gets none.
#include <gtest/gtest.h>
#include <string.h>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i)
    if (strncmp(argv[i], "--gtest_list_tests", 18) == 0) listing = true;
  testing::InitGoogleTest(&argc, argv);
  if (!listing && !plr::test::EnterSandbox()) return 2;
  int result = RUN_ALL_TESTS();
  if (!listing) plr::test::KillStragglers();
  return result;
}
