// Bridge mappings, the default bridge vnet and adapter moves, with the
// fixture bridge daemons running in the sandbox.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/bridge/bridge_util.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

// name -> vnet of an adapter list, with its elements checked on the way.
std::map<std::string, uint32_t> ByName(PLR_HostAdapter* list) {
  std::map<std::string, uint32_t> out;
  for (; list != nullptr; list = list->next) {
    EXPECT_EQ(out.count(list->name), 0u) << "duplicate " << list->name;
    out[list->name] = list->netId.vnet;
  }
  return out;
}

// The adapters bridged to `vnet`, as name -> vnet.
std::map<std::string, uint32_t> Bridged(uint32_t vnet) {
  uint32_t count = 0;
  PLR_HostAdapter* list = nullptr;
  EXPECT_TRUE(PLRGetVnetBridge(vnet, &count, &list));
  auto out = ByName(list);
  EXPECT_EQ(out.size(), count);
  PLRFreeHostAdapList(&list);
  return out;
}

uint32_t EffectiveVnet(const char* adapter) {
  uint32_t vnet = 12345;
  EXPECT_TRUE(PLRGetBridgeMappingForAdapter(adapter, &vnet));
  return vnet;
}

uint32_t DefaultBridge() {
  uint32_t vnet = 12345;
  EXPECT_TRUE(PLRGetDefaultBridgeVnet(&vnet));
  return vnet;
}

PLR_HostAdapter AdapterNamed(const char* name) {
  PLR_HostAdapter adapter;
  memset(&adapter, 0, sizeof adapter);
  adapter.version = 1;
  strcpy(adapter.name, name);
  return adapter;
}

PLR_NetworkID Net(uint32_t vnet) {
  return PLR_NetworkID{1, 1, vnet};
}

class Bridge : public LoadedLibraryTest {
 protected:
  // Host adapters eth0 and eth1 (taps) and the library's own kavix1.
  void SetUp() override {
    Ip("tuntap add dev eth0 mode tap");
    Ip("tuntap add dev eth1 mode tap");
    Ip("tuntap add dev kavix1 mode tap");
  }
  void TearDown() override {
    sys::ClearFaults();
    for (uint32_t vnet = 0; vnet < 4; ++vnet) PLRServiceStop(vnet, PLR_SERVICE_BRIDGE);
    LoadedLibraryTest::TearDown();
  }

  // PID of the bridge daemon of `vnet`, 0 when it does not run.
  static pid_t BridgePid(uint32_t vnet) {
    const std::string path = "/var/run/kavix-bridge-" + std::to_string(vnet) + ".pid";
    if (!FileExists(path)) return 0;
    const pid_t pid = atoi(ReadFile(path).c_str());
    return pid > 0 && kill(pid, 0) == 0 ? pid : 0;
  }

  // The command line of the running bridge daemon of `vnet` without the
  // status descriptor, which is whatever number the pipe got.
  static std::vector<std::string> BridgeArgs(uint32_t vnet) {
    std::vector<std::string> args;
    const pid_t pid = BridgePid(vnet);
    if (pid == 0) return args;
    const std::string raw = ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
    for (size_t start = 0; start < raw.size();) {
      size_t end = raw.find('\0', start);
      if (end == std::string::npos) end = raw.size();
      args.push_back(raw.substr(start, end - start));
      start = end + 1;
    }
    auto s = std::find(args.begin(), args.end(), "-s");
    if (s != args.end() && s + 1 != args.end()) args.erase(s, s + 2);
    return args;
  }

  static bool Has(const std::vector<std::string>& args, const std::string& arg) {
    return std::find(args.begin(), args.end(), arg) != args.end();
  }

  void StartBridge(uint32_t vnet) {
    ASSERT_TRUE(PLRServiceStart(vnet, PLR_SERVICE_BRIDGE));
    ASSERT_NE(BridgePid(vnet), 0) << "bridge daemon of vnet " << vnet;
  }
};

TEST_F(Bridge, DefaultBridgeGetsUnmappedHostAdaptersAndItsExplicitMappings) {
  Load("add_bridge_mapping eth1 2\nadd_bridge_mapping wlan9 0\nadd_bridge_mapping kavix3 4\n");
  EXPECT_EQ(Bridged(0), (std::map<std::string, uint32_t>{{"eth0", 0}, {"wlan9", 0}}));
  EXPECT_EQ(Bridged(2), (std::map<std::string, uint32_t>{{"eth1", 2}}));
  EXPECT_TRUE(Bridged(5).empty());
  // Every mapping plus every host adapter with its effective vnet, each once.
  EXPECT_EQ(Bridged(PLR_VNET_ALL), (std::map<std::string, uint32_t>{
                                       {"eth0", 0}, {"eth1", 2}, {"wlan9", 0}, {"kavix3", 4}}));
  EXPECT_EQ(EffectiveVnet("eth0"), 0u);
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
}

