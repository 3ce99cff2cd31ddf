// Host adapters of the sandbox's kernel, bridge mappings, the default bridge
// vnet, the host adapter list and adapter moves with the fixture bridge daemons.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <map>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using Found = std::map<std::string, std::string>;
using Mapped = std::map<std::string, uint32_t>;

void Ip(const std::string& args) {
  ASSERT_EQ(Run("ip " + args + " >/dev/null 2>&1"), 0) << args;
}

// Enumerates the host's adapters as name -> "driver/status".
Found Enumerate() {
  uint32_t count = 12345;
  PLR_HostAdapter* head = nullptr;
  Found found;
  EXPECT_TRUE(PLRCreateHostAdapList(&count, &head));
  for (PLR_HostAdapter* e = head; e != nullptr; e = e->next) {
    EXPECT_TRUE(e->version == 1 && e->netId.vnet == 0 && !strcmp(e->displayName, e->name));
    found[e->name] = std::string(e->driverName) + "/" + std::to_string(e->status);
  }
  EXPECT_EQ(found.size(), count);
  PLRFreeHostAdapList(&head);
  EXPECT_EQ(head, nullptr);
  return found;
}

TEST(HostAdapters, EthernetLinksWithDriverAndCarrier) {
  EXPECT_TRUE(Enumerate().empty()) << "only loopback";
  Ip("link add veth0a type veth peer name veth0b");
  Ip("link add kavix1 type veth peer name abcdefghijklmno");
  Ip("tuntap add dev tap0 mode tap");
  for (const char* up : {"veth0a", "veth0b", "tap0"}) Ip(std::string("link set up ") + up);
  Found found;  // carrier comes up asynchronously; the tap has none, no process holds it
  EXPECT_TRUE(WaitFor([&] { return (found = Enumerate())["veth0b"] == "veth/1"; }, 2000));
  EXPECT_EQ(found, (Found{{"veth0a", "veth/1"},
                          {"veth0b", "veth/1"},
                          {"tap0", "tun/2"},
                          {"kavix1", "veth/2"},
                          {"abcdefghijklmno", "veth/2"}}));
  // A failed driver query keeps the adapter without a driver name.
  for (sys::Op op : {sys::Op::kSocket, sys::Op::kIoctl}) {
    sys::FailFrom(op, op == sys::Op::kSocket ? 2 : 1, EOPNOTSUPP);
    EXPECT_EQ(Enumerate()["tap0"], "/2");
    sys::ClearFaults();
  }
  // The netlink socket or receive failing fails the call.
  uint32_t count = 0;
  PLR_HostAdapter* head = nullptr;
  for (sys::Op op : {sys::Op::kSocket, sys::Op::kRead}) {
    sys::FailNth(op, 1, EMFILE);
    EXPECT_FALSE(PLRCreateHostAdapList(&count, &head));
    EXPECT_EQ(head, nullptr);
    sys::ClearFaults();
  }
}

TEST(HostAdapters, ReplySpreadOverSeveralReceives) {
  ASSERT_EQ(
      plr::test::Run(
          "for i in $(seq 60); do echo link add va$i type veth peer name vb$i; done | ip -b -"),
      0);
  EXPECT_EQ(Enumerate().size(), 120u);
  EXPECT_GE(sys::CallCount(sys::Op::kRead), 2u);
}

// name -> vnet of the adapters bridged to `vnet`.
Mapped Bridged(uint32_t vnet) {
  uint32_t count = 0;
  PLR_HostAdapter* list = nullptr;
  EXPECT_TRUE(PLRGetVnetBridge(vnet, &count, &list));
  Mapped out;
  for (PLR_HostAdapter* e = list; e != nullptr; e = e->next) out[e->name] = e->netId.vnet;
  EXPECT_EQ(out.size(), count) << "each adapter once";
  PLRFreeHostAdapList(&list);
  return out;
}

uint32_t VnetOf(const char* adapter) {
  uint32_t vnet = 12345;
  EXPECT_TRUE(PLRGetBridgeMappingForAdapter(adapter, &vnet));
  return vnet;
}

