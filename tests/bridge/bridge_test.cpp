// Host adapters, bridge mappings, the default bridge vnet and adapter moves with bridge daemons.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <regex>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using Found = std::map<std::string, std::string>;

void Ip(const std::string& args) {
  ASSERT_EQ(Run("ip " + args + " >/dev/null 2>&1"), 0) << args;
}

// The host's adapters as name -> "driver/status".
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
  // A failed driver query leaves the driver name empty; a failed socket or receive fails.
  for (sys::Op op : {sys::Op::kSocket, sys::Op::kIoctl}) {
    sys::FailFrom(op, op == sys::Op::kSocket ? 2 : 1, EOPNOTSUPP);
    EXPECT_EQ(Enumerate()["tap0"], "/2");
    sys::ClearFaults();
  }
  uint32_t count = 0;
  PLR_HostAdapter* head = nullptr;
  for (sys::Op op : {sys::Op::kSocket, sys::Op::kRead}) {
    sys::FailNth(op, 1, EMFILE);
    EXPECT_FALSE(PLRCreateHostAdapList(&count, &head) || head);
    sys::ClearFaults();
  }
}

TEST(HostAdapters, ReplySpreadOverSeveralReceives) {
  ASSERT_EQ(plr::test::Run("seq 60 | sed 's/.*/link add va& type veth peer name vb&/' | ip -b -"),
            0);
  EXPECT_EQ(Enumerate().size(), 120u);
  EXPECT_GE(sys::CallCount(sys::Op::kRead), 2u);
}

// The adapters bridged to `vnet` as "name:vnet ..." in name order.
std::string Bridged(uint32_t vnet) {
  uint32_t count = 0;
  PLR_HostAdapter* list = nullptr;
  EXPECT_TRUE(PLRGetVnetBridge(vnet, &count, &list));
  Found out;
  for (PLR_HostAdapter* e = list; e != nullptr; e = e->next)
    out[e->name] = std::to_string(static_cast<int>(e->netId.vnet));
  EXPECT_EQ(out.size(), count) << "each adapter once";
  PLRFreeHostAdapList(&list);
  std::string text;
  for (const auto& [name, v] : out) text += name + ":" + v + " ";
  return text;
}

// The vnet `adapter` is bridged to, and the default bridge vnet, as "vnet/default".
std::string VnetOf(const char* adapter) {
  uint32_t vnet = 12345, defaultBridge = 12345;
  EXPECT_TRUE(PLRGetBridgeMappingForAdapter(adapter, &vnet) &&
              PLRGetDefaultBridgeVnet(&defaultBridge));
  return std::to_string(static_cast<int>(vnet)) + "/" +
         std::to_string(static_cast<int>(defaultBridge));
}

const PLR_HostAdapter eth0{1, nullptr, {}, 0, "", "", "eth0"},
    eth1{1, nullptr, {}, 0, "", "", "eth1"};
const PLR_NetworkID zero{1, 1, 0}, two{1, 1, 2}, none{1, 1, PLR_VNET_NONE};

class Bridge : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    LoadedLibraryTest::SetUp();
    for (const char* tap : {"eth0", "eth1", "kavix1"})
      Ip(std::string("tuntap add mode tap ") + tap);
  }
  void TearDown() override {
    sys::ClearFaults();
    for (uint32_t vnet : {0, 2}) PLRServiceStop(vnet, PLR_SERVICE_BRIDGE);
    LoadedLibraryTest::TearDown();
  }
  // The bridge daemon of `vnet` as "pid: command line" without its status descriptor; "" if none.
  static std::string Daemon(uint32_t vnet) {
    const pid_t pid = PidInFile("/var/run/kavix-bridge-" + std::to_string(vnet) + ".pid");
    if (!ProcessAlive(pid)) return "";
    std::string cmd = ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
    std::replace(cmd.begin(), cmd.end(), '\0', ' ');
    return std::to_string(pid) + ": " + std::regex_replace(cmd, std::regex(" -s [0-9]+"), "");
  }
  // The daemon's arguments after its path.
  static std::string Args(uint32_t vnet) {
    const std::string daemon = Daemon(vnet);
    return daemon.substr(std::min(daemon.find(" -"), daemon.size()));
  }
  // Loads with eth1 bridged to vnet 2 and the bridge daemons of vnets 0 and 2 running.
  void LoadAndStart(const std::string& records = "") {
    Load("add_bridge_mapping eth1 2\n" + records);
    ASSERT_TRUE(PLRServiceStart(0, PLR_SERVICE_BRIDGE) && PLRServiceStart(2, PLR_SERVICE_BRIDGE));
  }
};