TEST_F(Bridge, WithoutDefaultBridgeOnlyExplicitMappingsCount) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\nadd_bridge_mapping wlan9 0\n");
  EXPECT_EQ(Bridged(0), (std::map<std::string, uint32_t>{{"wlan9", 0}}));
  EXPECT_EQ(EffectiveVnet("eth0"), PLR_VNET_NONE);
  EXPECT_EQ(Bridged(PLR_VNET_ALL)["eth0"], PLR_VNET_NONE);
}

TEST_F(Bridge, SettingManyMappingsGoesOnAfterAFailureAndReportsIt) {
  Load();
  EXPECT_TRUE(PLRSetBridgeMappingForMultipleAdapters(3, nullptr));
  PLR_HostAdapter a = AdapterNamed("eth0"), b = AdapterNamed("eth1");
  a.next = &b;
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);  // the first record cannot be appended
  EXPECT_FALSE(PLRSetBridgeMappingForMultipleAdapters(3, &a));
  sys::ClearFaults();
  EXPECT_EQ(EffectiveVnet("eth0"), 0u);
  EXPECT_EQ(EffectiveVnet("eth1"), 3u);
}

TEST_F(Bridge, HostAdapterListIsOneBlockWithoutKavixAdapters) {
  Load("add_bridge_mapping eth1 2\nadd_bridge_mapping wlan9 -1\nadd_bridge_mapping kavix3 4\n");
  PLR_HostAdapterList* list = nullptr;
  ASSERT_TRUE(PLR_GetHostAdapterList(1, &list));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->version, 1u);
  ASSERT_EQ(list->count, 3u);
  // The elements follow the header in the same block, chained in order.
  auto* slots = reinterpret_cast<PLR_HostAdapter*>(list + 1);
  EXPECT_EQ(list->first, &slots[0]);
  std::map<std::string, const PLR_HostAdapter*> byName;
  const PLR_HostAdapter* e = list->first;
  for (uint32_t i = 0; i < list->count; ++i, e = e->next) {
    ASSERT_EQ(e, &slots[i]);
    EXPECT_EQ(e->netId.version, 1u);
    EXPECT_EQ(e->netId.netType, 1u);
    byName[e->name] = e;
  }
  EXPECT_EQ(e, nullptr);
  ASSERT_EQ(byName.count("eth0") + byName.count("eth1") + byName.count("wlan9"), 3u);
  EXPECT_EQ(byName["eth0"]->netId.vnet, 0u);
  EXPECT_EQ(byName["eth0"]->status, 2u);
  EXPECT_STREQ(byName["eth0"]->driverName, "tun");
  EXPECT_EQ(byName["eth1"]->netId.vnet, 2u);
  EXPECT_EQ(byName["wlan9"]->netId.vnet, PLR_VNET_NONE);
  EXPECT_EQ(byName["wlan9"]->status, 0u) << "known only from the database";
  PLR_FreeHostAdapterList(list);
}

TEST_F(Bridge, HostAdapterListArgumentsAndEmptyHost) {
  Ip("link del eth0");
  Ip("link del eth1");
  Ip("link del kavix1");
  Load();
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetHostAdapterList(2, &list));
  EXPECT_FALSE(PLR_GetHostAdapterList(1, nullptr));
  ASSERT_TRUE(PLR_GetHostAdapterList(1, &list));
  EXPECT_EQ(list->count, 0u);
  EXPECT_EQ(list->first, nullptr);
  PLR_FreeHostAdapterList(list);
}

TEST(BridgeUnloaded, FreeingNullListNeedsNoLibraryAndExportsAreRefused) {
  PLR_FreeHostAdapterList(nullptr);
  PLR_NetworkID id = Net(0);
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id));
  PLR_HostAdapterList* list = nullptr;
  EXPECT_FALSE(PLR_GetHostAdapterList(1, &list));
  EXPECT_EQ(list, nullptr);
}

TEST_F(Bridge, GetDefaultNetworkChecksRecordVersion) {
  Load("answer PLR_DEFAULT_BRIDGE_VNET -1\n");
  PLR_NetworkID id{1, 7, 99};
  ASSERT_TRUE(PLR_GetBridgeDefaultNetwork(&id));
  EXPECT_EQ(id.netType, 1u);
  EXPECT_EQ(id.vnet, PLR_VNET_NONE);
  id.version = 2;
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(&id));
  EXPECT_FALSE(PLR_GetBridgeDefaultNetwork(nullptr));
}

