// The exported database functions, loaded and not loaded.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/vnet_util.h"

namespace plr {
namespace {

using test::FileExists;
using test::kDatabasePath;
using test::kLogPath;
using test::ReadFile;
using test::WriteFile;

std::string Answer(const char* key) {
  const char* value = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, key, &value)) return "<absent>";
  return value;
}

TEST(DatabaseApiUnloaded, CreateKeepsEveryOlderDatabaseAsNumberedBackup) {
  test::WriteProductConfig();
  WriteFile(kDatabasePath, "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  WriteFile("/etc/tarsis/networking.bak.0", "zero");
  WriteFile("/etc/tarsis/networking.bak.1", "one");
  EXPECT_FALSE(PLR_CreateNetworkingDB(false));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  EXPECT_TRUE(
      test::LogHas("Existing networking configuration database must be deleted before "
             "creating new one"));
  ASSERT_TRUE(PLR_CreateNetworkingDB(true));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\n");
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.bak.2"), "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  EXPECT_EQ(ReadFile("/etc/tarsis/networking.bak.0"), "zero");
  EXPECT_TRUE(
      test::LogHas("Created and initialized networking configuration database: "
             "/etc/tarsis/networking"));
  EXPECT_EQ(plrContext.logStream, nullptr) << "the call's own log stream is closed again";
}

TEST(DatabaseApiUnloaded, FailedOverwritePutsOldDatabaseBack) {
  WriteFile(kDatabasePath, "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  sys::FailNth(sys::Op::kFsync, 1, EIO);  // the new database cannot be written
  EXPECT_FALSE(PLR_CreateNetworkingDB(true));
  sys::ClearFaults();
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer VNET_1_DHCP yes\n");
  EXPECT_FALSE(FileExists("/etc/tarsis/networking.bak.0"));
  EXPECT_TRUE(test::LogHas("Failed to create/initialize database file: /etc/tarsis/networking"));
}

TEST(DatabaseApiUnloaded, CreateWithoutDatabaseExistsReadAndDelete) {
  EXPECT_FALSE(PLR_NetworkingDBExists());
  EXPECT_FALSE(PLR_CanReadNetworkingDB());
  ASSERT_TRUE(PLR_CreateNetworkingDB(false));
  EXPECT_TRUE(PLR_NetworkingDBExists());
  EXPECT_TRUE(PLR_CanReadNetworkingDB());
  WriteFile(kDatabasePath, "VERSION=3,0\n");
  EXPECT_FALSE(PLR_CanReadNetworkingDB());
  EXPECT_TRUE(PLR_DeleteNetworkingDB());
  EXPECT_FALSE(PLR_NetworkingDBExists());
  EXPECT_TRUE(PLR_DeleteNetworkingDB()) << "a missing database is removed already";
  EXPECT_EQ(PLR_GetNumberOfVnets(), 256u);
}

TEST(DatabaseApiUnloaded, ExportsNeedTheLibrary) {
  test::WriteDatabase();
  EXPECT_EQ(PLR_ExportDatabaseToBuffer(), nullptr);
  EXPECT_FALSE(PLR_ExportDatabaseToFile("/tmp/x"));
  EXPECT_FALSE(FileExists("/tmp/x"));
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix1"));
}

TEST(DatabaseApiUnloaded, ImportWithDefaultPathAndMissingFile) {
  test::WriteProductConfig();
  test::WriteDatabase("answer VNET_1_DHCP yes\n");
  EXPECT_FALSE(PLR_ImportDatabaseFromFile(nullptr));
  EXPECT_TRUE(test::LogHas("Import file does not exist"));
  WriteFile("/tmp/networking_export", "BACKUP_VERSION=1,0\nanswer VNET_4_NAT yes\n");
  ASSERT_TRUE(PLR_ImportDatabaseFromFile(nullptr));
  EXPECT_EQ(ReadFile(kDatabasePath), "VERSION=1,0\nanswer VNET_4_NAT yes\n");
  EXPECT_TRUE(test::LogHas("Imported configration data from backup file: /tmp/networking_export"));
  EXPECT_EQ(plrContext.logStream, nullptr);
}

class DatabaseApi : public test::LoadedLibraryTest {
 protected:
  void TearDown() override {
    for (uint32_t service = 1; service <= 4; ++service) PLRServiceStop(8, service);
    LoadedLibraryTest::TearDown();
  }
};

TEST_F(DatabaseApi, CreateAndDeleteRefusedWhileLoaded) {
  Load("answer VNET_1_DHCP yes\n");
  const std::string before = Database();
  EXPECT_FALSE(PLR_CreateNetworkingDB(true));
  EXPECT_FALSE(PLR_DeleteNetworkingDB());
  EXPECT_EQ(Database(), before);
  EXPECT_NE(test::LogText().find("pelorus is initialized, unload the data structures and delete existing "
                       "networking configuration database before creating new one"),
            std::string::npos);
}

TEST_F(DatabaseApi, ExportToBufferAndToDefaultFile) {
  Load("answer VNET_1_DHCP yes\nadd_bridge_mapping eth0 1\n");
  char* text = PLR_ExportDatabaseToBuffer();
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "VERSION=1,0\nanswer VNET_1_DHCP yes\nadd_bridge_mapping eth0 1\n");
  free(text);
  ASSERT_TRUE(PLR_ExportDatabaseToFile(nullptr));
  EXPECT_EQ(ReadFile("/tmp/networking_export"),
            "BACKUP_VERSION=1,0\nanswer VNET_1_DHCP yes\nadd_bridge_mapping eth0 1\n");
  EXPECT_NE(test::LogText().find("Arguments - f: (nil),null"), std::string::npos);
  // Round trip: the export imports back to the same settings.
  ASSERT_TRUE(PLR_ImportDatabaseFromFile(nullptr));
  text = PLR_ExportDatabaseToBuffer();
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "VERSION=1,0\nanswer VNET_1_DHCP yes\nadd_bridge_mapping eth0 1\n");
  free(text);
}

