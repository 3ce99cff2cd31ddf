// The per-vnet API layer: argument checks, refusal when not loaded, the writer lock, outcomes.
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <set>
#include <tuple>

#include "pelorus.h"
#include "tests/support/services_util.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

constexpr const char* kSeed =
    "answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
    "answer VNET_1_DISPLAY_NAME Lab network\nanswer VNET_1_DHCP yes\nanswer VNET_1_NAT yes\n"
    "answer VNET_1_MTU 1500\nanswer VNET_4_VIRTUAL_ADAPTER yes\n";

// Whether VNET_<vnet>_<key> reads `want` ("<absent>") after a fresh load of the file.
bool Is(uint32_t vnet, const std::string& key, const std::string& want) {
  PLRNetworkConfigurationDB* db = nullptr;
  const char* value = nullptr;
  const std::string name = "VNET_" + std::to_string(vnet) + "_" + key;
  if (!PLRNetCfgLoad(kDatabasePath, &db, false, true)) return false;
  const bool is = (PLRNetCfgGetAnswerString(db, name.c_str(), &value) ? value : "<absent>") == want;
  PLRNetCfgUnload(&db, false);
  return is;
}

char gBuf[256];
uint32_t gLen, gLen2, gOffset;
uint16_t gPort;
bool gFlag;

// A writer with valid arguments, and how its effect shows after the call.
struct Call {
  const char* name;
  std::function<bool()> call, done;
};
#define CALL(f, args, outcome)                        \
  Call {                                              \
#f, [] { return f args; }, [] { return outcome; } \
  }

