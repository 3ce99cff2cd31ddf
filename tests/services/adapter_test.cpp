// Host-only adapters on real interfaces of the test's network namespace: status, enable with
// its ioctls in order, disable, and their failures.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

// The interface's IPv4 "address/prefix broadcast" lines and whether it is up, as the kernel
// reports them.
std::string Inet(const std::string& dev) {
  return Capture("ip -o -4 addr show dev " + dev + " | awk '{print $4, $6}'");
}
bool Up(const std::string& dev) {
  return Capture("ip -o link show dev " + dev).find(",UP") != std::string::npos;
}
// A veth pair: `name` plays the host-only adapter.
void AddInterface(const std::string& name) {
  ASSERT_EQ(test::Run("ip link add " + name + " type veth peer name p" + name), 0);
}

using AdapterTest = svc::ServiceTest;

constexpr const char* kVnet1 =
    "answer VNET_1_HOSTONLY_SUBNET 10.0.7.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n";

TEST_F(AdapterTest, StatusTellsAbsentDownUpAndErrors) {
  Load("");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_ABSENT);
  AddInterface("kavix1");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_DOWN);
  ASSERT_EQ(test::Run("ip link set kavix1 up"), 0);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_UP);
  for (const char* other : {"Kavix1", "kavix", "kavix12", "avix1", ""})
    EXPECT_EQ(PLRAdapterStatus(other), PLR_ADAPTER_ABSENT) << other;
  EXPECT_EQ(PLRAdapterStatus(nullptr), PLR_ADAPTER_STATUS_ERROR);
  const struct {
    sys::Op op;
    int error;
    uint32_t status;
  } kFailures[] = {{sys::Op::kFopen, EACCES, PLR_ADAPTER_STATUS_ERROR},
                   {sys::Op::kIoctl, EPERM, PLR_ADAPTER_STATUS_ERROR},
                   {sys::Op::kIoctl, ENODEV, PLR_ADAPTER_ABSENT}};  // gone meanwhile
  for (const auto& c : kFailures) {
    sys::FailNth(c.op, 1, c.error);
    EXPECT_EQ(PLRAdapterStatus("kavix1"), c.status) << c.error;
    sys::ClearFaults();
  }
}

// Recorded through the system call table: the order is part of the contract.
std::vector<unsigned long> gRequests;
int RecordIoctl(int fd, unsigned long request, void* arg) {
  gRequests.push_back(request);
  return ::ioctl(fd, request, arg);
}

TEST_F(AdapterTest, EnableSetsAddressMaskBroadcastUpAndMulticastAndDisableClearsUp) {
  Load(kVnet1);
  AddInterface("kavix1");
  ASSERT_EQ(test::Run("ip link set kavix1 multicast off"), 0);
  sys::calls().ioctl = RecordIoctl;
  const bool ok = PLRVirtAdapterEnable(1);
  sys::ResetCalls();
  ASSERT_TRUE(ok);
  EXPECT_EQ(gRequests, (std::vector<unsigned long>{SIOCGIFFLAGS, SIOCSIFADDR, SIOCSIFNETMASK,
                                                   SIOCSIFBRDADDR, SIOCGIFFLAGS, SIOCSIFFLAGS}));
  EXPECT_EQ(Inet("kavix1"), "10.0.7.1/24 10.0.7.255\n");
  EXPECT_TRUE(Up("kavix1"));
  EXPECT_NE(Capture("ip -o link show dev kavix1").find("MULTICAST"), std::string::npos);
  sys::ClearFaults();
  EXPECT_TRUE(PLRVirtAdapterEnable(1));  // up already: nothing to do
  EXPECT_EQ(sys::CallCount(sys::Op::kIoctl), 1u) << "only the status query";
  ASSERT_TRUE(PLRVirtAdapterDisable(1));
  EXPECT_FALSE(Up("kavix1"));
  EXPECT_EQ(Inet("kavix1"), "10.0.7.1/24 10.0.7.255\n");
  EXPECT_TRUE(PLRVirtAdapterDisable(1));  // down or absent already: nothing to do
  EXPECT_TRUE(PLRVirtAdapterDisable(9));
}

// A stored address and a wider mask are used as given; without a mask or an adapter, enable
// fails and sets nothing.
TEST_F(AdapterTest, AddressesComeFromTheVnet) {
  Load(
      "answer VNET_2_HOSTONLY_SUBNET 172.16.0.0\nanswer VNET_2_HOSTONLY_NETMASK 255.255.0.0\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 172.16.5.9\nanswer VNET_3_HOSTONLY_SUBNET 10.0.3.0\n");
  for (const char* name : {"kavix2", "kavix3"}) AddInterface(name);
  ASSERT_TRUE(PLRVirtAdapterEnable(2));
  EXPECT_EQ(Inet("kavix2"), "172.16.5.9/16 172.16.255.255\n");
  EXPECT_FALSE(PLRVirtAdapterEnable(3) || PLRVirtAdapterEnable(4));
  EXPECT_EQ(Inet("kavix3"), "");
}

// Each step's failure ends the call, leaving what was already set, and no descriptor.
TEST_F(AdapterTest, SystemCallFailuresEndEnableAndDisable) {
  Load(kVnet1);
  AddInterface("kavix1");
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