uint32_t DefaultBridge() {
  uint32_t vnet = 12345;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  return vnet;
}

PLR_HostAdapter Adapter(const char* name) {
  PLR_HostAdapter adapter{};
  adapter.version = 1;
  strcpy(adapter.name, name);
  return adapter;
}

PLR_NetworkID Net(uint32_t vnet) {
  return PLR_NetworkID{1, 1, vnet};
}

class Bridge : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    LoadedLibraryTest::SetUp();
    for (const char* tap : {"eth0", "eth1", "kavix1"})
      Ip(std::string("tuntap add mode tap ") + tap);
  }
  void TearDown() override {
    sys::ClearFaults();
    for (uint32_t vnet = 0; vnet < 4; ++vnet) PLRServiceStop(vnet, PLR_SERVICE_BRIDGE);
    LoadedLibraryTest::TearDown();
  }
  // The running bridge daemon of `vnet` as "pid: arguments" without the
  // status descriptor (whatever number the pipe got); "" when none runs.
  static std::string Daemon(uint32_t vnet) {
    const pid_t pid = PidInFile("/var/run/kavix-bridge-" + std::to_string(vnet) + ".pid");
    if (pid <= 0 || kill(pid, 0) != 0) return "";
    std::string out = std::to_string(pid) + ":",
                raw = ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
    bool skip = false;
    for (size_t at = 0, end; at < raw.size(); at = end + 1) {
      end = raw.find('\0', at);
      const std::string arg = raw.substr(at, end - at);
      if (!skip && arg != "-s") out += " " + arg;
      skip = arg == "-s";
    }
    return out;
  }
  static std::string Args(uint32_t vnet) {
    const std::string d = Daemon(vnet);
    return d.substr(d.find(':') + 1) + " ";
  }
  void Start(uint32_t vnet) {
    ASSERT_TRUE(PLRServiceStart(vnet, PLR_SERVICE_BRIDGE));
    ASSERT_NE(Daemon(vnet), "") << vnet;
  }
};

TEST_F(Bridge, MappingsAndTheHostAdapterList) {
  Load("add_bridge_mapping eth1 2\nadd_bridge_mapping wlan9 0\nadd_bridge_mapping kavix3 4\n");
  // The default bridge gets every unmapped host adapter besides its own mappings.
  EXPECT_EQ(Bridged(0), (Mapped{{"eth0", 0}, {"wlan9", 0}}));
  EXPECT_EQ(Bridged(2), (Mapped{{"eth1", 2}}));
  EXPECT_TRUE(Bridged(5).empty());
  EXPECT_EQ(Bridged(PLR_VNET_ALL), (Mapped{{"eth0", 0}, {"eth1", 2}, {"wlan9", 0}, {"kavix3", 4}}));
  EXPECT_EQ(VnetOf("eth0"), 0u);
  // The list is one block without kavix adapters, chained in order.
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetHostAdapterList(2, &list) || PLR_GetHostAdapterList(1, nullptr));
  ASSERT_TRUE(PLR_GetHostAdapterList(1, &list));
  EXPECT_EQ(list->version, 1u);
  ASSERT_EQ(list->count, 3u);
  auto* slots = reinterpret_cast<PLR_HostAdapter*>(list + 1);
  Found found;
  for (uint32_t i = 0; i < 3; ++i) {
    const PLR_HostAdapter& e = slots[i];
    EXPECT_EQ(i == 0 ? list->first : slots[i - 1].next, &e);
    EXPECT_EQ(e.netId.version + e.netId.netType, 2u);
    found[e.name] = std::string(e.driverName) + "/" + std::to_string(e.status) + "/" +
                    std::to_string(e.netId.vnet);
  }
  EXPECT_EQ(slots[2].next, nullptr);
  EXPECT_EQ(found, (Found{{"eth0", "tun/2/0"}, {"eth1", "/0/2"}, {"wlan9", "/0/0"}}));
  PLR_FreeHostAdapterList(list);
  // Without a default bridge only explicit mappings count.
  PLR_Unload();
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\nadd_bridge_mapping wlan9 0\n");
  EXPECT_EQ(Bridged(0), (Mapped{{"wlan9", 0}}));
  EXPECT_EQ(VnetOf("eth0"), PLR_VNET_NONE);
  EXPECT_EQ(Bridged(PLR_VNET_ALL)["eth0"], PLR_VNET_NONE);
}

