// dhcpd.conf generation: the exact text, the hash-guarded block with the
// user's text around it, the backup, failures, and the real DHCP server's
// verdict on every file written.
#include <errno.h>
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/svcfiles_util.h"

namespace plr {
namespace {

using test::CountOf;
using test::DhcpBackupPath;
using test::DhcpConfPath;
using test::FileExists;
using test::ReadFile;
using test::WriteFile;

constexpr const char* kStaticMapping = "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n";

class DhcpConf : public test::LoadedLibraryTest {
 protected:
  void LoadNatVnet(const std::string& extra = "") {
    Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + kStaticMapping + extra);
  }
  std::string Conf() const { return ReadFile(DhcpConfPath(8)); }
  std::string Expected(const char* name) const {
    return ReadFile(std::string(test::TestDataDir()) + "/svcfiles/" + name);
  }
  void ExpectDhcpdAccepts(const std::string& path) const {
    std::string output;
    EXPECT_TRUE(test::DhcpdAccepts(path, &output)) << output << "\n" << ReadFile(path);
  }
  // The stored hash is the SHA-1 of exactly the block in the file.
  void ExpectHashMatchesFile() const {
    const char* stored = PLRGetVnetCfg(8, "DHCP_CFG_HASH");
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(std::string(stored), test::Sha1Upper(test::DhcpBlockOf(Conf())));
  }
  // Rewrites after the file was changed by hand and expects a fresh file,
  // with the changed one saved as the backup.
  void ExpectFreshFileAndBackup(const std::string& handEdited, const char* reason) {
    WriteFile(DhcpConfPath(8), handEdited);
    ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
    EXPECT_EQ(ReadFile(DhcpBackupPath(8)), handEdited);
    EXPECT_EQ(test::MaskWrittenAt(Conf()), Expected("dhcpd-nat-kavix8.conf"));
    EXPECT_EQ(test::LogCount(reason), 1) << reason;
    ExpectHashMatchesFile();
  }
};

// --- Exact text -------------------------------------------------------------

TEST_F(DhcpConf, FirstWriteCreatesTheFilesWithTheExactNatText) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(test::MaskWrittenAt(Conf()), Expected("dhcpd-nat-kavix8.conf"));
  EXPECT_TRUE(FileExists(test::DhcpLeasesPath(8)));
  EXPECT_FALSE(FileExists(DhcpBackupPath(8)));  // nothing to back up yet
  ExpectHashMatchesFile();
  EXPECT_EQ(test::LogCount("DHCP Config /etc/tarsis/kavix8/dhcpd/dhcpd.conf does not exist yet, "
                     "Creating new\n"),
            1);
  EXPECT_EQ(test::LogCount("Hash of DHCP config block set in vnet config\n"), 1);
  ExpectDhcpdAccepts(DhcpConfPath(8));
}

TEST_F(DhcpConf, HostOnlyVnetGetsNoGatewayLinesAndStoredValuesWin) {
  Load(test::VnetRecords(1, "172.16.5.0", "255.255.255.0", false) +
       "answer VNET_1_VIRTUAL_ADAPTER_ADDR 172.16.5.3\n"
       "answer VNET_1_DHCP_PARAM_DOMAIN_NAME lab\n"
       "answer VNET_1_DHCP_PARAM_MAX_LEASE_TIME 3600\n"
       "answer VNET_1_DHCP_PARAM_SUB_DEFAULT_LEASE_TIME 600\n"
       "add_dhcp_mac_to_ip 1 00:0C:29:AB:CD:EF 172.16.5.20\n");
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(1));
  EXPECT_EQ(test::MaskWrittenAt(ReadFile(DhcpConfPath(1))), Expected("dhcpd-hostonly-kavix1.conf"));
  ExpectDhcpdAccepts(DhcpConfPath(1));
}

TEST_F(DhcpConf, EveryMappingGetsItsEntryAndTheFileStaysValid) {
  std::string mappings;
  for (int i = 0; i < 40; ++i) {
    char record[80];
    snprintf(record, sizeof record, "add_dhcp_mac_to_ip 8 00:50:56:00:01:%02X 192.168.8.%d\n", i,
             10 + i);
    mappings += record;
  }
  Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.0", true) + mappings);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::string conf = Conf();
  for (int i = 0; i < 40; ++i) {
    char entry[160];
    snprintf(entry, sizeof entry,
             "host 192.168.8.%d {\n\thardware ethernet 00:50:56:00:01:%02X;\n"
             "\tfixed-address 192.168.8.%d;\n",
             10 + i, i, 10 + i);
    EXPECT_EQ(test::CountOf(conf, entry), 1) << entry;
  }
  // Each static entry carries both gateway lines; the host's own only routers.
  EXPECT_EQ(test::CountOf(conf, "\toption netbios-name-servers 192.168.8.2;\n"), 41);
  EXPECT_EQ(test::CountOf(conf, "\toption routers 192.168.8.2;\n"), 41);
  EXPECT_EQ(test::CountOf(conf, "\toption routers 0.0.0.0;\n"), 1);
  ExpectDhcpdAccepts(DhcpConfPath(8));
}

