// What the per-vnet API layer alone does: argument checks, the refusal when
// not loaded, the database lock around every writer, the outcome of each
// call after a fresh read, buffer length rules, and the undo of a subnet the
// call assigned itself. Vnet names are parsed (and tested) in vnet; write
// failures at every position are the fault loop's (tests/faults).
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/vnet_util.h"

namespace plr::test {
namespace {

using svc::LogHas;

constexpr const char* kSeed =
    "answer VNET_1_HOSTONLY_SUBNET 192.168.1.0\nanswer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n"
    "answer VNET_1_DISPLAY_NAME Lab network\nanswer VNET_1_DHCP yes\nanswer VNET_1_NAT yes\nanswer "
    "VNET_1_MTU 1500\n";

// VNET_<vnet>_<key> as a fresh load of the database file has it.
std::string Stored(uint32_t vnet, const std::string& key) {
  PLRNetworkConfigurationDB* db = nullptr;
  if (!PLRNetCfgLoad(kDatabasePath, &db, false, true)) return "<load failed>";
  const char* value = nullptr;
  const std::string name = "VNET_" + std::to_string(vnet) + "_" + key;
  std::string out = PLRNetCfgGetAnswerString(db, name.c_str(), &value) ? value : "<absent>";
  PLRNetCfgUnload(&db, false);
  return out;
}

char gBuf[256];
uint32_t gLen, gLen2, gOffset;
uint16_t gPort;
bool gFlag;

struct Call {
  const char* name;
  std::function<bool()> call;
  std::function<bool()> done;  // the outcome, read back after a successful call
};

#define CALL(name, expr, outcome)                           \
  Call {                                                    \
#name, [] { return name expr; }, [] { return outcome; } \
  }

// Every writer with valid arguments, and how its effect shows.
std::vector<Call> Writers() {
  return {
      CALL(PLR_SetVnetDisplayName, ("kavix1", "New"), Stored(1, "DISPLAY_NAME") == "New"),
      CALL(PLR_SetVnetSubnetAddr, ("kavix1", "10.2.3.0"),
           Stored(1, "HOSTONLY_SUBNET") == "10.2.3.0"),
      CALL(PLR_SetVnetSubnetMask, ("kavix1", nullptr), Stored(1, "HOSTONLY_NETMASK") == "<absent>"),
      CALL(PLR_SetVnetMTU, ("kavix1", 4294967295u), Stored(1, "MTU") == "4294967295"),
      CALL(PLR_RemoveMTU, ("kavix1"), Stored(1, "MTU") == "<absent>"),
      CALL(PLR_AssignSubnetAddressToVnet, ("kavix1", true),
           Stored(1, "HOSTONLY_SUBNET") != "192.168.1.0"),
      CALL(PLR_SetNATPrefix, ("kavix1", "fd00::/64", "d", 1),
           PLR_GetNATPrefix("kavix1", "fd00::/64", nullptr, nullptr)),
      CALL(PLR_SetVnetUseDHCP, ("kavix1", false, false), Stored(1, "DHCP") == "no"),
      CALL(PLR_SetVnetUseNAT, ("kavix2", true, false),
           Stored(2, "NAT") == "yes" && Stored(2, "HOSTONLY_SUBNET") != "<absent>"),
      CALL(PLR_SetDHCPParam, ("kavix1", PLR_DHCP_EXT_PARAM_ROUTERS, "192.168.1.2XYZ", 11),
           Stored(1, "DHCP_PARAM_ROUTERS") == "192.168.1.2"),
      CALL(PLR_SetNATParam, ("kavix1", PLR_NAT_EXT_PARAM_UDP_TIMEOUT, "90", 2),
           Stored(1, "NAT_PARAM_UDP_TIMEOUT") == "90"),
      CALL(PLR_SetDHCPIPToMAC, ("kavix1", "192.168.1.10", "0:50:56:AA:bb:1"),
           (gLen = 16, PLR_GetDHCPIPToMAC("kavix1", gBuf, &gLen, "00:50:56:aa:BB:01"))),
      CALL(PLR_SetNATPortForward, ("kavix1", true, 8080, "192.168.1.9", 80, "web!", 3),
           (gLen = 16, gLen2 = 128,
            PLR_GetNATPortForward("kavix1", true, 8080, gBuf, &gLen, &gPort, gBuf + 32, &gLen2) &&
                gPort == 80 && strcmp(gBuf + 32, "web") == 0)),
      CALL(PLR_SetVnetUseAdapter, ("kavix1", true, false), Stored(1, "VIRTUAL_ADAPTER") == "yes"),
      CALL(PLR_SetVnetAdapterAddr, ("kavix1", "192.168.1.200"),
           Stored(1, "VIRTUAL_ADAPTER_ADDR") == "192.168.1.200"),
      CALL(PLR_UpdateDHCPFromConfig, ("kavix1"), FileExists("/etc/tarsis/kavix1/dhcpd/dhcpd.conf")),
      CALL(PLR_UpdateNATFromConfig, ("kavix1"), FileExists("/etc/tarsis/kavix1/nat/nat.conf")),
  };
}

class ApiLayer : public LoadedLibraryTest {
 protected:
  void SetUp() override { SetPingRules(""); }  // every candidate subnet is free
};

TEST_F(ApiLayer, WritersChangeTheDatabaseUnderTheLockOnly) {
  for (const Call& w : Writers()) {
    SCOPED_TRACE(w.name);
    Load(kSeed);
    ASSERT_TRUE(PLRNetCfgLockConfig(nullptr));  // another writer holds it
    const std::string before = Database();
    EXPECT_FALSE(w.call());
    EXPECT_TRUE(LogHas(std::string(w.name) + " - Failed to obtain lock on vnet config"));
    EXPECT_EQ(Database(), before);
    PLRNetCfgUnlockConfig(nullptr);
    EXPECT_TRUE(w.call());
    EXPECT_TRUE(w.done());
    PLR_Unload();
    EXPECT_FALSE(w.call()) << "refused while not loaded";
  }
}

TEST_F(ApiLayer, ReadOnlyDatabaseChangesTheCacheOnly) {
  WriteProductConfig();
  WriteDatabase(kSeed);
  ASSERT_TRUE(PLR_Load(true));
  ASSERT_TRUE(PLR_SetVnetMTU("kavix1", 1400));
  EXPECT_STREQ(PLRGetVnetCfg(1, "MTU"), "1400");
  EXPECT_EQ(Stored(1, "MTU"), "1500");
}

// Each row fails on its argument alone: nothing is written, nothing returned.
TEST_F(ApiLayer, BadArgumentsAreRefused) {
  Load(kSeed);
  const char* v = "kavix1";
  const std::function<bool()> rows[] = {
      [&] { return PLR_SetVnetDisplayName(nullptr, "x"); },
      [&] { return PLR_SetVnetSubnetAddr(v, "300.1.1.0"); },
      [&] { return PLR_SetVnetSubnetMask(v, "255.0.255.0"); },
      [&] { return PLR_GetVnetMTU(v, nullptr); },
      [&] { return PLR_SetNATPrefix(v, "zz", nullptr, 0); },
      [&] { return PLR_SetNATPrefix(v, "fd00::/64", gBuf, 128); },
      [&] { return PLR_GetNATPrefix(v, "fd00::/64", gBuf, nullptr); },
      [&] { return PLR_GetUnusedSubnet(gBuf, 15, gBuf + 16, 16); },
      [&] { return PLR_GetUnusedSubnet(gBuf, 16, gBuf + 16, 15); },
      [&] { return PLR_CheckSubnetAvailability(v, true, 1, 1, nullptr); },
      [&] { return (gLen = 16, PLR_GetDHCPParam(v, 13352, true, gBuf, &gLen)); },
      [&] { return PLR_SetDHCPParam(v, 1, "1800", 4); },
      [&] { return PLR_SetDHCPParam(v, PLR_DHCP_EXT_PARAM_DNS_ADDR, "1.2.3", 5); },
      [&] { return PLR_SetNATParam(v, 9028, "1", 1); },
      [&] { return PLR_SetNATParam(v, PLR_NAT_EXT_PARAM_ACTIVE_FTP, "2", 1); },
      [&] { return PLR_SetDHCPIPToMAC(v, "192.168.1.999", "00:50:56:01:02:03"); },
      [&] { return PLR_SetDHCPIPToMAC(v, "192.168.1.9", "00:50:56:01:02"); },
      [&] { return (gLen = 15, PLR_GetDHCPIPToMAC(v, gBuf, &gLen, "00:50:56:01:02:03")); },
      [&] { return (gLen = 16, PLR_EnumDHCPIPToMAC(v, &gOffset, gBuf, &gLen, gBuf, nullptr)); },
      [&] {
        return (gLen = 16, gLen2 = 17, PLR_EnumDHCPIPToMAC(v, &gOffset, gBuf, &gLen, gBuf, &gLen2));
      },
      [&] { return PLR_SetNATPortForward(v, true, 0, "192.168.1.9", 80, nullptr, 0); },
      [&] { return PLR_SetNATPortForward(v, true, 8080, "192.168.1", 80, nullptr, 0); },
      [&] { return PLR_SetNATPortForward(v, false, 8080, "192.168.1.9", 0, nullptr, 0); },
      [&] { return PLR_SetNATPortForward(v, true, 8080, "192.168.1.9", 80, gBuf, 128); },
      [&] { return (gLen = 15, PLR_GetNATPortForward(v, true, 80, gBuf, &gLen, &gPort, 0, 0)); },
      [&] { return (gLen = 16, PLR_GetNATPortForward(v, true, 80, gBuf, &gLen, nullptr, 0, 0)); },
      [&] {
        return (gLen = 15, PLR_EnumNATPortForward(v, true, &gOffset, &gPort, gBuf, &gLen, &gPort,
                                                  nullptr, nullptr));
      },
      [&] { return PLR_SetVnetAdapterAddr(v, "1.2.3"); },
      [&] { return PLR_GetVnetAdapterStatus(v, &gFlag, nullptr); },
      [&] { return PLR_StartService(v, 0x8805u); },
      [&] { return PLR_StopService(v, 0x8800u); },
      [&] { return PLR_GetServiceStatus(v, 0u) != PLR_SERVICE_STATUS_UNKNOWN; },
      [&] { return PLR_CreateKavixDevice(nullptr); },
  };
  const std::string before = Database();
  for (size_t i = 0; i < std::size(rows); ++i) {
    gOffset = 0;
    EXPECT_FALSE(rows[i]()) << "row " << i;
  }
  EXPECT_EQ(Database(), before);
}

// The display name reports its length without the NUL, addresses with it;
// one byte short fails and leaves the length as it was.
TEST_F(ApiLayer, GetterLengthRules) {
  Load(kSeed);
  using Getter = bool (*)(const char*, char*, uint32_t*);
  const struct {
    Getter get;
    uint32_t minimum;
    const char* text;
    uint32_t reported;
  } rows[] = {
      {PLR_GetVnetDisplayName, 128, "Lab network", 11},
      {PLR_GetVnetSubnetAddr, 16, "192.168.1.0", 12},
      {PLR_GetVnetSubnetMask, 16, "255.255.255.0", 14},
      {[](const char* v, char* b, uint32_t* l) { return PLR_GetVnetAdapterAddr(v, b, l, true); },
       16, "192.168.1.1", 12},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.text);
    uint32_t len = r.minimum - 1;
    EXPECT_FALSE(r.get("kavix1", gBuf, &len));
    EXPECT_EQ(len, r.minimum - 1);
    len = r.minimum;
    ASSERT_TRUE(r.get("KAVIX1", gBuf, &len));
    EXPECT_STREQ(gBuf, r.text);
    EXPECT_EQ(len, r.reported);
    len = r.minimum;
    EXPECT_FALSE(r.get("kavix2", gBuf, &len)) << "nothing stored for vnet 2";
    EXPECT_EQ(len, r.minimum);
  }
  uint32_t len = 16;
  EXPECT_FALSE(PLR_GetVnetAdapterAddr("kavix1", gBuf, &len, false)) << "no stored address";
  char value[16];
  len = sizeof value;
  ASSERT_TRUE(PLR_GetDHCPParam("kavix1", PLR_DHCP_EXT_PARAM_LEASE_BEGIN_IP, true, value, &len));
  EXPECT_STREQ(value, "192.168.1.128");
  len = sizeof value;
  ASSERT_TRUE(PLR_GetNATParam("kavix1", PLR_NAT_EXT_PARAM_GATEWAY_IP, true, value, &len));
  EXPECT_STREQ(value, "192.168.1.2");
  EXPECT_EQ(len, 12u);
}

// Every candidate answers the ping: the switch fails and leaves no subnet; a
// subnet the vnet had before stays.
TEST_F(ApiLayer, FailedAssignmentIsUndone) {
  Load("answer VNET_1_DISPLAY_NAME One\n");
  SetPingRules("* 0\n");
  const std::string before = Database();
  EXPECT_FALSE(PLR_SetVnetUseDHCP("kavix1", true, false));
  EXPECT_FALSE(PLR_SetVnetUseNAT("kavix1", true, false));
  EXPECT_FALSE(PLR_SetVnetUseAdapter("kavix1", true, false));
  EXPECT_FALSE(PLR_AssignSubnetAddressToVnet("kavix1", false));
  EXPECT_EQ(Database(), before);
  EXPECT_FALSE(PLR_GetVnetUseDHCP("kavix1"));
  bool available = true;
  EXPECT_FALSE(PLR_CheckSubnetAvailability("kavix1", false, 1, 1, &available)) << "no subnet";
}

TEST_F(ApiLayer, SameStatusKeepsSettingsUnlessCleanupIsAsked) {
  Load(std::string(kSeed) + "answer VNET_1_DHCP_PARAM_LEASE_START_IP 192.168.1.100\n");
  const std::string before = Database();
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, false));
  EXPECT_EQ(Database(), before);
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", true, true));
  EXPECT_EQ(Stored(1, "DHCP_PARAM_LEASE_START_IP"), "<absent>");
  ASSERT_TRUE(PLR_SetVnetUseDHCP("kavix1", false, false));
  EXPECT_EQ(Stored(1, "HOSTONLY_SUBNET"), "192.168.1.0") << "switching off keeps the subnet";
  SetPingRules("192.168.1.1 0\n");
  bool available = true;
  ASSERT_TRUE(PLR_CheckSubnetAvailability("kavix1", false, 1, 1, &available));
  EXPECT_FALSE(available);
}