const Call kWriters[] = {
    CALL(PLR_SetVnetDisplayName, ("kavix1", "New"), Is(1, "DISPLAY_NAME", "New")),
    CALL(PLR_SetVnetSubnetAddr, ("kavix1", "10.2.3.0"), Is(1, "HOSTONLY_SUBNET", "10.2.3.0")),
    CALL(PLR_SetVnetSubnetMask, ("kavix1", nullptr), Is(1, "HOSTONLY_NETMASK", "<absent>")),
    CALL(PLR_SetVnetMTU, ("kavix1", 4294967295u), Is(1, "MTU", "4294967295")),
    CALL(PLR_RemoveMTU, ("kavix1"), Is(1, "MTU", "<absent>")),
    CALL(PLR_AssignSubnetAddressToVnet, ("kavix1", true), !Is(1, "HOSTONLY_SUBNET", "192.168.1.0")),
    CALL(PLR_SetNATPrefix, ("kavix1", "fd00::/64", "d", 1),
         PLR_GetNATPrefix("kavix1", "fd00::/64", 0, 0)),
    CALL(PLR_SetVnetUseDHCP, ("kavix1", false, false), Is(1, "DHCP", "no")),
    CALL(PLR_SetVnetUseNAT, ("kavix2", true, false),
         Is(2, "NAT", "yes") && !Is(2, "HOSTONLY_SUBNET", "<absent>")),
    CALL(PLR_SetDHCPParam, ("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, "192.168.1.2XYZ", 11),
         Is(1, "DHCP_PARAM_ROUTERS", "192.168.1.2")),
    CALL(PLR_SetNATParam, ("kavix1", PLR_NAT_EXT_PARAM_UDP_TIMEOUT, "90", 2),
         Is(1, "NAT_PARAM_UDP_TIMEOUT", "90")),
    CALL(PLR_SetDHCPIPToMAC, ("kavix1", "192.168.1.10", "0:50:56:AA:bb:1"),
         (gLen = 16, PLR_GetDHCPIPToMAC("kavix1", gBuf, &gLen, "00:50:56:aa:BB:01"))),
    CALL(PLR_SetNATPortForward, ("kavix1", true, 8080, "192.168.1.9", 80, "web!", 3),
         (gLen = 16, gLen2 = 128,
          PLR_GetNATPortForward("kavix1", true, 8080, gBuf, &gLen, &gPort, gBuf + 32, &gLen2) &&
              gPort == 80 && strcmp(gBuf + 32, "web") == 0)),
    CALL(PLR_SetVnetUseAdapter, ("kavix1", true, false), Is(1, "VIRTUAL_ADAPTER", "yes")),
    CALL(PLR_SetVnetAdapterAddr, ("kavix1", "192.168.1.200"),
         Is(1, "VIRTUAL_ADAPTER_ADDR", "192.168.1.200")),
    CALL(PLR_UpdateDHCPFromConfig, ("kavix1"), FileExists("/etc/tarsis/kavix1/dhcpd/dhcpd.conf")),
    CALL(PLR_UpdateNATFromConfig, ("kavix1"), FileExists("/etc/tarsis/kavix1/nat/nat.conf")),
    // No adapter configured: the update retires nothing and succeeds.
    CALL(PLR_UpdateAdapterFromConfig, ("kavix2"), Is(2, "VIRTUAL_ADAPTER", "<absent>")),
    // Configured but absent (no such device here): nothing to update, success.
    CALL(PLR_UpdateAdapterFromConfig, ("kavix4"), Is(4, "VIRTUAL_ADAPTER", "yes")),
};

class ApiLayer : public LoadedLibraryTest {
 protected:
  void SetUp() override { SetPingRules(""); }  // every candidate subnet is free
};

TEST_F(ApiLayer, WritersChangeTheDatabaseUnderTheLockOnly) {
  for (const Call& w : kWriters) {
    SCOPED_TRACE(w.name);
    Load(kSeed);
    ASSERT_TRUE(PLRNetCfgLockConfig(nullptr));  // another writer holds it
    const std::string before = Database();
    EXPECT_FALSE(w.call());
    EXPECT_EQ(Database(), before);
    PLRNetCfgUnlockConfig(nullptr);
    EXPECT_TRUE(w.call() && w.done());
    PLR_Unload();
    EXPECT_FALSE(w.call()) << "refused while not loaded";
  }
}

// Each call fails on its argument alone: nothing is written, nothing returned.
TEST_F(ApiLayer, BadArgumentsAreRefused) {
  Load(kSeed);
  const char* v = "kavix1";
  const std::string before = Database();
  const bool groups[] = {
      PLR_SetVnetDisplayName(nullptr, "x") || PLR_SetVnetDisplayName("kavix256", "x") ||
          PLR_SetVnetMTU("eth0", 1400) || PLR_RemoveMTU("kavix256") ||
          PLR_UpdateAdapterFromConfig("eth0") || PLR_SetVnetSubnetAddr(v, "300.1.1.0") ||
          PLR_SetVnetSubnetMask(v, "255.0.255.0") || PLR_GetVnetMTU(v, nullptr) ||
          PLR_SetVnetAdapterAddr(v, "1.2.3") || PLR_GetVnetAdapterStatus(v, &gFlag, nullptr),
      PLR_SetNATPrefix(v, "zz", nullptr, 0) || PLR_SetNATPrefix(v, "fd00::/64", gBuf, 128) ||
          PLR_GetNATPrefix(v, "fd00::/64", gBuf, nullptr),
      PLR_GetUnusedSubnet(gBuf, 15, gBuf + 16, 16) ||
          PLR_GetUnusedSubnet(gBuf, 16, gBuf + 16, 15) ||
          PLR_CheckSubnetAvailability(v, true, 1, 1, nullptr),
      (gLen = 16, PLR_GetDHCPParam(v, 13352, true, gBuf, &gLen)) ||
          PLR_SetDHCPParam(v, 1, "1800", 4) || PLR_SetNATParam(v, 9028, "1", 1),
      PLR_SetDHCPIPToMAC(v, "192.168.1.999", "00:50:56:01:02:03") ||
          PLR_SetDHCPIPToMAC(v, "192.168.1.9", "00:50:56:01:02") ||
          (gLen = 15, PLR_GetDHCPIPToMAC(v, gBuf, &gLen, "00:50:56:01:02:03")) ||
          (gLen = 16, gOffset = 0, PLR_EnumDHCPIPToMAC(v, &gOffset, gBuf, &gLen, gBuf, nullptr)) ||
          (gLen = 16, gLen2 = 17, PLR_EnumDHCPIPToMAC(v, &gOffset, gBuf, &gLen, gBuf, &gLen2)) ||
          (gLen = 16, gLen2 = 18, gOffset = 0,
           PLR_EnumDHCPIPToMAC("kavix256", &gOffset, gBuf, &gLen, gBuf + 32, &gLen2)),
      PLR_SetNATPortForward(v, true, 0, "192.168.1.9", 80, nullptr, 0) ||
          PLR_SetNATPortForward(v, true, 8080, "192.168.1", 80, nullptr, 0) ||
          PLR_SetNATPortForward(v, false, 8080, "192.168.1.9", 0, nullptr, 0) ||
          PLR_SetNATPortForward(v, true, 8080, "192.168.1.9", 80, gBuf, 128),
      (gLen = 15, PLR_GetNATPortForward(v, true, 80, gBuf, &gLen, &gPort, 0, 0)) ||
          (gLen = 16, PLR_GetNATPortForward(v, true, 80, gBuf, &gLen, nullptr, 0, 0)) ||
          (gLen = 15, PLR_EnumNATPortForward(v, true, &gOffset, &gPort, gBuf, &gLen, &gPort, 0, 0)),
      PLR_StartService(v, 0x8805u) || PLR_StopService(v, 0x8800u) ||
          PLR_GetServiceStatus(v, 0u) != PLR_SERVICE_STATUS_UNKNOWN ||
          PLR_CreateKavixDevice(nullptr),
  };
  for (size_t i = 0; i < std::size(groups); ++i) EXPECT_FALSE(groups[i]) << "group " << i;
  EXPECT_EQ(Database(), before);
}

// Lengths: the display name's without the NUL, addresses' with it; too short or unset fails.
TEST_F(ApiLayer, GetterLengthRules) {
  Load(kSeed);
  using Getter = bool (*)(const char*, char*, uint32_t*);
  const std::tuple<Getter, uint32_t, const char*, uint32_t> rows[] = {
      {PLR_GetVnetDisplayName, 128, "Lab network", 11},
      {PLR_GetVnetSubnetAddr, 16, "192.168.1.0", 12},
      {PLR_GetVnetSubnetMask, 16, "255.255.255.0", 14},
      {[](const char* v, char* b, uint32_t* l) { return PLR_GetVnetAdapterAddr(v, b, l, true); },
       16, "192.168.1.1", 12},
  };
  for (const auto& [get, minimum, text, reported] : rows) {
    SCOPED_TRACE(text);
    uint32_t len[] = {minimum - 1, minimum, minimum};
    EXPECT_FALSE(get("kavix1", gBuf, &len[0]) || get("kavix2", gBuf, &len[2]));
    ASSERT_TRUE(get("KAVIX1", gBuf, &len[1]));
    EXPECT_STREQ(gBuf, text);
    EXPECT_EQ(std::vector<uint32_t>(len, len + 3),
              (std::vector<uint32_t>{minimum - 1, reported, minimum}));
  }
  EXPECT_FALSE((gLen = 16, PLR_GetVnetAdapterAddr("kavix1", gBuf, &gLen, false))) << "none stored";
  ASSERT_TRUE(
      (gLen = 16, PLR_GetNATParam("kavix1", PLR_NAT_EXT_PARAM_GATEWAY_IP, true, gBuf, &gLen)));
  EXPECT_EQ(std::string(gBuf) + "/" + std::to_string(gLen), "192.168.1.2/12") << "the default";
}

// A switch keeps settings unless cleanup is asked; with no free subnet, switching on fails.
TEST_F(ApiLayer, SwitchesKeepSettingsOrUndoTheirSubnet) {
  Load(std::string(kSeed) +
       "answer VNET_1_DHCP_PARAM_LEASE_START_IP 192.168.1.100\n"
       "answer VNET_3_DISPLAY_NAME Three\n");
  const std::string before = Database();
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, false));
  SetPingRules("* 0\n");
  EXPECT_FALSE(PLR_SetVnetUseDHCP("kavix3", true, false) ||
               PLR_SetVnetUseNAT("kavix3", true, false) ||
               PLR_SetVnetUseAdapter("kavix3", true, false) ||
               PLR_AssignSubnetAddressToVnet("kavix3", false));
  EXPECT_EQ(Database(), before);
  EXPECT_FALSE(PLR_CheckSubnetAvailability("kavix3", false, 1, 1, &gFlag)) << "no subnet";
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, true));
  EXPECT_TRUE(Is(1, "DHCP_PARAM_LEASE_START_IP", "<absent>"));
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", false, false));
  EXPECT_TRUE(Is(1, "HOSTONLY_SUBNET", "192.168.1.0")) << "switching off keeps the subnet";
  SetPingRules("192.168.1.1 0\n");
  EXPECT_TRUE((gFlag = true, PLR_CheckSubnetAvailability("kavix1", false, 1, 1, &gFlag)) && !gFlag);
}

