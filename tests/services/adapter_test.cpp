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

TEST_F(AdapterTest, StatusTellsAbsentDownUpAndErrors) {
  Load("");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_ABSENT);
  AddInterface("kavix1");
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_DOWN);
  ASSERT_EQ(plr::test::Run("ip link set kavix1 up"), 0);
  EXPECT_EQ(PLRAdapterStatus("kavix1"), PLR_ADAPTER_UP);
  for (const char* other : {"Kavix1", "kavix", "kavix12", "avix1", ""})
    EXPECT_EQ(PLRAdapterStatus(other), PLR_ADAPTER_ABSENT) << other;
  EXPECT_EQ(PLRAdapterStatus("lo"), PLR_ADAPTER_UP);
  EXPECT_EQ(PLRAdapterStatus(nullptr), PLR_ADAPTER_STATUS_ERROR);
  const struct {
    sys::Op op;
    int error;
    uint32_t status;
  } kFailures[] = {{sys::Op::kFopen, EACCES, PLR_ADAPTER_STATUS_ERROR},
                   {sys::Op::kSocket, EMFILE, PLR_ADAPTER_STATUS_ERROR},
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
  ASSERT_EQ(plr::test::Run("ip link set kavix1 multicast off"), 0);
  sys::calls().ioctl = RecordIoctl;
  bool ok = PLRVirtAdapterEnable(1);
  sys::ResetCalls();
  ASSERT_TRUE(ok);
  EXPECT_THAT(gRequests, ElementsAre(SIOCGIFFLAGS, SIOCSIFADDR, SIOCSIFNETMASK, SIOCSIFBRDADDR,
                                     SIOCGIFFLAGS, SIOCSIFFLAGS));
  Interface i = Inspect("kavix1");
  EXPECT_THAT(i.inet, ElementsAre(InetAddress{"10.0.7.1", "255.255.255.0", "10.0.7.255"}));
  EXPECT_TRUE((i.flags & IFF_UP) && (i.flags & IFF_MULTICAST));
  sys::ClearFaults();
  EXPECT_TRUE(PLRVirtAdapterEnable(1));  // up already: nothing to do
  EXPECT_EQ(sys::CallCount(sys::Op::kIoctl), 1u) << "only the status query";

  ASSERT_TRUE(PLRVirtAdapterDisable(1));
  i = Inspect("kavix1");
  EXPECT_FALSE(i.flags & IFF_UP);
  EXPECT_TRUE(i.flags & IFF_MULTICAST);
  EXPECT_THAT(i.inet, ElementsAre(InetAddress{"10.0.7.1", "255.255.255.0", "10.0.7.255"}));
  EXPECT_TRUE(PLRVirtAdapterDisable(1));  // down or absent already: nothing to do
  EXPECT_TRUE(PLRVirtAdapterDisable(9));
}

// A stored address and a wider mask are used as given; a subnet with host
// bits gives the next address; an absent adapter (names compare exactly) or
// a missing subnet or mask fails.
TEST_F(AdapterTest, AddressesComeFromTheVnet) {
  Load(
      "answer VNET_2_HOSTONLY_SUBNET 172.16.0.0\nanswer VNET_2_HOSTONLY_NETMASK 255.255.0.0\n"
      "answer VNET_2_VIRTUAL_ADAPTER_ADDR 172.16.5.9\nanswer VNET_2_VIRTUAL_ADAPTER_NAME host2\n"
      "answer VNET_1_HOSTONLY_SUBNET 10.0.7.5\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.252\n"
      "answer VNET_3_HOSTONLY_SUBNET 10.0.3.0\nanswer VNET_5_HOSTONLY_SUBNET 10.0.5.0\n"
      "answer VNET_5_HOSTONLY_NETMASK 255.255.255.0\nanswer VNET_5_VIRTUAL_ADAPTER_NAME KAVIX5\n");
  for (const char* name : {"host2", "kavix1", "kavix3", "kavix4", "kavix5"}) AddInterface(name);
  ASSERT_TRUE(PLRVirtAdapterEnable(2));
  ASSERT_TRUE(PLRVirtAdapterEnable(1));
  EXPECT_THAT(Inspect("host2").inet,
              ElementsAre(InetAddress{"172.16.5.9", "255.255.0.0", "172.16.255.255"}));
  EXPECT_THAT(Inspect("kavix1").inet,
              ElementsAre(InetAddress{"10.0.7.6", "255.255.255.252", "10.0.7.7"}));
  for (uint32_t vnet : {3u, 4u, 5u}) {
    EXPECT_FALSE(PLRVirtAdapterEnable(vnet)) << vnet;
    Interface i = Inspect(("kavix" + std::to_string(vnet)).c_str());
    EXPECT_TRUE(i.inet.empty() && !(i.flags & IFF_UP)) << vnet;
  }
}

// Each step's failure ends the call, leaving what was already set.
TEST_F(AdapterTest, SystemCallFailuresEndEnableAndDisable) {
  Load(kVnet1);
  AddInterface("kavix1");
  for (unsigned nth = 2; nth <= 6; ++nth) {  // the status query's SIOCGIFFLAGS is the first
    SCOPED_TRACE(nth);
    ASSERT_EQ(plr::test::Run("ip addr flush dev kavix1 && ip link set kavix1 down"), 0);
    sys::FailNth(sys::Op::kIoctl, nth, EPERM);
    EXPECT_FALSE(PLRVirtAdapterEnable(1));
    sys::ClearFaults();
    Interface i = Inspect("kavix1");
    EXPECT_FALSE(i.flags & IFF_UP);
    EXPECT_EQ(i.inet.empty(), nth == 2);
  }
  const std::set<int> before = OpenFds();
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);  // the first socket is the status query's
  EXPECT_FALSE(PLRVirtAdapterEnable(1));
  ASSERT_EQ(plr::test::Run("ip link set kavix1 up"), 0);
  sys::FailNth(sys::Op::kSocket, 2, EMFILE);
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::FailNth(sys::Op::kIoctl, 3, EPERM);  // status, get, set
  EXPECT_FALSE(PLRVirtAdapterDisable(1));
  sys::ClearFaults();
  EXPECT_TRUE(Inspect("kavix1").flags & IFF_UP);
  EXPECT_EQ(OpenFds(), before);
  EXPECT_FALSE(PLRLoadKavixDriver());
  EXPECT_FALSE(PLRUnloadKavixDriver());
}

TEST_F(AdapterTest, BroadcastIsAddressOrInvertedMask) {
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
}

}  // namespace
}  // namespace plr::test
