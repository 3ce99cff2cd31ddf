// Whole-database operations and feature queries, judged by file bytes, reads and daemons.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

constexpr const char* kBackup = "/tmp/backup";

std::string Get(const char* key) {
  const char* value = nullptr;
  return PLRNetCfgGetAnswerString(nullptr, key, &value) ? value : "<absent>";
}

int32_t Mapping(const char* adapter) {
  int32_t vnet = 999;
  return PLRNetCfgLookupVnetForHostAdapter(nullptr, adapter, &vnet) ? vnet : 999;
}

// PID of a running service daemon, 0 when it does not run.
pid_t ServicePid(uint32_t vnet, uint32_t service) {
  char* file = nullptr;
  if (!PLRGetPidFilename(vnet, service, &file, nullptr)) return 0;
  const pid_t pid = PidInFile(file);
  free(file);
  return ProcessAlive(pid) ? pid : 0;
}

TEST(WholeDatabaseFiles, CreateAndVersionCheck) {
  EXPECT_TRUE(PLRNetCfgCreateDB("/tmp/db", false) && PLRNetCfgCreateDB("/tmp/bk", true) &&
              ReadFile("/tmp/db") + ReadFile("/tmp/bk") == "VERSION=1,0\nBACKUP_VERSION=1,0\n");
  for (const char* ok : {"VERSION=1,0\n", "VERSION=1,7\nanswer A b\n", "VERSION=0,3"})
    EXPECT_TRUE((WriteFile("/tmp/v", ok), PLRNetCfgCheckVersion("/tmp/v"))) << ok;
  for (const char* bad : {"BACKUP_VERSION=1,0\n", "VERSION=2,0\n", "VERSION=1\n", "VERSIONX=1,0\n",
                          "answer VNET_1_DHCP yes\n", "", "VERSION=-1,0\n"})
    EXPECT_FALSE((WriteFile("/tmp/v", bad), PLRNetCfgCheckVersion("/tmp/v"))) << bad;
}