TEST_F(DhcpConf, SmallestSubnetWorksAndTheNextSmallerIsRefused) {
  Load(test::VnetRecords(8, "192.168.8.0", "255.255.255.248", false));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_NE(Conf().find("\trange 192.168.8.4 192.168.8.6;\n"), std::string::npos) << Conf();
  ExpectDhcpdAccepts(DhcpConfPath(8));

  std::string before = Conf();
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.252"));
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(test::LogCount("Getting PLR_DHCP_PARAM_LEASE_BEGIN_IP failed\n"), 1);
  EXPECT_EQ(Conf(), before);  // a failed rewrite leaves the old file
}

TEST_F(DhcpConf, DottedDomainNamesMustBeGivenQuoted) {
  // The value is written as stored: the server takes a bare word, but a
  // dotted name only in quotes.
  LoadNatVnet("answer VNET_8_DHCP_PARAM_DOMAIN_NAME example.com\n");
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::string output;
  EXPECT_FALSE(test::DhcpdAccepts(DhcpConfPath(8), &output));
  EXPECT_NE(output.find("semicolon expected"), std::string::npos) << output;

  ASSERT_TRUE(PLRDHCPSetParameter(8, PLR_DHCP_PARAM_DOMAIN_NAME, "\"example.com\""));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_NE(Conf().find("\toption domain-name \"example.com\";\n"), std::string::npos);
  ExpectDhcpdAccepts(DhcpConfPath(8));
}

// --- The protected block ------------------------------------------------------

// User text of any bytes around an untouched block is kept byte for byte
// through any number of rewrites while the block itself is replaced.
TEST_F(DhcpConf, UntouchedBlockIsReplacedAndTheUserTextKeptByteForByte) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::pair<std::string, std::string> arounds[] = {
      {"# my own header\r\noption domain-search \"lab.example\";\n# " + std::string(300, 'x') +
           "\n",
       "host printer {\n\thardware ethernet 00:11:22:33:44:55;\n\tfixed-address 192.168.8.9;\n}\n"
       "# no newline at the end"},
      {std::string("\0\x01\xff binary\r\n\n", 14) + std::string(5000, 'b') + "\n",
       std::string("\n\0tail", 6) + std::string(700, '\n')},
  };
  ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));  // the block's content changes
  int round = 0;
  for (const auto& [before, after] : arounds) {
    SCOPED_TRACE(++round);
    const std::string userFile = before + test::DhcpBlockOf(Conf()) + after;
    WriteFile(DhcpConfPath(8), userFile);
    for (int rewrite = 0; rewrite < 2; ++rewrite) {
      ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
      std::string conf = Conf();
      ASSERT_GE(conf.size(), before.size() + after.size());
      EXPECT_EQ(conf.substr(0, before.size()), before);
      EXPECT_EQ(conf.substr(conf.size() - after.size()), after);
      std::string newBlock = test::DhcpBlockOf(conf);
      EXPECT_EQ(before + newBlock + after, conf);
      EXPECT_EQ(test::CountOf(newBlock, "option routers"), 0) << newBlock;
      if (rewrite == 0) {
        EXPECT_EQ(ReadFile(DhcpBackupPath(8)), userFile);
      }
      ExpectHashMatchesFile();
    }
    if (round == 1) {
      ExpectDhcpdAccepts(DhcpConfPath(8));
    }
  }
  EXPECT_EQ(test::LogCount("DHCP config block is not modified\n"), 4);
}

TEST_F(DhcpConf, BlockThatBeganTheFileGetsTheHeaderBackAndKeepsWhatFollows) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string block = test::DhcpBlockOf(Conf());
  WriteFile(DhcpConfPath(8), block + "# after\n");
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::string conf = Conf();
  EXPECT_EQ(conf.rfind("# Configuration file for ISC 2.0 kavix-dhcpd operating on kavix8.\n", 0),
            0u);
  EXPECT_EQ(test::MaskWrittenAt(conf), Expected("dhcpd-nat-kavix8.conf") + "# after\n");
}

