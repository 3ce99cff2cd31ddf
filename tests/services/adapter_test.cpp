// Host-only adapters on real interfaces of the test's network namespace:
// status, enable with its five ioctls, disable, and their failures.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
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

using namespace svc;  // NOLINT: the services test vocabulary

using ::testing::ElementsAre;

struct InetAddress {
  std::string addr, mask, bcast;
  bool operator==(const InetAddress&) const = default;
};

void PrintTo(const InetAddress& a, std::ostream* os) {
  *os << a.addr << "/" << a.mask << " brd " << a.bcast;
}

struct Interface {
  bool found = false;
  unsigned flags = 0;
  std::vector<InetAddress> inet;
};

std::string Text(const struct sockaddr* sa) {
  if (sa == nullptr || sa->sa_family != AF_INET) return "";
  char buf[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in*>(sa)->sin_addr, buf, sizeof buf);
  return buf;
}

// What the kernel says about an interface, through getifaddrs.
Interface Inspect(const char* name) {
  Interface out;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (struct ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
    if (strcmp(i->ifa_name, name) != 0) continue;
    out.found = true;
    out.flags = i->ifa_flags;
    if (i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET)
      out.inet.push_back({Text(i->ifa_addr), Text(i->ifa_netmask), Text(i->ifa_broadaddr)});
  }
  freeifaddrs(list);
  return out;
}

class AdapterTest : public ServiceTest {
 protected:
  // A veth pair: `name` plays the host-only adapter.
  void AddInterface(const std::string& name) {
    ASSERT_EQ(plr::test::Run("ip link add " + name + " type veth peer name p" + name), 0);
  }
};

constexpr const char* kVnet1 =
    "answer VNET_1_HOSTONLY_SUBNET 10.0.7.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n";

TEST_F(AdapterTest, StatusTellsAbsentDownAndUpAndComparesNamesExactly) {
  Load("");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_ABSENT);
  EXPECT_TRUE(LogHas("PLRAdapterStatus - 'kavix1' not in /proc/net/dev"));
  AddInterface("kavix1");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_DOWN);
  ASSERT_EQ(plr::test::Run("ip link set kavix1 up"), 0);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_UP);
  EXPECT_TRUE(LogHas("PLRAdapterStatus - SIOCGIFFLAGS: 0x"));
  EXPECT_TRUE(LogHas(" for kavix1"));
  for (const char* other : {"Kavix1", "KAVIX1", "kavix", "kavix12", "avix1", ""})
    EXPECT_EQ(PLRAdapterStatus(other), PLR_ADAPTER_ABSENT) << other;
  EXPECT_EQ(PLRAdapterStatus("lo"), PLR_ADAPTER_UP);
  EXPECT_EQ(PLRAdapterStatus(nullptr), PLR_ADAPTER_STATUS_ERROR);
}

TEST_F(AdapterTest, StatusFailuresReadAsError) {
  Load("");
  AddInterface("kavix1");
  const struct {
    sys::Op op;
    int error;
    uint32_t status;
    const char* message;  // "" when the case logs nothing of its own
  } cases[] = {
      {sys::Op::kFopen, EACCES, PLR_ADAPTER_STATUS_ERROR,
       "PLRAdapterStatus - fopen(/proc/net/dev) failed: Permission denied"},
      {sys::Op::kSocket, EMFILE, PLR_ADAPTER_STATUS_ERROR,
       "PLRAdapterStatus - socket() failed: Too many open files"},
      {sys::Op::kIoctl, EPERM, PLR_ADAPTER_STATUS_ERROR,
       "PLRAdapterStatus - SIOCGIFFLAGS() failed: Operation not permitted"},
      // Listed but gone by the time the kernel is asked: absent, silently.
      {sys::Op::kIoctl, ENODEV, PLR_ADAPTER_ABSENT, ""},
  };
  for (const auto& c : cases) {
    sys::FailNth(c.op, 1, c.error);
    EXPECT_EQ(PLRAdapterStatus("kavix1"), c.status) << c.message;
    sys::ClearFaults();
    EXPECT_TRUE(LogHas(c.message)) << c.message;
  }
}

// Recorded through the system call table: the order is part of the contract.
std::vector<unsigned long> gRequests;
int RecordIoctl(int fd, unsigned long request, void* arg) {
  gRequests.push_back(request);
  return ::ioctl(fd, request, arg);
}