TEST(DatabaseApiUnloaded, CreateKeepsOlderDatabasesExistsAndDelete) {
  WriteProductConfig();
  EXPECT_FALSE(PLR_NetworkingDBExists() || PLR_CanReadNetworkingDB());
  WriteFile(kDatabasePath, "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  WriteFile("/etc/tarsis/networking.bak.0", "zero");
  EXPECT_FALSE(PLR_CreateNetworkingDB(false));
  ASSERT_TRUE(PLR_CreateNetworkingDB(true));
  EXPECT_EQ(ReadFile(kDatabasePath) + ReadFile("/etc/tarsis/networking.bak.1") +
                ReadFile("/etc/tarsis/networking.bak.0"),
            "VERSION=1,0\nVERSION=1,0\nanswer VNET_1_DHCP yes\nzero");
  EXPECT_TRUE(PLR_CanReadNetworkingDB());
  EXPECT_FALSE((WriteFile(kDatabasePath, "VERSION=3,0\n"), PLR_CanReadNetworkingDB()));
  EXPECT_TRUE(PLR_DeleteNetworkingDB() && !PLR_NetworkingDBExists() && PLR_DeleteNetworkingDB());
  WriteFile(kBackup, "BACKUP_VERSION=1,0\n");
  EXPECT_FALSE(PLR_ExportDatabaseToBuffer() != nullptr || PLR_DeleteVnetFromDatabase("kavix1") ||
               PLRNetCfgMergeConfig(kBackup))
      << "these need the library";
  EXPECT_FALSE(PLR_ImportDatabaseFromFile(nullptr)) << "no default export file yet";
  WriteFile("/tmp/networking_export", "BACKUP_VERSION=1,0\nanswer VNET_4_NAT yes\n");
  ASSERT_TRUE(PLR_ImportDatabaseFromFile(nullptr));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer VNET_4_NAT yes\n");
}

using WholeDatabase = LoadedLibraryTest;

// Exports are in the order of a compacted file; a compacting unload writes the buffer export.
TEST_F(WholeDatabase, ExportsAreSortedAndTouchNothing) {
  Load(
      "answer VNET_8_NAT yes\nanswer VNET_1_DISPLAY_NAME my net\n"
      "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
      "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
      "add_dhcp_mac_to_ip 8 02:7a:3e:2a:10:01 192.168.120.130\nadd_bridge_mapping eth0 0\n");
  const std::string before = Database();
  EXPECT_FALSE(PLR_CreateNetworkingDB(true) || PLR_DeleteNetworkingDB()) << "refused while loaded";
  ASSERT_TRUE(PLR_ExportDatabaseToFile(nullptr));
  EXPECT_EQ(ReadFile("/tmp/networking_export"),
            "BACKUP_VERSION=1,0\nanswer VNET_1_DISPLAY_NAME my net\nanswer VNET_8_NAT yes\n"
            "add_nat_portfwd 8 tcp 443 192.168.120.128 443 web server\n"
            "add_nat_portfwd 8 udp 53 192.168.120.128 53\n"
            "add_dhcp_mac_to_ip 8 02:7A:3E:2A:10:01 192.168.120.130\nadd_bridge_mapping eth0 0\n");
  EXPECT_FALSE(PLRNetCfgExportConfig(nullptr, "/tmp/exp2", 1) || FileExists("/tmp/exp2"))
      << "flags are reserved";
  EXPECT_EQ(Database(), before);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_2_MTU", "1400"));
  std::unique_ptr<char, decltype(&free)> text(PLR_ExportDatabaseToBuffer(), free);
  const std::string exported = text ? text.get() : "<failed>";
  EXPECT_NE(exported.find("answer VNET_2_MTU 1400\n"), std::string::npos);
  PLR_Unload();
  EXPECT_EQ(Database(), exported);
}

// An unreadable file changes nothing; a readable one replaces the database (kept as a backup),
// upgrading legacy fields and dropping what it cannot read.
TEST_F(WholeDatabase, ImportUpgradesLegacyFieldsAndDropsWhatItCannotRead) {
  Load("answer VNET_5_DHCP yes\n");
  const std::string old = Database(), n128(128, 'b');
  ASSERT_EQ(mkdir("/tmp/adir", 0755) | symlink("/tmp/nowhere", "/tmp/dangling"), 0);
  for (const char* head : {"BACKUP_VERSION=2,0\n", "BACKUP_VERSION=1\n", "BACKUP_VERSION=x,0\n"}) {
    WriteFile(kBackup, std::string(head) + "answer VNET_1_DHCP yes\n");
    EXPECT_FALSE(PLRNetCfgImportConfig(kBackup, kDatabasePath)) << head;
  }
  for (const char* path : {"/tmp/adir", "/tmp/dangling", "/tmp/missing"})
    EXPECT_FALSE(PLRNetCfgImportConfig(path, kDatabasePath)) << path;
  // A legacy host address that is no address stops the import.
  WriteFile(kBackup, "answer VNET_3_HOSTONLY_HOSTADDR 999.1.2.3\nanswer VNET_3_DHCP yes\n");
  EXPECT_FALSE(PLRNetCfgImportConfig(kBackup, kDatabasePath));
  EXPECT_TRUE(LogHas("Failed to update HOSTONLY_HOSTADDR record, aborting"));
  EXPECT_EQ(Database(), old);
  EXPECT_FALSE(FileExists("/etc/tarsis/networking.bak.0"));
  WriteFile(kBackup,
            "answer VNET_3_HOSTONLY_HOSTADDR 192.168.3.1\nanswer VNET_3_INTERFACE eth3\n"
            "answer VNET_4_HOSTONLY_HOSTADDR 10.1.2.3\nanswer VNET_4_HOSTONLY_NETMASK 255.255.0.0\n"
            "answer FOO bar\nanswer PLR_DEFAULT_NAT_VNET 8\nanswer VNET_300_DHCP yes\n"
            "answer VNET_1_BOGUS x\n"
            "answer VNET_6_DISPLAY_NAME office\nanswer VNET_2_DISPLAY_NAME " +
                n128 + "\nanswer VNET_2_INTERFACE " + n128 +
                "\nanswer\nanswer VNET_1_MTU\nfrobnicate VNET_1_MTU 9\n"
                "add_nat_portfwd 8 tcp 80 10.0.0.2 0\nadd_nat_portfwd 8 sctp 80 10.0.0.2 80\n"
                "add_dhcp_mac_to_ip 8 02:7a:zz:2a:10:01 10.0.0.9\nadd_bridge_mapping eth1 300\n" +
                std::string(3000, 'x') + "\nadd_nat_portfwd 8 TCP 8080 10.0.0.2 80\n");
  ASSERT_TRUE(PLRNetCfgImportConfig(kBackup, kDatabasePath));
  EXPECT_EQ(Get("VNET_3_HOSTONLY_SUBNET") + " " + Get("VNET_3_HOSTONLY_NETMASK") + " " +
                Get("VNET_3_VIRTUAL_ADAPTER_ADDR") + " " + Get("VNET_4_HOSTONLY_SUBNET"),
            "192.168.3.0 255.255.255.0 192.168.3.1 10.1.0.0");
  EXPECT_EQ(Get("VNET_6_DISPLAY_NAME") + " " + Get("PLR_DEFAULT_NAT_VNET"), "office 8");
  EXPECT_EQ(Mapping("eth3"), 3);
  for (const char* gone : {"VNET_3_HOSTONLY_HOSTADDR", "VNET_3_INTERFACE", "FOO", "VNET_300_DHCP",
                           "VNET_1_BOGUS", "VNET_5_DHCP", "VNET_2_DISPLAY_NAME", "VNET_1_MTU"})
    EXPECT_EQ(Get(gone), "<absent>") << gone;
  EXPECT_EQ(Mapping(n128.c_str()) + Mapping("eth1"), 2 * 999);
  char ip[16];
  uint16_t port = 0;
  EXPECT_TRUE(PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 8080, ip, 16, &port, nullptr, nullptr) &&
              !PLRNetCfgLookupNATPortFwd(nullptr, 8, true, 80, ip, 16, &port, nullptr, nullptr));
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.bak.0"), old);
  ASSERT_TRUE(PLRNetCfgAddAnswerString(nullptr, "VNET_9_MTU", "1280"));  // writes through
  EXPECT_NE(Database().find("answer VNET_9_MTU 1280\n"), std::string::npos);
  EXPECT_EQ(Database().rfind("VERSION=1,0\n", 0), 0u);
}