TEST_F(DhcpConf, HashDifferingOnlyInCaseOrAfterTwentyDigitsCountsAsUntouched) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string user = "# keep me\n" + test::DhcpBlockOf(Conf());
  WriteFile(DhcpConfPath(8), user);
  std::string hash = PLRGetVnetCfg(8, "DHCP_CFG_HASH");
  for (char& c : hash) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  ASSERT_TRUE(PLRSetVnetCfg(8, "DHCP_CFG_HASH", hash.c_str()));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(Conf().rfind("# keep me\n", 0), 0u);

  WriteFile(DhcpConfPath(8), "# keep me\n" + test::DhcpBlockOf(Conf()));
  std::string changedTail = std::string(PLRGetVnetCfg(8, "DHCP_CFG_HASH")).substr(0, 20) + "0";
  ASSERT_TRUE(PLRSetVnetCfg(8, "DHCP_CFG_HASH", changedTail.c_str()));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(Conf().rfind("# keep me\n", 0), 0u);
  EXPECT_EQ(test::LogCount("DHCP config block is not modified\n"), 2);
}

TEST_F(DhcpConf, OneCharacterEditedInsideTheBlockGivesAFreshFile) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::string edited = "# user line\n" + Conf() + "# trailing user line\n";
  size_t at = edited.find("range 192.168.8.128");
  ASSERT_NE(at, std::string::npos);
  edited[at + 18] = '9';
  ExpectFreshFileAndBackup(edited,
                           "DHCP config modified by user, creating a new config file and backing "
                           "up existing file\n");
}

TEST_F(DhcpConf, DeletedHashGivesAFreshFile) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::string user = "# user line\n" + Conf();
  ASSERT_TRUE(PLRRemoveVnetCfg(8, "DHCP_CFG_HASH"));
  ExpectFreshFileAndBackup(user,
                           "DHCP config hash not found in vnet config, creating a new config file "
                           "and backing up existing file\n");
}

TEST_F(DhcpConf, MissingOrMisplacedMarkersGiveAFreshFile) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string good = Conf();
  const std::string block = test::DhcpBlockOf(good);
  const std::string startMarker = block.substr(0, block.find('\n') + 1);
  const std::string endMarker = block.substr(block.rfind('\n', block.size() - 2) + 1);
  ASSERT_EQ(startMarker.size(), 72u);
  ASSERT_EQ(endMarker.size(), 73u);
  const std::string body = block.substr(72, block.size() - 72 - 73);

  const std::string noEnd = "# u\n" + startMarker + body;
  const std::string noStart = "# u\n" + body + endMarker;
  const std::string endFirst = "# u\n" + endMarker + startMarker + body;
  // A marker that is not a line of its own (blank before its newline).
  std::string trailingBlank = startMarker;
  trailingBlank.insert(trailingBlank.size() - 1, " ");
  const std::string notALine = "# u\n" + trailingBlank + body + endMarker;
  const std::string emptyFile;
  int round = 0;
  for (const std::string* text : {&noEnd, &noStart, &endFirst, &notALine, &emptyFile}) {
    SCOPED_TRACE(++round);
    WriteFile(DhcpConfPath(8), *text);
    ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
    EXPECT_EQ(ReadFile(DhcpBackupPath(8)), *text);
    EXPECT_EQ(test::MaskWrittenAt(Conf()), Expected("dhcpd-nat-kavix8.conf"));
    ExpectHashMatchesFile();
  }
  EXPECT_EQ(test::LogCount("Could not locate kavix DHCP config block, creating a new config file and "
                     "backing up existing file\n"),
            5);
}

TEST_F(DhcpConf, LaterStartMarkerReplacesAnEarlierOne) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string block = test::DhcpBlockOf(Conf());
  const std::string startMarker = block.substr(0, 72);
  // A stray start marker in the user's text before the real block.
  const std::string before = "# u\n" + startMarker + "# stray\n";
  WriteFile(DhcpConfPath(8), before + block);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(Conf().substr(0, before.size()), before);
  EXPECT_EQ(test::LogCount("DHCP config block is not modified\n"), 1);
}

TEST_F(DhcpConf, RandomHandEditsNeverLoseUserText) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  std::mt19937 random(20261122);
  const std::string pieces[] = {
      "\n",
      "\r\n",
      "#",
      "\0",
      "}",
      "{",
      test::DhcpBlockOf(Conf()).substr(0, 72),
      "####### KAVIX DHCP Configuration. End of \"DO NOT MODIFY SECTION\" "
      "#######\n",
      std::string(300, 'z')};
  int kept = 0;
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    std::string text = Conf();
    // A few edits anywhere: insert a piece, or cut a range.
    for (int edit = random() % 3; edit >= 0; --edit) {
      size_t at = random() % (text.size() + 1);
      if (random() % 2 == 0) {
        text.insert(at, pieces[random() % std::size(pieces)]);
      } else {
        text.erase(at, random() % 64);
      }
    }
    WriteFile(DhcpConfPath(8), text);
    ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
    EXPECT_EQ(ReadFile(DhcpBackupPath(8)), text);  // the whole edited file is saved
    std::string conf = Conf();
    std::string block = test::DhcpBlockOf(conf);
    ASSERT_FALSE(block.empty());
    size_t start = conf.find(block);
    std::string before = conf.substr(0, start);
    std::string after = conf.substr(start + block.size());
    bool fresh = test::MaskWrittenAt(conf) == Expected("dhcpd-nat-kavix8.conf");
    // A block that began the edited file gets the generated header back.
    const std::string header = Expected("dhcpd-nat-kavix8.conf").substr(0, start);
    if (before == header && text.compare(0, header.size(), header) != 0) before.clear();
    bool aroundKept = text.compare(0, before.size(), before) == 0 && text.size() >= after.size() &&
                      text.compare(text.size() - after.size(), after.size(), after) == 0;
    EXPECT_TRUE(fresh || aroundKept) << conf;
    kept += !fresh;
    ExpectHashMatchesFile();
  }
  EXPECT_GT(kept, 0);  // some edits outside the block keep the user's text
}

