// dhcpd.conf generation: the exact text the real DHCP server accepts, the
// hash-guarded block with the user's text around it kept, and the backup.
#include <gtest/gtest.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

const std::string kNatVnet = VnetRecords(8, "192.168.8.0", "255.255.255.0", true) +
                             "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n";

// The block as the generator finds it: the last start marker before the
// first end marker.
std::string BlockOf(const std::string& text) {
  static const std::string kStart =
      "###### KAVIX DHCP Configuration. Start of \"DO NOT MODIFY SECTION\" #####\n";
  static const std::string kEnd =
      "####### KAVIX DHCP Configuration. End of \"DO NOT MODIFY SECTION\" #######\n";
  const size_t end = text.find(kEnd), start = text.rfind(kStart, end);
  if (end == std::string::npos || start == std::string::npos) return "";
  return text.substr(start, end + kEnd.size() - start);
}

class DhcpConf : public ServiceTest {
 protected:
  std::string Conf() const { return ReadFile(DhcpConfPath(8)); }
  static std::string Golden(const char* name) {
    return ReadFile(std::string(TestDataDir()) + "/svcfiles/" + name);
  }
  // The file is the generated NAT one, its block's hash is stored, and the
  // real DHCP server accepts it.
  void ExpectFreshValidFile(unsigned vnet = 8, const char* golden = "dhcpd-nat-kavix8.conf") {
    const std::string conf = ReadFile(DhcpConfPath(vnet));
    EXPECT_EQ(MaskWrittenAt(conf), Golden(golden));
    ExpectHashMatches(vnet);
    std::string output;
    EXPECT_TRUE(DhcpdAccepts(DhcpConfPath(vnet), &output)) << output;
  }
  static void ExpectHashMatches(unsigned vnet = 8) {
    const char* stored = PLRGetVnetCfg(vnet, "DHCP_CFG_HASH");
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(stored, Sha1Upper(BlockOf(ReadFile(DhcpConfPath(vnet)))));
  }
};

TEST_F(DhcpConf, GeneratedFilesHaveTheExactTextAndTheServerAcceptsThem) {
  Load(kNatVnet + VnetRecords(1, "172.16.5.0", "255.255.255.0", false) +
       "answer VNET_1_VIRTUAL_ADAPTER_ADDR 172.16.5.3\n"
       "answer VNET_1_DHCP_PARAM_DOMAIN_NAME lab\n"
       "answer VNET_1_DHCP_PARAM_MAX_LEASE_TIME 3600\n"
       "answer VNET_1_DHCP_PARAM_SUB_DEFAULT_LEASE_TIME 600\n"
       "add_dhcp_mac_to_ip 1 00:0C:29:AB:CD:EF 172.16.5.20\n");
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  ExpectFreshValidFile();
  EXPECT_TRUE(FileExists(DhcpLeasesPath(8)));
  EXPECT_FALSE(FileExists(DhcpBackupPath(8)));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(1));
  ExpectFreshValidFile(1, "dhcpd-hostonly-kavix1.conf");
  // A rewrite saves the file it replaces.
  const std::string first = Conf();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(ReadFile(DhcpBackupPath(8)), first);
}

TEST_F(DhcpConf, EveryMappingGetsAnEntryAndTooSmallASubnetFailsKeepingTheFile) {
  std::string records = VnetRecords(8, "192.168.8.0", "255.255.255.248", true);
  for (int i = 0; i < 20; ++i)
    records += "add_dhcp_mac_to_ip 8 00:50:56:00:01:" + std::to_string(10 + i) + " 10.0.0." +
               std::to_string(i) + "\n";
  Load(records);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string conf = Conf();
  for (int i = 0; i < 20; ++i) {
    const std::string ip = "10.0.0." + std::to_string(i);
    EXPECT_NE(conf.find("host " + ip + " {\n\thardware ethernet 00:50:56:00:01:" +
                        std::to_string(10 + i) + ";\n\tfixed-address " + ip + ";\n"),
              std::string::npos)
        << ip;
  }
  EXPECT_NE(conf.find("\trange 192.168.8.4 192.168.8.6;\n"), std::string::npos);
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.252"));
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(Conf(), conf);
}

// How the old file and its stored hash were changed, and whether the block
// counts as untouched.
enum class Hash { kAsWritten, kLowerCase, kRemoved, kDiffersAfter20 };
struct HandEdit {
  const char* name;
  std::string (*edit)(const std::string& file, const std::string& block);
  Hash hash;
  bool kept;
};

std::string Around(const std::string&, const std::string& b) {
  return "# top\r\n" + std::string(3, '\0') + "\n" + b + "tail\n\n# no newline";
}