TEST_F(Bridge, OnlyVnetZeroOrNoneCanBeDefaultAndSameValueChangesNothing) {
  Load();
  const std::string before = Database();
  PLR_NetworkID three = Net(3);
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&three));
  PLR_NetworkID zero = Net(0);
  EXPECT_TRUE(PLR_SetBridgeDefaultNetwork(&zero));
  PLR_NetworkID wrongType{1, 2, 0};
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&wrongType));
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(nullptr));
  EXPECT_EQ(Database(), before);
}

TEST_F(Bridge, DroppingDefaultBridgePinsItsAdaptersAndRestartsItsDaemon) {
  Load("add_bridge_mapping eth1 2\n");
  StartBridge(0);
  const pid_t oldPid = BridgePid(0);
  EXPECT_TRUE(Has(BridgeArgs(0), "-eeth1"));
  PLR_NetworkID none = Net(PLR_VNET_NONE);
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&none));
  EXPECT_EQ(DefaultBridge(), PLR_VNET_NONE);
  EXPECT_EQ(EffectiveVnet("eth0"), 0u) << "eth0 stays on vnet 0 by an explicit mapping";
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
  EXPECT_NE(Database().find("add_bridge_mapping eth0 0\n"), std::string::npos);
  EXPECT_NE(Database().find("answer PLR_DEFAULT_BRIDGE_VNET -1\n"), std::string::npos);
  // Vnet 0 is no longer the default: its daemon now includes what it bridges.
  EXPECT_NE(BridgePid(0), oldPid);
  const auto args = BridgeArgs(0);
  EXPECT_TRUE(Has(args, "-ieth0"));
  EXPECT_FALSE(Has(args, "-eeth1"));
  EXPECT_FALSE(Has(args, "-ikavix1"));

  // Back to vnet 0: the adapters bridged to nothing join it explicitly.
  ASSERT_TRUE(PLRSetBridgeMappingForAdapter("wlan9", PLR_VNET_NONE));
  PLR_NetworkID zero = Net(0);
  ASSERT_TRUE(PLR_SetBridgeDefaultNetwork(&zero));
  EXPECT_EQ(DefaultBridge(), 0u);
  EXPECT_EQ(EffectiveVnet("wlan9"), 0u);
}

TEST_F(Bridge, FailedRestartRestoresDefaultBridgeMappingsAndDaemon) {
  Load("add_bridge_mapping eth1 2\n");
  StartBridge(0);
  const auto argsBefore = BridgeArgs(0);
  sys::FailNth(sys::Op::kFork, 1, EAGAIN);  // the restart of vnet 0's daemon
  PLR_NetworkID none = Net(PLR_VNET_NONE);
  EXPECT_FALSE(PLR_SetBridgeDefaultNetwork(&none));
  sys::ClearFaults();
  EXPECT_EQ(DefaultBridge(), 0u);
  EXPECT_EQ(EffectiveVnet("eth0"), 0u);
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
  // The daemon that ran before runs again, with the restored settings.
  EXPECT_EQ(BridgeArgs(0), argsBefore);
  // A reload reads the same state from the journal.
  PLR_Unload();
  ASSERT_TRUE(PLR_Load(false));
  EXPECT_EQ(DefaultBridge(), 0u);
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
}

TEST_F(Bridge, MoveAdapterToAnotherVnetRestartsBothBridgeDaemons) {
  Load("add_bridge_mapping eth1 2\n");
  StartBridge(0);
  StartBridge(2);
  EXPECT_TRUE(Has(BridgeArgs(2), "-ieth1"));
  EXPECT_TRUE(Has(BridgeArgs(0), "-eeth1"));
  const PLR_HostAdapter eth0 = AdapterNamed("eth0");
  const PLR_NetworkID two = Net(2);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(EffectiveVnet("eth0"), 2u);
  EXPECT_EQ(EffectiveVnet("eth1"), 0u) << "a vnet keeps one bridged adapter";
  const auto args2 = BridgeArgs(2), args0 = BridgeArgs(0);
  EXPECT_TRUE(Has(args2, "-ieth0"));
  EXPECT_FALSE(Has(args2, "-ieth1"));
  EXPECT_TRUE(Has(args0, "-eeth0"));
  EXPECT_FALSE(Has(args0, "-eeth1"));
  for (const auto& arg : args0) EXPECT_EQ(arg.find("kavix1"), std::string::npos);
}