TEST_F(Bridge, SettingManyMappingsGoesOnAfterAFailureAndReportsIt) {
  Load();
  PLR_HostAdapter a = Adapter("eth0"), b = Adapter("eth1");
  a.next = &b;
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_FALSE(PLRSetBridgeMappingForMultipleAdapters(3, &a));
  sys::ClearFaults();
  EXPECT_EQ(VnetOf("eth0"), 0u);
  EXPECT_EQ(VnetOf("eth1"), 3u);
}

TEST(BridgeUnloaded, FreeingNeedsNoLibraryAndTheRestIsRefused) {
  PLR_FreeHostAdapterList(nullptr);
  PLR_NetworkID id = Net(0);
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id) || PLR_GetHostAdapterList(1, &list));
}

TEST_F(Bridge, DefaultNetworkArgumentsAndNoOps) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\nadd_bridge_mapping eth1 2\n");
  const std::string before = Database();
  PLR_NetworkID id{1, 7, 99}, three = Net(3), badType{1, 2, PLR_VNET_NONE},
                              none = Net(PLR_VNET_NONE);
  ASSERT_TRUE(PLR_GetBridgeDefaultNetwork(&id));
  EXPECT_EQ(id.netType + id.vnet, 1u + PLR_VNET_NONE);
  id.version = 2;
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id) || PLR_GetBridgeDefaultNetwork(nullptr));
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&three) || PLR_SetBridgeDefaultNetwork(&badType) ||
               PLR_SetBridgeDefaultNetwork(nullptr));
  EXPECT_TRUE(PLR_SetBridgeDefaultNetwork(&none));
  // Moves: bad arguments, a wrong source, or already there (the default bridge
  // when no destination is given).
  PLR_HostAdapter eth1 = Adapter("eth1");
  const PLR_NetworkID two = Net(2), five = Net(5), badNet{1, 2, 2};
  EXPECT_FALSE(PLR_BridgeMoveAdapter(nullptr, nullptr, &two) ||
               PLR_BridgeMoveAdapter(&eth1, nullptr, &badNet) ||
               PLR_BridgeMoveAdapter(&eth1, &badNet, &none) ||
               PLR_BridgeMoveAdapter(&eth1, &five, &none));
  EXPECT_TRUE(PLR_BridgeMoveAdapter(&eth1, &two, &two));
  eth1.version = 2;
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth1, nullptr, &none));
  EXPECT_EQ(Database(), before);
}

TEST_F(Bridge, DroppingTheDefaultBridgePinsItsAdaptersAndRestartsItsDaemon) {
  Load("add_bridge_mapping eth1 2\n");
  Start(0);
  const std::string old = Daemon(0);
  EXPECT_NE(Args(0).find(" -eeth1 "), std::string::npos);
  const PLR_NetworkID none = Net(PLR_VNET_NONE), zero = Net(0);
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&none));
  EXPECT_EQ(DefaultBridge(), PLR_VNET_NONE);
  EXPECT_EQ(VnetOf("eth0"), 0u) << "pinned by an explicit mapping";
  EXPECT_EQ(VnetOf("eth1"), 2u);
  EXPECT_NE(Database().find("add_bridge_mapping eth0 0\n"), std::string::npos);
  // No longer the default, vnet 0's daemon now includes what it bridges.
  EXPECT_NE(Daemon(0), old);
  EXPECT_EQ(Args(0).find(" -e"), std::string::npos);
  EXPECT_NE(Args(0).find(" -ieth0 "), std::string::npos);
  EXPECT_EQ(Args(0).find("kavix1"), std::string::npos);
  // Back to vnet 0: the adapters bridged to nothing join it explicitly.
  ASSERT_TRUE(PLRSetBridgeMappingForAdapter("wlan9", PLR_VNET_NONE));
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&zero));
  EXPECT_EQ(DefaultBridge(), 0u);
  EXPECT_EQ(VnetOf("wlan9"), 0u);
}

