#include "tests/support/api_util.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "pelorus.h"

namespace plr::test {

std::string Vnet1Records() {
  return "answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\n"
         "answer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
         "answer VNET_1_DISPLAY_NAME Lab network\n";
}

void ApiTest::Mark() {
  // The library appends to the log, so its next line lands at the new end.
  if (truncate(kLogPath, 0) != 0) {
    ASSERT_EQ(errno, ENOENT) << strerror(errno);
  }
  markedDatabase_ = Database();
}

std::string Answer(uint32_t vnet, const std::string& key) {
  const char* value = PLRGetVnetCfg(vnet, key.c_str());
  return value != nullptr ? value : "<absent>";
}

int RunBounded(const std::string& command, unsigned seconds) {
  return Run("timeout " + std::to_string(seconds) + " sh -c '" + command + "'");
}

}  // namespace plr::test
