// nat.conf generation: the exact text, the backup, removal without NAT,
// failures, and every generated file read back with the nat.conf reader.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/svcfiles_util.h"

namespace plr {
namespace {

using test::CountOf;
using test::FileExists;
using test::NatBackupPath;
using test::NatConfPath;
using test::ReadFile;
using test::WriteFile;

// The items of one section as the reader lists them, "key=value" each.
std::map<std::string, std::string> Items(const char* section) {
  std::map<std::string, std::string> items;
  NatCfgIterator* iter = NatCfgListItemsInit(section);
  if (iter == nullptr) return items;
  char* value = nullptr;
  while (char* key = NatCfgListItems(iter, &value, nullptr)) {
    items[key] = value;
    free(key);
    free(value);
  }
  NatCfgListItemsDestroy(iter);
  return items;
}

std::string Sections() {
  std::string names;
  NatCfgIterator* iter = NatCfgListSectionsInit();
  if (iter == nullptr) return "NULL";
  while (char* name = NatCfgListSections(iter)) {
    names += std::string(name) + ";";
    free(name);
  }
  NatCfgListSectionsDestroy(iter);
  return names;
}

class NatConf : public test::LoadedLibraryTest {
 protected:
  void SetUp() override {
    test::LoadedLibraryTest::SetUp();
    path_ = NatConfPath(8);
  }
  void TearDown() override {
    globalConfig = nullptr;
    test::LoadedLibraryTest::TearDown();
  }
  void LoadVnet(const std::string& extra = "") {
    Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + extra);
  }
  // Points the reader at the generated file.
  void ReadBack() { globalConfig = path_.c_str(); }
  std::string path_;
};

TEST_F(NatConf, FirstUpdateWritesTheExactText) {
  LoadVnet(
      "add_nat_portfwd 8 tcp 8080 192.168.8.128 80 web server\n"
      "add_nat_portfwd 8 udp 6000 192.168.8.129 6001\n");
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  EXPECT_EQ(ReadFile(path_),
            ReadFile(std::string(test::TestDataDir()) + "/svcfiles/nat-kavix8.conf"));
  EXPECT_FALSE(FileExists(NatBackupPath(8)));
  EXPECT_EQ(test::CountOf(ReadFile(path_), "web server"), 0);  // descriptions stay in the database
}

TEST_F(NatConf, GeneratedFileReadsBackAsWritten) {
  LoadVnet(
      "answer VNET_8_NAT_PARAM_GATEWAY_IP 192.168.8.254\n"
      "answer VNET_8_NAT_PARAM_UDP_TIMEOUT 600\n"
      "answer VNET_8_NAT_PARAM_ACTIVE_FTP 0\n"
      "answer VNET_8_NAT_PARAM_NAT6 1\n"
      "add_nat_portfwd 8 tcp 8080 192.168.8.128 80\n"
      "add_nat_portfwd 8 tcp 2222 192.168.8.130 22 ssh\n"
      "add_nat_portfwd 8 tcp 65535 192.168.8.131 1\n"
      "add_nat_portfwd 8 udp 53 192.168.8.128 53\n");
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  ReadBack();
  EXPECT_EQ(Sections(), "host;tcp;udp;netbios;incomingtcp;incomingudp;");
  std::map<std::string, std::string> host = Items("host");
  EXPECT_EQ(host["ip"], "192.168.8.254");
  EXPECT_EQ(host["netmask"], "255.255.255.0");
  EXPECT_EQ(host["device"], "/dev/kavix8");
  EXPECT_EQ(host["activeFTP"], "0");
  EXPECT_EQ(host["allowAnyOUI"], "1");
  EXPECT_EQ(host["natIp6Enable"], "1");
  EXPECT_EQ(host["natIp6Prefix"], "fd15:4ba5:5a2b:1008::/64");
  EXPECT_EQ(NatCfgGetItemLong("tcp", "timeWaitTimeout", 0), 30u);
  EXPECT_EQ(NatCfgGetItemLong("udp", "timeout", 0), 600u);
  EXPECT_EQ(NatCfgGetItemLong("netbios", "nbnsRetries", 0), 3u);
  std::map<std::string, std::string> tcp = Items("incomingtcp");
  EXPECT_EQ(tcp.size(), 3u);
  EXPECT_EQ(tcp["8080"], "192.168.8.128:80");
  EXPECT_EQ(tcp["2222"], "192.168.8.130:22");
  EXPECT_EQ(tcp["65535"], "192.168.8.131:1");
  std::map<std::string, std::string> udp = Items("incomingudp");
  EXPECT_EQ(udp.size(), 1u);
  EXPECT_EQ(udp["53"], "192.168.8.128:53");
}

TEST_F(NatConf, VnetWithoutForwardsStillGetsBothSections) {
  LoadVnet();
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  std::string conf = ReadFile(path_);
  EXPECT_NE(conf.find("\n[incomingtcp]\n"), std::string::npos);
  EXPECT_NE(conf.find("#8080 = 172.16.3.128:80\n\n[incomingudp]\n"), std::string::npos);
  EXPECT_EQ(conf.substr(conf.size() - 25), "#6000 = 172.16.3.0:6001\n\n");
  ReadBack();
  EXPECT_TRUE(Items("incomingtcp").empty());
  EXPECT_TRUE(Items("incomingudp").empty());
}

TEST_F(NatConf, SecondUpdateKeepsThePreviousFileAsBackup) {
  LoadVnet();
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  WriteFile(path_, "# hand edited\n[host]\nip = 1.2.3.4\n");
  ASSERT_TRUE(PLRNATSetPortForward(8, 1, 80, "192.168.8.140", 8080, nullptr));
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  EXPECT_EQ(ReadFile(NatBackupPath(8)), "# hand edited\n[host]\nip = 1.2.3.4\n");
  ReadBack();
  EXPECT_EQ(Items("incomingtcp")["80"], "192.168.8.140:8080");
  std::unique_ptr<char, decltype(&free)> ip(NatCfgGetItem("host", "ip"), &free);
  ASSERT_NE(ip, nullptr);
  EXPECT_STREQ(ip.get(), "192.168.8.2");
}

TEST_F(NatConf, VnetWithoutNatLosesItsNatFiles) {
  LoadVnet();
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  WriteFile("/etc/tarsis/kavix8/nat.mac", "00:50:56:01:02:03\n");
  ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));
  EXPECT_TRUE(PLRNATUpdateFromConfig(8));
  EXPECT_FALSE(FileExists(path_));
  EXPECT_FALSE(FileExists(NatBackupPath(8)));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8/nat.mac"));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));
}