// Enumeration visits each record once, then fails; offsets count the visits.
TEST_F(ApiLayer, EnumerationsVisitEachRecordOnce) {
  Load(kSeed);
  for (uint16_t port = 1000; port < 1005; ++port)
    ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, port, "192.168.1.50", port, "d", 1));
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.10", "00:50:56:aa:bb:01") &&
              PLR_SetDHCPIPToMAC("kavix1", "192.168.1.11", "00:50:56:aa:bb:02") &&
              PLR_SetDHCPIPToMAC("kavix1", nullptr, "00:50:56:aa:bb:02"));  // removes
  std::set<uint16_t> ports;
  uint32_t offset = 0;
  uint16_t host, vm;
  while (
      (gLen = 16, PLR_EnumNATPortForward("kavix1", true, &offset, &host, gBuf, &gLen, &vm, 0, 0)))
    ports.insert(host == vm ? host : 0);
  EXPECT_EQ(ports, (std::set<uint16_t>{1000, 1001, 1002, 1003, 1004})) << offset;
  EXPECT_EQ(offset, 5u);
  std::set<std::string> macs;
  for (offset = 0; (gLen = 16, gLen2 = 18,
                   PLR_EnumDHCPIPToMAC("kavix1", &offset, gBuf, &gLen, gBuf + 32, &gLen2));)
    macs.insert(std::string(gBuf + 32) + (gLen == strlen(gBuf) + 1 ? "" : " bad length"));
  EXPECT_EQ(macs, std::set<std::string>{"00:50:56:AA:BB:01"});
  EXPECT_FALSE((offset = 0,
                PLR_EnumNATPortForward("kavix1", false, &offset, &host, gBuf, &gLen, &vm, 0, 0)));
}