TEST_F(Bridge, FailedMoveLeavesMappingsDefaultAndDaemonsAsBefore) {
  Load("add_bridge_mapping eth1 2\n");
  StartBridge(0);
  StartBridge(2);
  const auto args0 = BridgeArgs(0), args2 = BridgeArgs(2);
  const std::string journalBefore = Database();
  // Fork 1 restarts vnet 2's daemon; fork 2, vnet 0's, fails.
  sys::FailNth(sys::Op::kFork, 2, EAGAIN);
  const PLR_HostAdapter eth0 = AdapterNamed("eth0");
  const PLR_NetworkID two = Net(2);
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  sys::ClearFaults();
  EXPECT_EQ(EffectiveVnet("eth0"), 0u);
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
  EXPECT_EQ(DefaultBridge(), 0u);
  EXPECT_EQ(Bridged(2), (std::map<std::string, uint32_t>{{"eth1", 2}}));
  EXPECT_EQ(BridgeArgs(0), args0);
  EXPECT_EQ(BridgeArgs(2), args2);
  // Only records were appended; the journal replays to the old mappings.
  EXPECT_EQ(Database().compare(0, journalBefore.size(), journalBefore), 0);
}

TEST_F(Bridge, MoveChecksArgumentsAndSource) {
  Load("add_bridge_mapping eth1 2\n");
  const std::string before = Database();
  PLR_HostAdapter eth0 = AdapterNamed("eth0");
  const PLR_NetworkID two = Net(2), five = Net(5), zero = Net(0);
  const PLR_NetworkID badType{1, 2, 2};
  EXPECT_FALSE(PLR_BridgeMoveAdapter(nullptr, nullptr, &two));
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, nullptr, &badType));
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, &badType, &two));
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, &five, &two));
  // Already where it is asked to go (the default bridge when no destination).
  EXPECT_TRUE(PLR_BridgeMoveAdapter(&eth0, &zero, nullptr));
  eth0.version = 2;
  EXPECT_FALSE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(Database(), before);

  // To nothing, and from nothing back to the default bridge.
  const PLR_HostAdapter eth1 = AdapterNamed("eth1");
  const PLR_NetworkID none = Net(PLR_VNET_NONE);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, nullptr, &none));
  EXPECT_EQ(EffectiveVnet("eth1"), PLR_VNET_NONE);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth1, &none, nullptr));
  EXPECT_EQ(EffectiveVnet("eth1"), 0u);
}

TEST_F(Bridge, ReadOnlyDatabaseMovesInCacheOnlyAndTouchesNoDaemon) {
  WriteProductConfig();
  WriteDatabase("add_bridge_mapping eth1 2\n");
  ASSERT_TRUE(PLR_Load(false));
  StartBridge(2);
  const pid_t pid2 = BridgePid(2);
  PLR_Unload();
  ASSERT_TRUE(PLR_Load(true));
  const std::string before = Database();
  const PLR_HostAdapter eth0 = AdapterNamed("eth0");
  const PLR_NetworkID two = Net(2);
  ASSERT_TRUE(PLR_BridgeMoveAdapter(&eth0, nullptr, &two));
  EXPECT_EQ(EffectiveVnet("eth0"), 2u);
  EXPECT_EQ(BridgePid(2), pid2);
  EXPECT_EQ(Database(), before);
}

TEST_F(Bridge, RemovingMappingsHandsAdaptersToDefaultBridge) {
  Load("add_bridge_mapping eth1 2\nadd_bridge_mapping wlan9 2\n");
  StartBridge(0);
  const pid_t pid0 = BridgePid(0);
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(2));
  EXPECT_EQ(EffectiveVnet("eth1"), 0u);
  EXPECT_EQ(EffectiveVnet("wlan9"), 0u);
  EXPECT_TRUE(Bridged(2).empty());
  EXPECT_NE(BridgePid(0), pid0) << "the default bridge's daemon is restarted";
  EXPECT_FALSE(Has(BridgeArgs(0), "-eeth1"));
}

TEST_F(Bridge, RemovingMappingsOfDefaultBridgeLeavesNoDefault) {
  Load("add_bridge_mapping eth1 2\n");
  ASSERT_TRUE(PLRRemoveBridgeMappingsForVnet(0));
  EXPECT_EQ(DefaultBridge(), PLR_VNET_NONE);
  EXPECT_EQ(EffectiveVnet("eth0"), PLR_VNET_NONE);
  EXPECT_EQ(EffectiveVnet("eth1"), 2u);
  EXPECT_NE(Database().find("add_bridge_mapping eth0 -1\n"), std::string::npos);
}

}  // namespace
}  // namespace plr::test