// A merge restarts NAT on a vnet whose forwards of a protocol differ in
// any way from the running ones: one more or one fewer, another address,
// port or description. The same forwards in another order are no change.
TEST_F(WholeDatabase, PortForwardsCompareEqualOnlyWhenTheSame) {
  Load("add_nat_portfwd 3 tcp 80 10.0.0.2 80 web\nadd_nat_portfwd 3 tcp 443 10.0.0.2 443\n");
  const std::string web = "add_nat_portfwd 3 tcp 80 10.0.0.2 80 web\n",
                    tls = "add_nat_portfwd 3 tcp 443 10.0.0.2 443\n";
  for (const auto& [forwards, differs] :
       {std::pair{tls + web, false},
        {web, true},
        {web + tls + "add_nat_portfwd 3 tcp 8080 10.0.0.2 80\n", true},
        {"add_nat_portfwd 3 tcp 80 10.0.0.2 80 www\n" + tls, true},
        {web + "add_nat_portfwd 3 tcp 443 10.0.0.3 443\n", true},
        {web + "add_nat_portfwd 3 tcp 443 10.0.0.2 8443\n", true},
        {std::string("answer VNET_3_NAT yes\n"), true}}) {
    WriteFile(kBackup, "BACKUP_VERSION=1,0\n" + forwards);
    PLRNetworkConfigurationDB* db = nullptr;
    ASSERT_TRUE(PLRNetCfgLoad(kBackup, &db, true, true)) << forwards;
    EXPECT_EQ(PLRNetCfgMergeConfigPortFwdCmpHash(db, true, 3), differs) << forwards;
    EXPECT_FALSE(PLRNetCfgMergeConfigPortFwdCmpHash(db, false, 3)) << "no UDP forwards either side";
    PLRNetCfgUnload(&db, false);
  }
}

// vnet 1 bridges eth1; vnet 2 bridges eth2 and runs NAT.
constexpr const char* kRunning =
    "BACKUP_VERSION=1,0\nadd_bridge_mapping eth1 1\nadd_bridge_mapping eth2 2\n"
    "answer VNET_2_NAT yes\nanswer VNET_2_HOSTONLY_SUBNET 192.168.2.0\n"
    "answer VNET_2_HOSTONLY_NETMASK 255.255.255.0\n";