// The device node follows the vnet name; nat.conf is kept under a running daemon.
TEST_F(ApiLayer, KavixDeviceAndRefusedNatRewrite) {
  Load(kSeed);
  EXPECT_TRUE(PLR_CreateKavixDevice("kavix7") && FileExists("/dev/kavix7"));
  EXPECT_TRUE(PLR_DeleteKavixDevice("KAVIX7") && !FileExists("/dev/kavix7"));
  ASSERT_TRUE(PLRServiceStart(1, PLR_SERVICE_NAT));
  EXPECT_FALSE(PLR_UpdateNATFromConfig("kavix1") || FileExists("/etc/tarsis/kavix1/nat/nat.conf"));
  EXPECT_TRUE(PLRServiceStop(1, PLR_SERVICE_NAT));
}

// Enabling the host-only adapter (a veth) starts netifup; a failure stops only one it started.
TEST_F(ApiLayer, HostOnlyAdapterStartsAndStopsNetifup) {
  Load(std::string(kSeed) + "answer VNET_1_VIRTUAL_ADAPTER yes\n");
  const char* pidFile = "/var/run/kavix-netifup-kavix1.pid";
  // Installed and enabled, as two digits.
  auto status = [] {
    bool installed = false, enabled = true;
    return PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled) ? installed * 10 + enabled : -1;
  };
  EXPECT_EQ(status(), 10) << "configured, no interface";
  EXPECT_TRUE(PLR_DisableNetworkAdapter("kavix1")) << "no interface: nothing to do";
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1") || FileExists(pidFile)) << "netifup stopped";
  ASSERT_EQ(plr::test::Run("ip link add kavix1 type veth peer name kavix1p"), 0);
  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1"));
  const pid_t netifup = PidInFile(pidFile);
  EXPECT_TRUE(ProcessAlive(netifup) && status() == 11);
  EXPECT_NE(Capture("ip -o -4 addr show dev kavix1").find("inet 192.168.1.1/24"),
            std::string::npos);
  ASSERT_TRUE(PLR_DisableNetworkAdapter("kavix1"));
  EXPECT_TRUE(WaitFor([&] { return !ProcessAlive(netifup); }, 2000));
  EXPECT_EQ(status(), 10);
  ASSERT_EQ(plr::test::Run("ip link del kavix1"), 0);
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
  const pid_t running = PidInFile(pidFile);
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1") || !ProcessAlive(running))
      << "a netifup that ran before is left alone";
}

}  // namespace
}  // namespace plr::test