TEST_F(NatConf, MissingValuesFailBeforeAnyFileIsTouched) {
  Load("answer VNET_8_NAT yes\n");
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));
  EXPECT_EQ(test::LogCount("Failure in looking up NAT gateway address\n"), 1);
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));

  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_GATEWAY_IP, "10.0.0.2"));
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));
  EXPECT_EQ(test::LogCount("Failure in looking up NAT netmask\n"), 1);
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));
}

TEST_F(NatConf, FailedFirstWriteRemovesWhatItCreated) {
  LoadVnet();
  sys::FailNth(sys::Op::kRename, 1, ENOSPC);
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));
  sys::ClearFaults();
  EXPECT_EQ(test::LogCount("fopen: failed to open NAT config file, error: No space left on device\n"), 1);
  EXPECT_EQ(test::LogCount("Removing newly created NAT directory and config file\n"), 1);
  EXPECT_FALSE(FileExists(path_));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8/nat"));
}

TEST_F(NatConf, FailedRewriteKeepsTheOldFileAndTheBackup) {
  LoadVnet();
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  const std::string old = ReadFile(path_);
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "5"));
  sys::FailNth(sys::Op::kRename, 1, EIO);
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));
  sys::ClearFaults();
  EXPECT_EQ(ReadFile(path_), old);
  EXPECT_EQ(ReadFile(NatBackupPath(8)), old);
  EXPECT_EQ(test::LogCount("Removing newly created NAT directory and config file\n"), 0);
}

TEST_F(NatConf, TemplateTextsAreExportedAsWritten) {
  EXPECT_STREQ(PLRNATConfigFilePortForwardParam, "%u = %s:%u%s%s\n");
  EXPECT_STREQ(PLRNATConfigFileNat6PrefixDesc, PLRNATConfigFileNat6Desc);
  EXPECT_STREQ(PLRNATConfigHostNat6DefaultOptions,
               "\n# Controls if enable nat ipv6\n#natIp6Enable = 0\n\n"
               "# Controls if set nat ipv6 prefix\n#natIp6Prefix = 2001:db8:130f:ffa0::/64\n");
  EXPECT_NE(std::string(PLRNATConfigFileAllowAnyOUIDesc).find("any OUI.  Turn this on"),
            std::string::npos);
}

}  // namespace
}  // namespace plr