// --- Failures -----------------------------------------------------------------

TEST_F(DhcpConf, FailedFirstWriteLeavesNoFileBehind) {
  LoadNatVnet();
  sys::FailNth(sys::Op::kRename, 1, ENOSPC);
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  sys::ClearFaults();
  EXPECT_FALSE(FileExists(DhcpConfPath(8)));
  EXPECT_EQ(test::LogCount("Cannot create DHCP Config File, /etc/tarsis/kavix8/dhcpd/dhcpd.conf, "
                     "because of  error: No space left on device\n"),
            1);
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_CFG_HASH"), nullptr);
}

TEST_F(DhcpConf, FailedRewriteKeepsTheOldFileAndItsBackup) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string old = "# mine\n" + Conf();
  WriteFile(DhcpConfPath(8), old);
  const std::string hash = PLRGetVnetCfg(8, "DHCP_CFG_HASH");
  sys::FailNth(sys::Op::kRename, 1, EIO);
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  sys::ClearFaults();
  EXPECT_EQ(Conf(), old);
  EXPECT_EQ(ReadFile(DhcpBackupPath(8)), old);
  EXPECT_EQ(PLRGetVnetCfg(8, "DHCP_CFG_HASH"), hash);  // still describes the file on disk
}

TEST_F(DhcpConf, FailedBackupStopsBeforeTheFileIsTouched) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string old = Conf();
  sys::FailFrom(sys::Op::kWrite, 1, ENOSPC);
  bool ok = PLRDHCPWriteDHCPCfg(8);
  sys::ClearFaults();
  EXPECT_FALSE(ok);
  EXPECT_EQ(Conf(), old);
  EXPECT_EQ(test::LogCount("Failed to backup DHCP file. Aborting\n"), 1);
}

TEST_F(DhcpConf, VnetWithoutSubnetFailsAndRemovesTheFileItCreated) {
  Load("answer VNET_8_DHCP yes\n");
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(test::LogCount("Getting Subnet address failed\n"), 1);
  EXPECT_FALSE(FileExists(DhcpConfPath(8)));
}

TEST_F(DhcpConf, UnreadableFileIsNeverOverwritten) {
  LoadNatVnet();
  ASSERT_EQ(test::Run("mkdir -p " + DhcpConfPath(8)), 0);  // a directory where the file belongs
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(test::LogCount("Cannot create DHCP Config File, /etc/tarsis/kavix8/dhcpd/dhcpd.conf, "
                     "because of  error: Is a directory\n"),
            1);
}

// --- Update from the DHCP setting -----------------------------------------------

TEST_F(DhcpConf, UpdateWritesWithDhcpOnAndRemovesEveryTraceWithDhcpOff) {
  LoadNatVnet();
  ASSERT_TRUE(PLRDHCPUpdateFromConfig(8));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));  // a second write leaves a backup too
  ASSERT_TRUE(FileExists(DhcpBackupPath(8)));
  WriteFile("/etc/tarsis/kavix8/dhcpd/dhcpd.leases~", "old leases\n");

  ASSERT_TRUE(PLRSetVnetUseDHCP(8, false, false));
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(8));
  EXPECT_FALSE(FileExists(DhcpConfPath(8)));
  EXPECT_FALSE(FileExists(DhcpBackupPath(8)));
  EXPECT_FALSE(FileExists(test::DhcpLeasesPath(8)));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));
  EXPECT_EQ(test::LogCount("Removed all traces of DHCP configuration for vnet: 8\n"), 1);

  // Directories that hold other files stay.
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  WriteFile("/etc/tarsis/kavix8/dhcpd/notes", "mine\n");
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(8));
  EXPECT_FALSE(FileExists(DhcpConfPath(8)));
  EXPECT_EQ(ReadFile("/etc/tarsis/kavix8/dhcpd/notes"), "mine\n");
}

}  // namespace
}  // namespace plr