// A merge restarts the daemons of changed vnets only; a failed start puts everything back.
TEST_F(WholeDatabase, MergeRestartsChangedVnetsOrPutsEverythingBack) {
  Load(kRunning + strlen("BACKUP_VERSION=1,0\n"));
  ASSERT_TRUE(PLRServiceStart(1, PLR_SERVICE_BRIDGE) && PLRServiceStart(2, PLR_SERVICE_BRIDGE) &&
              PLRServiceStart(2, PLR_SERVICE_NAT));
  const pid_t bridge1 = ServicePid(1, PLR_SERVICE_BRIDGE), nat2 = ServicePid(2, PLR_SERVICE_NAT);
  ASSERT_TRUE(bridge1 != 0 && nat2 != 0);
  std::string same = kRunning;  // the letter case of values does not count as a change
  WriteFile(kBackup, same.replace(same.find("NAT yes"), 7, "NAT YES"));
  const std::string before = Database();
  ASSERT_TRUE(PLRNetCfgMergeConfig(kBackup));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(ServicePid(2, PLR_SERVICE_NAT), nat2);
  // Starts: bridge 2, NAT 2, NAT 3, then the bridge of vnet 4 fails.
  WriteFile(kBackup, std::string(kRunning) +
                         "answer VNET_2_DISPLAY_NAME two\nanswer VNET_3_NAT yes\n"
                         "answer VNET_3_HOSTONLY_SUBNET 192.168.3.0\n"
                         "answer VNET_3_HOSTONLY_NETMASK 255.255.255.0\n"
                         "answer VNET_4_DISPLAY_NAME four\nadd_bridge_mapping eth4 4\n");
  sys::FailNth(sys::Op::kFork, 4, EAGAIN);
  EXPECT_FALSE(PLRNetCfgMergeConfig(kBackup));
  sys::ClearFaults();
  EXPECT_EQ(Database(), before);
  // Put back from a restore point no cleanup of a dead compaction could take.
  EXPECT_EQ(LogCount("Restored config from backup file: /etc/tarsis/.networking.merge."), 1u);
  EXPECT_EQ(ServicePid(3, PLR_SERVICE_NAT) + ServicePid(4, PLR_SERVICE_BRIDGE), 0)
      << "started by the merge, stopped again";
  const pid_t nat2Again = ServicePid(2, PLR_SERVICE_NAT);
  EXPECT_TRUE(ServicePid(2, PLR_SERVICE_BRIDGE) != 0 && nat2Again != 0) << "ran before, runs again";
  WriteFile(kBackup, std::string(kRunning) + "add_nat_portfwd 2 tcp 80 192.168.2.9 80 www\n");
  ASSERT_TRUE(PLRNetCfgMergeConfig(kBackup));
  EXPECT_NE(Database().find("add_nat_portfwd 2 tcp 80 192.168.2.9 80 www\n"), std::string::npos);
  EXPECT_TRUE(ServicePid(2, PLR_SERVICE_NAT) != nat2Again && ServicePid(2, PLR_SERVICE_NAT) != 0);
  EXPECT_EQ(ServicePid(1, PLR_SERVICE_BRIDGE), bridge1);
  WriteFile(kBackup, "BACKUP_VERSION=7,0\n");
  EXPECT_FALSE(PLRNetCfgMergeConfig(kBackup));
}

TEST_F(WholeDatabase, DeleteVnetIsRefusedWhileInUseThenRemovesEveryTrace) {
  Load(
      "answer VNET_8_NAT yes\nanswer VNET_8_DHCP yes\nanswer VNET_8_VIRTUAL_ADAPTER yes\n"
      "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n"
      "add_bridge_mapping eth0 8\nanswer VNET_9_NAT yes\n");
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT));
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8"));
  ASSERT_TRUE(PLRServiceStop(8, PLR_SERVICE_NAT));
  ASSERT_EQ(plr::test::Run("ip tuntap add dev kavix8 mode tap"), 0);
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8")) << "the adapter exists";
  ASSERT_EQ(plr::test::Run("ip link del kavix8"), 0);
  WriteFile("/var/run/kavix-bridge-8.pid", "abc\n");
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8")) << "bridge status unknown";
  ASSERT_EQ(unlink("/var/run/kavix-bridge-8.pid"), 0);
  ASSERT_TRUE(PLRCreateFile(8, PLR_FILE_KAVIX_DEVICE, nullptr));
  ASSERT_TRUE(PLR_DeleteVnetFromDatabase("kavix8"));
  for (uint32_t option : {PLR_VNET_OPTION_NAT, PLR_VNET_OPTION_DHCP,
                          PLR_VNET_OPTION_VIRTUAL_ADAPTER, PLR_VNET_OPTION_SUBNET})
    EXPECT_FALSE(PLRVnetIsOptionConfigured(8, option)) << option;
  uint32_t vnet = 99;
  ASSERT_TRUE(PLRGetBridgeMappingForAdapter("eth0", &vnet));
  EXPECT_EQ(vnet, 0u) << "handed to the default bridge";
  EXPECT_TRUE(!FileExists("/dev/kavix8") && PLRVnetIsOptionConfigured(9, PLR_VNET_OPTION_NAT));
}