TEST_F(AdapterTest, EnableSetsExactlyAddressMaskBroadcastUpAndMulticast) {
  Load(kVnet1);
  AddInterface("kavix1");
  ASSERT_EQ(plr::test::Run("ip link set kavix1 multicast off"), 0);
  gRequests.clear();
  sys::calls().ioctl = RecordIoctl;
  bool ok = PLRVirtAdapterEnable(1);
  sys::ResetCalls();
  ASSERT_TRUE(ok);
  // The first SIOCGIFFLAGS is the status check.
  EXPECT_THAT(gRequests, ElementsAre(SIOCGIFFLAGS, SIOCSIFADDR, SIOCSIFNETMASK, SIOCSIFBRDADDR,
                                     SIOCGIFFLAGS, SIOCSIFFLAGS));
  Interface i = Inspect("kavix1");
  ASSERT_TRUE(i.found);
  EXPECT_THAT(i.inet, ElementsAre(InetAddress{"10.0.7.1", "255.255.255.0", "10.0.7.255"}));
  EXPECT_TRUE(i.flags & IFF_UP);
  EXPECT_TRUE(i.flags & IFF_MULTICAST);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_UP);
  // Network-order words as the kernel got them.
  EXPECT_TRUE(
      LogHas("PLRVirtAdapterEnable - ioctl: SIOCSIFADDR set interface address to: "
             "0107000a for interface: kavix1"));
  EXPECT_TRUE(
      LogHas("ioctl: SIOCSIFNETMASK set interface netmask address to: 00ffffff for "
             "interface: kavix1"));
  EXPECT_TRUE(
      LogHas("ioctl: SIOCSIFBRDADDR set interface broadcast address to: ff07000a for "
             "interface: kavix1"));
  EXPECT_TRUE(LogHas("ioctl: SIOCGIFFLAGS get interface flags: 0x"));
  EXPECT_TRUE(LogHas("ioctl: SIOCSIFFLAGS set interface flags to: 0x"));
}

// A stored address and a wider mask are used as given; a subnet with host
// bits gives the next address.
TEST_F(AdapterTest, StoredAddressWiderMaskAndHostBitsAreUsed) {
  Load(
      "answer VNET_2_HOSTONLY_SUBNET 172.16.0.0\nanswer VNET_2_HOSTONLY_NETMASK 255.255.0.0\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 172.16.5.9\n"
      "answer VNET_2_VIRTUAL_ADAPTER_NAME hostonly2\n"
      "answer VNET_1_HOSTONLY_SUBNET 10.0.7.5\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n");
  AddInterface("hostonly2");
  AddInterface("kavix1");
  ASSERT_TRUE(PLRVirtAdapterEnable(2));
  ASSERT_TRUE(PLRVirtAdapterEnable(1));
  EXPECT_THAT(Inspect("hostonly2").inet,
              ElementsAre(InetAddress{"172.16.5.9", "255.255.0.0", "172.16.255.255"}));
  EXPECT_THAT(Inspect("kavix1").inet,
              ElementsAre(InetAddress{"10.0.7.6", "255.255.255.0", "10.0.7.255"}));
}

TEST_F(AdapterTest, EnablingAnAdapterThatIsUpChangesNothing) {
  Load(kVnet1);
  AddInterface("kavix1");
  ASSERT_EQ(plr::test::Run("ip addr add 10.9.9.9/8 brd + dev kavix1 && ip link set kavix1 up"), 0);
  sys::ClearFaults();
  EXPECT_TRUE(PLRVirtAdapterEnable(1));
  EXPECT_TRUE(LogHas("PLRVirtAdapterEnable - Virtual adapter is already enabled"));
  EXPECT_EQ(sys::CallCount(sys::Op::kIoctl), 1u) << "only the status query";
  EXPECT_THAT(Inspect("kavix1").inet,
              ElementsAre(InetAddress{"10.9.9.9", "255.0.0.0", "10.255.255.255"}));
}

// An absent adapter, and a name differing only in case, fail at the address.
TEST_F(AdapterTest, AbsentAdapterFailsAtSettingTheAddress) {
  Load(std::string(kVnet1) + "answer VNET_1_VIRTUAL_ADAPTER_NAME KAVIX1\n");
  AddInterface("kavix1");
  EXPECT_FALSE(PLRVirtAdapterEnable(1));
  EXPECT_TRUE(LogHas("PLRVirtAdapterEnable - ioctl: SIOCAIFADDR failed, error: No such device"));
  EXPECT_TRUE(Inspect("kavix1").inet.empty());
}

TEST_F(AdapterTest, EnableWithoutSubnetOrMaskFails) {
  Load("answer VNET_3_HOSTONLY_SUBNET 10.0.3.0\n");
  AddInterface("kavix3");
  AddInterface("kavix4");
  EXPECT_FALSE(PLRVirtAdapterEnable(4));
  EXPECT_TRUE(LogHas("PLRVirtAdapterEnable - Getting virtual adapter address failed"));
  EXPECT_FALSE(PLRVirtAdapterEnable(3));
  EXPECT_TRUE(LogHas("PLRVirtAdapterEnable - Getting virtual adapter mask failed"));
  EXPECT_TRUE(Inspect("kavix3").inet.empty());
  EXPECT_FALSE(Inspect("kavix3").flags & IFF_UP);
}

struct IoctlFailure {
  unsigned nth;  // counting the status query's SIOCGIFFLAGS as the first
  const char* message;
};