TEST_F(Bridge, MappingsAndTheHostAdapterList) {
  Load("add_bridge_mapping eth1 2\nadd_bridge_mapping wlan9 0\nadd_bridge_mapping kavix3 4\n");
  // The default bridge gets every unmapped host adapter besides its own mappings.
  EXPECT_EQ(Bridged(0), "eth0:0 wlan9:0 ");
  EXPECT_EQ(Bridged(2) + "|" + Bridged(5), "eth1:2 |");
  EXPECT_EQ(Bridged(PLR_VNET_ALL), "eth0:0 eth1:2 kavix3:4 wlan9:0 ");
  // The list is one block without kavix adapters, chained in order.
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetHostAdapterList(2, &list) || PLR_GetHostAdapterList(1, nullptr));
  ASSERT_TRUE(PLR_GetHostAdapterList(1, &list));
  ASSERT_EQ(list->version * 10 + list->count, 13u);
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
  EXPECT_EQ(Bridged(0) + "|" + VnetOf("eth0"), "wlan9:0 |-1/-1");
  EXPECT_EQ(Bridged(PLR_VNET_ALL), "eth0:-1 eth1:-1 wlan9:0 ");
  // Setting many mappings goes on after a failure and reports it.
  PLR_HostAdapter a = eth0;
  a.next = const_cast<PLR_HostAdapter*>(&eth1);
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  EXPECT_FALSE(PLRSetBridgeMappingForMultipleAdapters(3, &a));
  sys::ClearFaults();
  EXPECT_EQ(VnetOf("eth0") + " " + VnetOf("eth1"), "-1/-1 3/-1");
}

TEST_F(Bridge, RefusalsAndNoOpsChangeNothing) {
  PLR_FreeHostAdapterList(nullptr);  // needs no library; the rest does
  PLR_NetworkID id{1, 7, 99}, three{1, 1, 3}, badType{1, 2, 2};
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id) || PLR_GetHostAdapterList(1, &list));
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\nadd_bridge_mapping eth1 2\n");
  const std::string before = Database();
  EXPECT_TRUE(PLR_GetBridgeDefaultNetwork(&id) && id.netType == 1 && id.vnet == PLR_VNET_NONE);
  id.version = 2;
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id) || PLR_GetBridgeDefaultNetwork(nullptr));
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&three) || PLR_SetBridgeDefaultNetwork(&badType) ||
               PLR_SetBridgeDefaultNetwork(nullptr));
  EXPECT_TRUE(PLR_SetBridgeDefaultNetwork(&none));
  PLR_HostAdapter v2 = eth1;
  v2.version = 2;
  EXPECT_FALSE(PLR_BridgeMoveAdapter(nullptr, nullptr, &two) ||
               PLR_BridgeMoveAdapter(&eth1, nullptr, &badType) ||
               PLR_BridgeMoveAdapter(&eth1, &badType, &none) ||
               PLR_BridgeMoveAdapter(&eth1, &three, &none) ||
               PLR_BridgeMoveAdapter(&v2, nullptr, &none));
  EXPECT_TRUE(PLR_BridgeMoveAdapter(&eth1, &two, &two)) << "already there";
  EXPECT_EQ(Database(), before);
}