// Enumeration visits each record once, then fails; offsets count the visits.
TEST_F(ApiLayer, EnumerationsVisitEachRecordOnce) {
  Load(kSeed);
  for (uint16_t port = 1000; port < 1005; ++port)
    ASSERT_TRUE(PLR_SetNATPortForward("kavix1", true, port, "192.168.1.50", port, "d", 1));
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.10", "00:50:56:aa:bb:01"));
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", "192.168.1.11", "00:50:56:aa:bb:02"));
  ASSERT_TRUE(PLR_SetDHCPIPToMAC("kavix1", nullptr, "00:50:56:aa:bb:02"));  // removes
  std::set<uint16_t> ports;
  uint32_t offset = 0;
  uint16_t host, vm;
  while ((gLen = 16, PLR_EnumNATPortForward("kavix1", true, &offset, &host, gBuf, &gLen, &vm,
                                            nullptr, nullptr))) {
    EXPECT_EQ(host, vm);
    ports.insert(host);
  }
  EXPECT_EQ(ports.size(), 5u);
  EXPECT_EQ(offset, 5u);
  offset = 0;
  std::set<std::string> macs;
  while ((gLen = 16, gLen2 = 18,
          PLR_EnumDHCPIPToMAC("kavix1", &offset, gBuf, &gLen, gBuf + 32, &gLen2))) {
    EXPECT_EQ(gLen, strlen(gBuf) + 1);
    macs.insert(gBuf + 32);
  }
  EXPECT_EQ(macs, std::set<std::string>{"00:50:56:AA:BB:01"});
  offset = 0;
  EXPECT_FALSE(
      PLR_EnumNATPortForward("kavix1", false, &offset, &host, gBuf, &gLen, &vm, nullptr, nullptr));
}