const HandEdit kEdits[] = {
    {"text around", Around, Hash::kAsWritten, true},
    {"lower-case hash", Around, Hash::kLowerCase, true},
    {"hash differs after 20 digits", Around, Hash::kDiffersAfter20, true},
    {"hash removed", Around, Hash::kRemoved, false},
    {"block begins the file", [](auto&, auto& b) { return b + "# after\n"; }, Hash::kAsWritten,
     true},
    {"stray start marker before",
     [](auto&, auto& b) { return "# u\n" + b.substr(0, 72) + "# stray\n" + b; }, Hash::kAsWritten,
     true},
    {"edited inside",
     [](auto& f, auto&) {
       std::string e = f;
       e[e.find("range 192.168.8.128") + 18] = '9';
       return e;
     },
     Hash::kAsWritten, false},
    {"no end marker", [](auto&, auto& b) { return b.substr(0, b.size() - 73); }, Hash::kAsWritten,
     false},
    {"no start marker", [](auto&, auto& b) { return "# u\n" + b.substr(72); }, Hash::kAsWritten,
     false},
    {"end before start",
     [](auto&, auto& b) { return b.substr(b.size() - 73) + b.substr(0, b.size() - 73); },
     Hash::kAsWritten, false},
    {"marker not a line", [](auto&, auto& b) { return b.substr(0, 71) + " \n" + b.substr(72); },
     Hash::kAsWritten, false},
    {"empty", [](auto&, auto&) { return std::string(); }, Hash::kAsWritten, false},
};

TEST_F(DhcpConf, UntouchedBlockIsReplacedInPlaceAndAnEditedOneGivesAFreshFile) {
  Load(kNatVnet);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string generated = Conf(), block = BlockOf(generated);
  const std::string header = generated.substr(0, generated.find(block));
  const std::string hash = PLRGetVnetCfg(8, "DHCP_CFG_HASH");
  ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));  // the new block differs from the old
  for (const HandEdit& e : kEdits) {
    SCOPED_TRACE(e.name);
    const std::string user = e.edit(generated, block);
    std::string stored = hash;
    if (e.hash == Hash::kLowerCase)
      for (char& c : stored) c = static_cast<char>(tolower(c));
    if (e.hash == Hash::kDiffersAfter20) stored = stored.substr(0, 20) + "0";
    if (e.hash == Hash::kRemoved)
      ASSERT_TRUE(PLRRemoveVnetCfg(8, "DHCP_CFG_HASH"));
    else
      ASSERT_TRUE(PLRSetVnetCfg(8, "DHCP_CFG_HASH", stored.c_str()));
    WriteFile(DhcpConfPath(8), user);
    ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
    EXPECT_EQ(ReadFile(DhcpBackupPath(8)), user);
    const std::string conf = Conf(), newBlock = BlockOf(conf);
    ExpectHashMatches();
    EXPECT_EQ(newBlock.find("option routers"), std::string::npos);
    if (!e.kept) {
      EXPECT_EQ(conf, header + newBlock);
      continue;
    }
    const size_t at = user.rfind(block.substr(0, 72));
    const std::string before = at == 0 ? header : user.substr(0, at);
    EXPECT_EQ(conf, before + newBlock + user.substr(at + block.size()));
  }
}

TEST_F(DhcpConf, FailuresNeverLeaveAHalfFile) {
  Load("answer VNET_8_DHCP yes\nanswer VNET_9_DHCP yes\n" +
       VnetRecords(7, "10.7.0.0", "255.255.0.0", false));
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));  // no subnet: the file it created goes again
  EXPECT_FALSE(FileExists(DhcpConfPath(8)));
  ASSERT_EQ(test::Run("mkdir -p " + DhcpConfPath(9)), 0);  // unreadable: never overwritten
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(9));
  EXPECT_TRUE(
      LogHas("Cannot create DHCP Config File, /etc/tarsis/kavix9/dhcpd/dhcpd.conf, "
             "because of  error: Is a directory"));
  // Switching DHCP off removes every file it wrote, and the directories once empty.
  ASSERT_TRUE(PLRDHCPUpdateFromConfig(7));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(7));
  WriteFile("/etc/tarsis/kavix7/dhcpd/dhcpd.leases~", "old\n");
  ASSERT_TRUE(PLRSetVnetUseDHCP(7, false, false));
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(7));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix7"));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(7));
  WriteFile("/etc/tarsis/kavix7/dhcpd/notes", "mine\n");
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(7));
  EXPECT_FALSE(FileExists(DhcpConfPath(7)));
  EXPECT_FALSE(FileExists(DhcpLeasesPath(7)));
  EXPECT_EQ(ReadFile("/etc/tarsis/kavix7/dhcpd/notes"), "mine\n");
}

}  // namespace
}  // namespace plr::test