TEST_F(Bridge, DroppingTheDefaultBridgePinsItsAdaptersAndRestartsItsDaemon) {
  LoadAndStart();
  const std::string old = Daemon(0);
  EXPECT_NE(old.find(" -eeth1 "), std::string::npos);
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&none));
  EXPECT_EQ(VnetOf("eth0") + " " + VnetOf("eth1"), "0/-1 2/-1") << "eth0 pinned by a mapping";
  EXPECT_NE(Database().find("add_bridge_mapping eth0 0\n"), std::string::npos);
  // No longer the default, vnet 0's daemon now includes what it bridges.
  EXPECT_EQ(Args(0), " -d /var/run/kavix-bridge-0.pid -n 0 -ieth0 ");
  EXPECT_NE(Daemon(0), old);
  // Back to vnet 0: the adapters bridged to nothing join it explicitly.
  ASSERT_TRUE(PLRSetBridgeMappingForAdapter("wlan9", PLR_VNET_NONE));
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&zero));
  EXPECT_EQ(VnetOf("wlan9"), "0/0");
}

TEST_F(Bridge, MovingAnAdapterRestartsBothDaemonsAndDisplacesTheOldOne) {
  LoadAndStart();
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(VnetOf("eth0") + " " + VnetOf("eth1"), "2/0 0/0") << "a vnet keeps one bridged adapter";
  EXPECT_EQ(
      Args(0) + "|" + Args(2),
      " -d /var/run/kavix-bridge-0.pid -n 0 -eeth0 | -d /var/run/kavix-bridge-2.pid -n 2 -ieth0 ");
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, nullptr, &none));
  EXPECT_EQ(VnetOf("eth1"), "-1/0");
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, &none, nullptr));
  EXPECT_EQ(VnetOf("eth1"), "0/0");
  // Removing a vnet's mappings hands its adapters to the default bridge, whose daemon restarts.
  const std::string daemon0 = Daemon(0);
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(2));
  EXPECT_EQ(VnetOf("eth0"), "0/0");
  EXPECT_NE(Daemon(0), daemon0);
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(0));
  EXPECT_EQ(VnetOf("eth0"), "-1/-1");
}

// A failed restart of either daemon undoes the change; a read-only database touches no daemon.
TEST_F(Bridge, FailedRestartsRollBackAndReadOnlyTouchesNoDaemon) {
  for (int failingFork : {1, 2, 0}) {
    LoadAndStart();
    const std::string daemons = Daemon(0) + Daemon(2), args = Args(0) + Args(2), db = Database();
    if (failingFork == 0) PLR_Unload();
    ASSERT_TRUE(failingFork != 0 || PLR_Load(true));
    sys::FailNth(sys::Op::kFork, failingFork ? failingFork : 1, EAGAIN);
    EXPECT_EQ(PLR_BridgeMoveAdapter(&eth0, nullptr, &two), failingFork == 0);
    sys::ClearFaults();
    EXPECT_EQ(VnetOf("eth0"), failingFork ? "0/0" : "2/0");
    sys::FailNth(sys::Op::kFork, 1, EAGAIN);
    EXPECT_EQ(PLR_SetBridgeDefaultNetwork(&none), failingFork == 0);
    sys::ClearFaults();
    EXPECT_EQ(Args(0) + Args(2), args);
    EXPECT_EQ(Daemon(0) + Daemon(2) == daemons, failingFork == 0) << "restored or untouched";
    if (failingFork != 0) {
      EXPECT_EQ(VnetOf("eth1"), "2/0");
      PLR_Unload();
      ASSERT_TRUE(PLR_Load(false));
      EXPECT_EQ(Bridged(2) + VnetOf("eth0"), "eth1:2 0/0");
    }
    EXPECT_EQ(failingFork ? db : Database(), db) << "read-only: the file is untouched";
    TearDown();
  }
}

}  // namespace
}  // namespace plr::test