TEST_F(ApiLayer, KavixDeviceAndServiceRefusals) {
  Load(kSeed);
  ASSERT_TRUE(PLR_CreateKavixDevice("kavix7"));
  EXPECT_TRUE(FileExists("/dev/kavix7"));
  ASSERT_TRUE(PLR_DeleteKavixDevice("KAVIX7"));
  EXPECT_FALSE(FileExists("/dev/kavix7"));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), PLR_SERVICE_STOPPED);
  EXPECT_FALSE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_DHCP)) << "no dhcpd.conf yet";
  EXPECT_FALSE(PLR_StartService("kavix2", PLR_SERVICE_TYPE_NAT)) << "NAT on vnet 2 is not configured";
  WriteFile("/var/run/kavix-natd-1.pid", std::to_string(getpid()) + "\n");
  EXPECT_FALSE(PLR_UpdateNATFromConfig("kavix1")) << "refused while the daemon runs";
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix1/nat/nat.conf"));
  bool installed = true, enabled = true;
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_FALSE(installed || enabled);
  EXPECT_TRUE(PLR_DisableNetworkAdapter("kavix1")) << "no interface: nothing to do";
}

// The host-only adapter on a veth named kavix1: enabling starts netifup and
// brings the interface up; a failed enable stops only the netifup it started.
TEST_F(ApiLayer, HostOnlyAdapterStartsAndStopsNetifup) {
  Load(std::string(kSeed) + "answer VNET_1_VIRTUAL_ADAPTER yes\n");
  const char* pidFile = "/var/run/kavix-netifup-kavix1.pid";
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1")) << "no interface yet";
  EXPECT_FALSE(FileExists(pidFile)) << "the netifup it started is stopped again";
  ASSERT_EQ(plr::test::Run("ip link add kavix1 type veth peer name kavix1p"), 0);
  ASSERT_TRUE(PLR_EnableNetworkAdapter("kavix1"));
  const pid_t netifup = svc::PidInFile(pidFile);
  EXPECT_TRUE(svc::ProcessAlive(netifup));
  EXPECT_NE(Capture("ip -o -4 addr show dev kavix1").find("inet 192.168.1.1/24"),
            std::string::npos);
  bool installed = false, enabled = false;
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_TRUE(installed && enabled);
  ASSERT_TRUE(PLR_DisableNetworkAdapter("kavix1"));
  EXPECT_TRUE(svc::WaitFor([&] { return !svc::ProcessAlive(netifup); }, 2000));
  ASSERT_TRUE(PLR_GetVnetAdapterStatus("kavix1", &installed, &enabled));
  EXPECT_FALSE(enabled);
  ASSERT_EQ(plr::test::Run("ip link del kavix1"), 0);
  ASSERT_TRUE(PLR_StartService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
  const pid_t running = svc::PidInFile(pidFile);
  EXPECT_FALSE(PLR_EnableNetworkAdapter("kavix1"));
  EXPECT_TRUE(svc::ProcessAlive(running)) << "a netifup that ran before is left alone";
  ASSERT_TRUE(PLR_StopService("kavix1", PLR_SERVICE_TYPE_NETIFUP));
}

}  // namespace
}  // namespace plr::test