// Each step fails with its own line and leaves what was already set.
TEST_F(AdapterTest, EachIoctlFailureEndsEnableWithItsOwnMessage) {
  Load(kVnet1);
  AddInterface("kavix1");
  const IoctlFailure cases[] = {
      {2, "ioctl: SIOCAIFADDR failed, error: Operation not permitted"},
      {3, "ioctl: SIOCSIFNETMASK failed, error: Operation not permitted"},
      {4, "ioctl: SIOCSIFBRDADDR failed, error: Operation not permitted"},
      {5, "ioctl: SIOCGIFFLAGS failed, error: Operation not permitted"},
      {6, "ioctl: SIOCSIFFLAGS failed, error: Operation not permitted"},
  };
  for (const IoctlFailure& c : cases) {
    SCOPED_TRACE(c.message);
    ASSERT_EQ(plr::test::Run("ip addr flush dev kavix1 && ip link set kavix1 down"), 0);
    sys::FailNth(sys::Op::kIoctl, c.nth, EPERM);
    EXPECT_FALSE(PLRVirtAdapterEnable(1));
    sys::ClearFaults();
    EXPECT_EQ(LogCount(std::string("PLRVirtAdapterEnable - ") + c.message), 1u);
    Interface i = Inspect("kavix1");
    EXPECT_FALSE(i.flags & IFF_UP);
    EXPECT_EQ(i.inet.empty(), c.nth == 2) << "no rollback of what was set";
  }
}

TEST_F(AdapterTest, DisableClearsUpAndKeepsTheAddresses) {
  Load(kVnet1);
  AddInterface("kavix1");
  ASSERT_TRUE(PLRVirtAdapterEnable(1));
  ASSERT_TRUE(PLRVirtAdapterDisable(1));
  Interface i = Inspect("kavix1");
  EXPECT_FALSE(i.flags & IFF_UP);
  EXPECT_TRUE(i.flags & IFF_MULTICAST);
  EXPECT_THAT(i.inet, ElementsAre(InetAddress{"10.0.7.1", "255.255.255.0", "10.0.7.255"}));
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_DOWN);
  EXPECT_TRUE(LogHas("PLRVirtAdapterDisable - ioctl: SIOCSIFFLAGS set interface flags to: 0x"));

  // Down or absent already: nothing to do.
  EXPECT_TRUE(PLRVirtAdapterDisable(1));
  EXPECT_TRUE(PLRVirtAdapterDisable(9));
  EXPECT_EQ(LogCount("PLRVirtAdapterDisable - Virtual adapter is already disabled"), 2u);
}

TEST_F(AdapterTest, SocketAndDisableFailuresAreReported) {
  Load(kVnet1);
  AddInterface("kavix1");
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);  // the first socket is the status query's
  EXPECT_FALSE(PLRVirtAdapterEnable(1));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("socket(): for enabling adapter failed, error: Too many open files"));
  ASSERT_EQ(plr::test::Run("ip link set kavix1 up"), 0);
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::ClearFaults();
  EXPECT_TRUE(LogHas("socket(): for disabling adapter failed, error: Too many open files"));
  sys::FailNth(sys::Op::kIoctl, 3, EPERM);  // status, get, set
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::ClearFaults();
  EXPECT_TRUE(
      LogHas("PLRVirtAdapterDisable - ioctl: SIOCSIFFLAGS failed, error: Operation not "
             "permitted"));
  EXPECT_TRUE(Inspect("kavix1").flags & IFF_UP);
}

TEST_F(AdapterTest, AdapterCallsLeakNoDescriptor) {
  Load(kVnet1);
  AddInterface("kavix1");
  std::set<int> before = OpenFds();
  for (int i = 0; i < 20; ++i) {
    PLRAdapterStatus("kavix1");
    PLRAdapterStatus("missing0");
    PLRVirtAdapterEnable(1);
    PLRVirtAdapterDisable(1);
    PLRVirtAdapterEnable(5);  // absent, fails
  }
  EXPECT_EQ(OpenFds(), before);
}

TEST_F(AdapterTest, BroadcastIsAddressOrInvertedMaskAndDriverCallsFail) {
  Load("");
  char out[16];
  for (auto [addr, mask, bcast] : {std::tuple{"10.0.7.1", "255.255.255.0", "10.0.7.255"},
                                   {"10.0.7.5", "255.255.255.252", "10.0.7.7"},
                                   {"192.168.1.1", "255.255.0.0", "192.168.255.255"},
                                   {"10.1.2.3", "255.255.255.255", "10.1.2.3"}}) {
    ASSERT_TRUE(PLRGetBcastAddr(addr, mask, out));
    EXPECT_STREQ(out, bcast);
  }
  EXPECT_FALSE(PLRGetBcastAddr(nullptr, "255.0.0.0", out));
  EXPECT_FALSE(PLRGetBcastAddr("10.0.0.1", nullptr, out));
  EXPECT_FALSE(PLRGetBcastAddr("10.0.0.1", "255.0.0.0", nullptr));
  EXPECT_EQ(LogCount("PLRGetBcastAddr - Invalid arguments"), 3u);
  EXPECT_FALSE(PLRLoadKavixDriver());
  EXPECT_FALSE(PLRUnloadKavixDriver());
}

}  // namespace
}  // namespace plr::test
