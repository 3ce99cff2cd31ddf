// Host adapter enumeration against the kernel of the sandbox's network
// namespace: veth pairs and tap devices created by the test.
#include <errno.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/bridge/bridge_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

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

TEST(HostEnumeration, EthernetLinksWithDriverAndCarrier) {
  uint32_t count = 7;
  PLR_HostAdapter* head = reinterpret_cast<PLR_HostAdapter*>(0x1);
  ASSERT_TRUE(PLRCreateHostAdapList(&count, &head)) << "only loopback: an empty list";
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(head, nullptr);

  Ip("link add veth0a type veth peer name veth0b");
  Ip("tuntap add dev tap0 mode tap");
  Ip("link add kavix1 type veth peer name abcdefghijklmno");
  Ip("link set veth0a up");
  Ip("link set veth0b up");
  Ip("link set tap0 up");  // up, but no process holds the tap: no carrier
  auto found = Enumerate();
  EXPECT_TRUE(WaitFor([&] { return (found = Enumerate()).at("veth0a").status == 1u; }, 1000))
      << "carrier comes up asynchronously";
  ASSERT_EQ(found.size(), 5u);  // the library's own kavix1 is listed here
  const std::map<std::string, std::string> drivers = {{"veth0a", "veth"},
                                                      {"veth0b", "veth"},
                                                      {"tap0", "tun"},
                                                      {"kavix1", "veth"},
                                                      {"abcdefghijklmno", "veth"}};
  for (const auto& [name, driver] : drivers) EXPECT_EQ(found.at(name).driver, driver) << name;
  EXPECT_EQ(found.at("veth0b").status, 1u);
  EXPECT_EQ(found.at("tap0").status, 2u);
  EXPECT_EQ(found.at("kavix1").status, 2u);
}

TEST(HostEnumeration, ReplySpreadOverSeveralReceives) {
  for (int i = 0; i < 60; ++i)
    Ip("link add va" + std::to_string(i) + " type veth peer name vb" + std::to_string(i));
  sys::ClearFaults();
  const auto found = Enumerate();
  EXPECT_EQ(found.size(), 120u);
  EXPECT_GE(sys::CallCount(sys::Op::kRead), 2u) << "a dump of 120 links spans several buffers";
}

// The netlink socket or receive fails the call; a failed driver query keeps
// the adapter without a driver name.
TEST(HostEnumeration, SystemCallFailures) {
  LogWhileUnloaded();
  Ip("tuntap add dev tap0 mode tap");
  uint32_t count = 0;
  PLR_HostAdapter* head = nullptr;
  sys::FailNth(sys::Op::kSocket, 1, EMFILE);
  EXPECT_FALSE(PLRCreateHostAdapList(&count, &head));
  EXPECT_TRUE(LogHas("Failure in creating netlink socket, error: Too many open files"));
  sys::ClearFaults();
  sys::FailNth(sys::Op::kRead, 1, EIO);
  EXPECT_FALSE(PLRCreateHostAdapList(&count, &head));
  EXPECT_EQ(head, nullptr);
  for (sys::Op op : {sys::Op::kSocket, sys::Op::kIoctl}) {
    sys::ClearFaults();
    sys::FailNth(op, op == sys::Op::kSocket ? 2 : 1, EOPNOTSUPP);
    EXPECT_EQ(Enumerate().at("tap0").driver, "");
  }
  sys::ClearFaults();
}

}  // namespace
}  // namespace plr::test
