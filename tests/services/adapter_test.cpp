// Host-only adapters on real interfaces of the test's network namespace.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <string>
#include <tuple>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

// The interface's IPv4 "address/prefix broadcast" lines and whether it is up.
std::string Inet(const std::string& dev) {
  return Capture("ip -o -4 addr show dev " + dev + " | awk '{print $4, $6}'");
}
bool Up(const std::string& dev) {
  return Capture("ip -o link show dev " + dev).find(",UP") != std::string::npos;
}

using AdapterTest = svc::ServiceTest;

// A stored address and a wider mask are used as given; vnet 3 has no mask.
constexpr const char* kVnets =
    "answer VNET_1_HOSTONLY_SUBNET 172.16.0.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.0.0\n"
    "answer VNET_1_VIRTUAL_ADAPTER_ADDR 172.16.5.9\nanswer VNET_3_HOSTONLY_SUBNET 10.0.3.0\n";

// Recorded through the system call table: the order is part of the contract.
std::vector<unsigned long> gRequests;
int RecordIoctl(int fd, unsigned long request, void* arg) {
  gRequests.push_back(request);
  return ::ioctl(fd, request, arg);
}

TEST_F(AdapterTest, EnableSetsAddressMaskBroadcastUpAndMulticastAndDisableClearsUp) {
  Load(kVnets);
  ASSERT_EQ(test::Run("ip link add kavix1 type veth peer name p1 && ip link add kavix3 type veth "
                      "peer name p3"),
            0);
  ASSERT_EQ(test::Run("ip link set kavix1 multicast off"), 0);
  sys::calls().ioctl = RecordIoctl;
  const bool ok = PLRVirtAdapterEnable(1);
  sys::ResetCalls();
  ASSERT_TRUE(ok);
  EXPECT_EQ(gRequests, (std::vector<unsigned long>{SIOCGIFFLAGS, SIOCSIFADDR, SIOCSIFNETMASK,
                                                   SIOCSIFBRDADDR, SIOCGIFFLAGS, SIOCSIFFLAGS}));
  EXPECT_EQ(Inet("kavix1"), "172.16.5.9/16 172.16.255.255\n");
  EXPECT_TRUE(Up("kavix1"));
  EXPECT_NE(Capture("ip -o link show dev kavix1").find("MULTICAST"), std::string::npos);
  sys::ClearFaults();
  ASSERT_TRUE(PLRVirtAdapterDisable(1));
  EXPECT_FALSE(Up("kavix1"));
  EXPECT_EQ(Inet("kavix1"), "172.16.5.9/16 172.16.255.255\n");
  EXPECT_TRUE(PLRVirtAdapterDisable(1));  // down or absent already: nothing to do
  EXPECT_TRUE(PLRVirtAdapterDisable(9));
  EXPECT_FALSE(PLRVirtAdapterEnable(3) || PLRVirtAdapterEnable(4));  // no mask, no adapter
  EXPECT_EQ(Inet("kavix3"), "");
}

// Status tells absent, down, up and errors; each step's failure ends enable and disable,
// leaving what was already set, and no descriptor.
TEST_F(AdapterTest, StatusAndSystemCallFailures) {
  Load(kVnets);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_ABSENT);
  ASSERT_EQ(test::Run("ip link add kavix1 type veth peer name p1"), 0);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_DOWN);
  EXPECT_EQ(PLRAdapterStatus("p1"), PLR_ADAPTER_DOWN) << "a short name is listed after blanks";
  ASSERT_EQ(test::Run("ip link set kavix1 up"), 0);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_UP);
  for (const char* other : {"Kavix1", "kavix", "kavix12", "avix1", ""}) {
    EXPECT_EQ(PLRAdapterStatus(other), PLR_ADAPTER_ABSENT) << other;
    if (*other != '\0') {  // names that /proc/net/dev itself does not list
      EXPECT_TRUE(LogHas("'" + std::string(other) + "' not in /proc/net/dev")) << other;
    }
  }
  EXPECT_EQ(PLRAdapterStatus(nullptr), PLR_ADAPTER_STATUS_ERROR);
  for (auto [op, error, status] : {std::tuple{sys::Op::kFopen, EACCES, PLR_ADAPTER_STATUS_ERROR},
                                   {sys::Op::kIoctl, EPERM, PLR_ADAPTER_STATUS_ERROR},
                                   {sys::Op::kIoctl, ENODEV, PLR_ADAPTER_ABSENT}}) {  // gone
    sys::FailNth(op, 1, error);
    EXPECT_EQ(PLRAdapterStatus("kavix1"), status) << error;
    sys::ClearFaults();
  }
  for (unsigned nth = 2; nth <= 6; ++nth) {  // the status query's SIOCGIFFLAGS is the first
    SCOPED_TRACE(nth);
    ASSERT_EQ(test::Run("ip addr flush dev kavix1 && ip link set kavix1 down"), 0);
    sys::FailNth(sys::Op::kIoctl, nth, EPERM);
    EXPECT_FALSE(PLRVirtAdapterEnable(1));
    sys::ClearFaults();
    EXPECT_FALSE(Up("kavix1"));
    EXPECT_EQ(Inet("kavix1").empty(), nth == 2);
  }
  const std::set<int> before = OpenFds();
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);  // the first socket is the status query's
  EXPECT_FALSE(PLRVirtAdapterEnable(1));
  ASSERT_EQ(test::Run("ip link set kavix1 up"), 0);
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::FailNth(sys::Op::kIoctl, 3, EPERM);  // status, get, set
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::ClearFaults();
  EXPECT_TRUE(Up("kavix1"));
  EXPECT_EQ(OpenFds(), before);
  EXPECT_FALSE(PLRLoadKavixDriver() || PLRUnloadKavixDriver());
}

}  // namespace
}  // namespace plr::test