// A record about `vnet` with the criteria given and the reserved bytes marked.
PLR_VnetFeatures Record(uint32_t vnet, uint8_t subnet = 0, uint8_t cfgNat = 0, uint8_t cfgDhcp = 0,
                        uint8_t rtNat = 0) {
  PLR_VnetFeatures ft;
  memset(&ft, 0xAA, sizeof ft);
  ft.version = 1;
  ft.netId = PLR_NetworkID{1, 1, vnet};
  ft.subnet = subnet;
  const uint8_t config[4] = {cfgDhcp, cfgNat, 0, 0}, runtime[4] = {0, rtNat, 0, 0};  // DHCP, NAT
  memcpy(ft.configFeatures, config, 4);
  memcpy(ft.runtimeFeatures, runtime, 4);
  return ft;
}

TEST_F(WholeDatabase, FeaturesDescribeAndSearch) {
  Load(
      "answer VNET_3_NAT yes\nanswer VNET_3_HOSTONLY_SUBNET 192.168.3.0\n"
      "answer VNET_8_NAT yes\nanswer VNET_8_DHCP yes\nanswer VNET_8_VIRTUAL_ADAPTER yes\n"
      "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\nadd_bridge_mapping eth5 5\n"
      "answer PLR_DEFAULT_BRIDGE_VNET -1\n");
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT));
  ASSERT_EQ(plr::test::Run("ip tuntap add dev kavix8 mode tap && ip link set kavix8 up"), 0);
  PLR_VnetFeatures ft = Record(8);
  ASSERT_TRUE(PLR_GetVnetFeatures(&ft));
  const uint8_t config[32] = {1, 1, 0, 1}, runtime[32] = {0, 1, 0, 1};
  EXPECT_EQ(ft.subnet, 1);
  EXPECT_EQ(memcmp(ft.configFeatures, config, 32), 0) << "reserved bytes are cleared";
  EXPECT_EQ(memcmp(ft.runtimeFeatures, runtime, 32), 0);
  // Search upwards from: vnet, subnet, configured NAT, configured DHCP, running NAT: the vnet
  // found.
  const uint32_t rows[][6] = {{5, 0, 0, 0, 0, 5},  {0, 0, 1, 0, 0, 3}, {4, 0, 1, 1, 0, 8},
                              {3, 2, 0, 0, 0, 4},  {0, 0, 0, 0, 1, 8}, {255, 0, 1, 0, 0, 255},
                              {0, 0, 0, 0, 3, 255}};
  for (auto [vnet, subnet, nat, dhcp, rtNat, found] : rows) {
    SCOPED_TRACE(found);
    PLR_VnetFeatures search = Record(vnet, subnet, nat, dhcp, rtNat);
    const PLR_VnetFeatures before = search;
    EXPECT_EQ(PLR_FindVnetWithFeatures(&search), found != 255);
    if (found == 255)
      EXPECT_EQ(memcmp(&search, &before, sizeof search), 0) << "unchanged when nothing matches";
    else
      EXPECT_EQ(search.netId.vnet * 1000 + search.configFeatures[4], found * 1000 + 0xAA)
          << "the match, reserved bytes untouched";
  }
  PLR_VnetFeatures bad[] = {Record(1), Record(1), Record(256)};
  bad[0].version = 2;
  bad[1].netId.netType = 2;
  for (PLR_VnetFeatures& b : bad)
    EXPECT_FALSE(PLR_GetVnetFeatures(&b) || PLR_FindVnetWithFeatures(&b));
  EXPECT_FALSE(PLR_GetVnetFeatures(nullptr));
}

}  // namespace
}  // namespace plr::test