TEST_F(DatabaseApi, DeleteVnetRefusedWhileNatRunsAfterCheckingAllServices) {
  Load("answer VNET_8_NAT yes\nanswer VNET_8_HOSTONLY_SUBNET 192.168.8.0\n");
  ASSERT_TRUE(PLRServiceStart(8, PLR_SERVICE_NAT));
  const std::string before = Database();
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8"));
  EXPECT_EQ(Database(), before);
  const std::string log = test::LogText();
  for (const char* line : {"Bridge service is not running on vnet: kavix8",
                           "DHCP service is not running on vnet: kavix8",
                           "NAT service is still running on this vnet Cannot delete config "
                           "information",
                           "NETIFUP service is not running on vnet: kavix8",
                           "Hostonly Adapter kavix8 is disabled on vnet: kavix8"})
    EXPECT_NE(log.find(line), std::string::npos) << line;
}

TEST_F(DatabaseApi, DeleteVnetRefusedWhileAdapterExistsOrStatusUnknown) {
  Load("answer VNET_8_NAT yes\n");
  ASSERT_EQ(test::Run("ip tuntap add dev kavix8 mode tap"), 0);
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8"));
  EXPECT_NE(test::LogText().find("Hostonly Adapter kavix8 is still enabled on vnet: kavix8. Cannot delete "
                       "config information"),
            std::string::npos);
  WriteFile("/var/run/kavix-bridge-8.pid", "abc\n");
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix8"));
  EXPECT_NE(test::LogText().find("Cannot determine status of bridge service on vnet: kavix8"),
            std::string::npos);
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase("kavix256"));
  EXPECT_FALSE(PLR_DeleteVnetFromDatabase(nullptr));
  EXPECT_EQ(Answer("VNET_8_NAT"), "yes");
}

TEST_F(DatabaseApi, DeleteVnetRemovesEveryTrace) {
  Load(
      "answer VNET_8_NAT yes\nanswer VNET_8_DHCP yes\nanswer VNET_8_VIRTUAL_ADAPTER yes\n"
      "answer VNET_8_HOSTONLY_SUBNET 192.168.8.0\nanswer VNET_8_HOSTONLY_NETMASK 255.255.255.0\n"
      "answer VNET_8_VIRTUAL_ADAPTER_ADDR 192.168.8.1\nadd_bridge_mapping eth0 8\n"
      "answer VNET_9_NAT yes\n");
  ASSERT_TRUE(PLRCreateFile(8, PLR_FILE_KAVIX_DEVICE, nullptr));
  ASSERT_TRUE(PLR_DeleteVnetFromDatabase("kavix8"));
  EXPECT_NE(test::LogText().find("Vnet: kavix8 is successfully unconfigured"), std::string::npos);
  EXPECT_FALSE(PLRVnetIsOptionConfigured(8, PLR_VNET_OPTION_NAT));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(8, PLR_VNET_OPTION_DHCP));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(8, PLR_VNET_OPTION_VIRTUAL_ADAPTER));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(8, PLR_VNET_OPTION_SUBNET));
  uint32_t vnet = 0;
  ASSERT_TRUE(PLRGetBridgeMappingForAdapter("eth0", &vnet));
  EXPECT_EQ(vnet, 0u) << "handed to the default bridge";
  EXPECT_FALSE(FileExists("/dev/kavix8"));
  EXPECT_TRUE(PLRVnetIsOptionConfigured(9, PLR_VNET_OPTION_NAT));
}

TEST_F(DatabaseApi, DeleteVnetOnReadOnlyDatabaseSkipsRuntimeChecks) {
  test::WriteProductConfig();
  test::WriteDatabase("answer VNET_8_NAT yes\n");
  ASSERT_TRUE(PLR_Load(true));
  ASSERT_TRUE(PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL));
  const std::string before = Database();
  ASSERT_TRUE(PLR_DeleteVnetFromDatabase("kavix8"));
  EXPECT_FALSE(PLRVnetIsOptionConfigured(8, PLR_VNET_OPTION_NAT));
  EXPECT_EQ(Database(), before);
  EXPECT_EQ(test::LogText().find("NAT service is not running"), std::string::npos);
  EXPECT_EQ(test::LogText().find("NAT system configuration file"), std::string::npos);
}

}  // namespace
}  // namespace plr
