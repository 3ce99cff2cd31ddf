// Host adapter enumeration against the kernel of the sandbox's network
// namespace: veth pairs and tap devices created by the test.
#include <errno.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/bridge_util.h"

namespace plr {
namespace {

using test::Ip;
using test::LogCapture;

struct Found {
  std::string driver;
  uint32_t status;
};

// Enumerates and returns name -> (driver, status); checks count and links.
std::map<std::string, Found> Enumerate() {
  uint32_t count = 12345;
  PLR_HostAdapter* head = nullptr;
  std::map<std::string, Found> found;
  EXPECT_TRUE(PLRCreateHostAdapList(&count, &head));
  uint32_t walked = 0;
  for (PLR_HostAdapter* e = head; e != nullptr; e = e->next, ++walked) {
    EXPECT_EQ(e->version, 1u);
    EXPECT_STREQ(e->displayName, e->name);
    EXPECT_EQ(e->netId.vnet, 0u) << "enumerated elements carry no vnet yet";
    found[e->name] = Found{e->driverName, e->status};
  }
  EXPECT_EQ(walked, count);
  PLRFreeHostAdapList(&head);
  EXPECT_EQ(head, nullptr);
  return found;
}

TEST(HostEnumeration, VethAndTapWithKernelDriverNames) {
  LogCapture log;
  Ip("link add veth0a type veth peer name veth0b");
  Ip("tuntap add dev tap0 mode tap");
  Ip("link add kavix1 type veth peer name abcdefghijklmno");
  const auto found = Enumerate();
  EXPECT_EQ(found.size(), 5u);  // loopback is not Ethernet
  EXPECT_EQ(found.count("lo"), 0u);
  EXPECT_EQ(found.at("veth0a").driver, "veth");
  EXPECT_EQ(found.at("veth0b").driver, "veth");
  EXPECT_EQ(found.at("tap0").driver, "tun");
  // The enumeration itself lists the library's own adapters; the bridge
  // lists leave them out.
  EXPECT_EQ(found.at("kavix1").driver, "veth");
  EXPECT_EQ(found.at("abcdefghijklmno").driver, "veth");
  for (const auto& [name, adapter] : found) EXPECT_EQ(adapter.status, 2u) << name;
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Obtained driver name: tun for adapter: tap0"));
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Max netlink socket recv buffer size is: "));
  EXPECT_TRUE(log.Contains("PLRCreateHostAdapList - Processed all adapters"));
}

TEST(HostEnumeration, RunningFlagFollowsCarrier) {
  Ip("link add veth0a type veth peer name veth0b");
  Ip("tuntap add dev tap0 mode tap");
  Ip("link set veth0a up");
  Ip("link set veth0b up");
  Ip("link set tap0 up");  // up, but no process holds the tap: no carrier
  auto found = Enumerate();
  for (int i = 0; i < 50 && found.at("veth0a").status != 1u; ++i) {
    usleep(20000);  // carrier comes up asynchronously
    found = Enumerate();
  }
  EXPECT_EQ(found.at("veth0a").status, 1u);
  EXPECT_EQ(found.at("veth0b").status, 1u);
  EXPECT_EQ(found.at("tap0").status, 2u);
}

TEST(HostEnumeration, NoEthernetAdapterGivesEmptyList) {
  uint32_t count = 7;
  PLR_HostAdapter* head = reinterpret_cast<PLR_HostAdapter*>(0x1);
  ASSERT_TRUE(PLRCreateHostAdapList(&count, &head));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(head, nullptr);
}

TEST(HostEnumeration, ReplySpreadOverSeveralReceives) {
  for (int i = 0; i < 60; ++i)
    Ip("link add va" + std::to_string(i) + " type veth peer name vb" + std::to_string(i));
  sys::ClearFaults();
  const auto found = Enumerate();
  EXPECT_EQ(found.size(), 120u);
  EXPECT_GE(sys::CallCount(sys::Op::kRead), 2u) << "a dump of 120 links spans several buffers";
  EXPECT_EQ(found.count("va59"), 1u);
  EXPECT_EQ(found.count("vb0"), 1u);
}

TEST(HostEnumeration, SocketReceiveAndDriverQueryFailures) {
  LogCapture log;
  Ip("tuntap add dev tap0 mode tap");
  uint32_t count = 0;
  PLR_HostAdapter* head = nullptr;

  sys::FailNth(sys::Op::kSocket, 1, EMFILE);
  EXPECT_FALSE(PLRCreateHostAdapList(&count, &head));
  EXPECT_TRUE(log.Contains("Failure in creating netlink socket, error: Too many open files"));

  sys::ClearFaults();
  sys::FailNth(sys::Op::kRead, 1, EIO);
  EXPECT_FALSE(PLRCreateHostAdapList(&count, &head));
  EXPECT_EQ(head, nullptr);
  EXPECT_TRUE(log.Contains("Failed while reading data from netlink socket:  Input/output error"));

  // Driver queries fail: the adapter stays, without a driver name.
  sys::ClearFaults();
  sys::FailNth(sys::Op::kSocket, 2, ENFILE);
  auto found = Enumerate();
  EXPECT_EQ(found.at("tap0").driver, "");
  EXPECT_TRUE(
      log.Contains("Error opening socket for querying driver name for adapter: tap0, "
                   "error: Too many open files in system"));

  sys::ClearFaults();
  sys::FailNth(sys::Op::kIoctl, 1, EOPNOTSUPP);
  found = Enumerate();
  EXPECT_EQ(found.at("tap0").driver, "");
  EXPECT_TRUE(
      log.Contains("Ioctl on socket for querying driver name for adapter: tap0 failed, "
                   "error: Operation not supported"));
  sys::ClearFaults();
}

}  // namespace
}  // namespace plr