TEST_F(Bridge, MovingAnAdapterRestartsBothDaemonsAndDisplacesTheOldOne) {
  Load("add_bridge_mapping eth1 2\n");
  Start(0);
  Start(2);
  const PLR_HostAdapter eth0 = Adapter("eth0"), eth1 = Adapter("eth1");
  const PLR_NetworkID two = Net(2), none = Net(PLR_VNET_NONE);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(VnetOf("eth0"), 2u);
  EXPECT_EQ(VnetOf("eth1"), 0u) << "a vnet keeps one bridged adapter";
  EXPECT_EQ(Args(2).find("eth1"), std::string::npos);
  EXPECT_NE(Args(2).find(" -ieth0 "), std::string::npos);
  EXPECT_NE(Args(0).find(" -eeth0 "), std::string::npos);
  EXPECT_EQ(Args(0).find("eth1"), std::string::npos);
  // To nothing, and from nothing back to the default bridge.
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, nullptr, &none));
  EXPECT_EQ(VnetOf("eth1"), PLR_VNET_NONE);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, &none, nullptr));
  EXPECT_EQ(VnetOf("eth1"), 0u);
  // Removing vnet 2's mappings hands its adapters to the default bridge.
  const std::string daemon0 = Daemon(0);
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(2));
  EXPECT_EQ(VnetOf("eth0"), 0u);
  EXPECT_NE(Daemon(0), daemon0);
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(0));
  EXPECT_EQ(DefaultBridge(), PLR_VNET_NONE);
  EXPECT_EQ(VnetOf("eth0"), PLR_VNET_NONE);
}

// A failed daemon restart undoes the change: mappings, default and daemons as before.
TEST_F(Bridge, FailedRestartsRollBack) {
  const PLR_HostAdapter eth0 = Adapter("eth0");
  const PLR_NetworkID two = Net(2), none = Net(PLR_VNET_NONE);
  for (int failingFork : {1, 2}) {  // the first or second restart of a move fails
    Load("add_bridge_mapping eth1 2\n");
    Start(0);
    Start(2);
    const std::string args0 = Args(0), args2 = Args(2), db = Database();
    sys::FailNth(sys::Op::kFork, failingFork, EAGAIN);
    EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
    sys::ClearFaults();
    EXPECT_EQ(Bridged(2), (Mapped{{"eth1", 2}}));
    EXPECT_EQ(VnetOf("eth0"), 0u);
    EXPECT_EQ(Args(0) + Args(2), args0 + args2);
    sys::FailNth(sys::Op::kFork, 1, EAGAIN);
    EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&none));
    sys::ClearFaults();
    EXPECT_EQ(DefaultBridge(), 0u);
    EXPECT_EQ(Args(0), args0);
    // A reload reads the same state from the journal.
    PLR_Unload();
    ASSERT_TRUE(PLR_Load(false));
    EXPECT_EQ(DefaultBridge(), 0u);
    EXPECT_EQ(Bridged(2), (Mapped{{"eth1", 2}}));
    TearDown();
  }
}

TEST_F(Bridge, ReadOnlyDatabaseMovesInCacheOnlyAndTouchesNoDaemon) {
  Load("add_bridge_mapping eth1 2\n");
  Start(2);
  const std::string daemon2 = Daemon(2);
  PLR_Unload();
  ASSERT_TRUE(PLR_Load(true));
  const std::string before = Database();
  const PLR_HostAdapter eth0 = Adapter("eth0");
  const PLR_NetworkID two = Net(2);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(VnetOf("eth0"), 2u);
  EXPECT_EQ(Daemon(2), daemon2);
  EXPECT_EQ(Database(), before);
}

}  // namespace
}  // namespace plr::test
