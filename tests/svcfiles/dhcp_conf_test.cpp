// dhcpd.conf: exact text the real server accepts, the hash-guarded block, backup and removal.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pelorus.h"
#include "svcfiles/svcfiles-internal.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

const std::string kStart =
    "###### KAVIX DHCP Configuration. Start of \"DO NOT MODIFY SECTION\" #####\n";
const std::string kEnd =
    "####### KAVIX DHCP Configuration. End of \"DO NOT MODIFY SECTION\" #######\n";

// The block as the generator finds it: the last start marker before the first end marker.
std::string BlockOf(const std::string& text) {
  const size_t end = text.find(kEnd), start = text.rfind(kStart, end);
  if (end == std::string::npos || start == std::string::npos) return "";
  return text.substr(start, end + kEnd.size() - start);
}

// The vnet's file has the text of `golden`, its block's hash is stored, and the real DHCP server
// accepts it.
void ExpectFreshValidFile(unsigned vnet, const char* golden) {
  const std::string conf = ReadFile(DhcpConfPath(vnet));
  EXPECT_EQ(MaskWrittenAt(conf), ReadFile(std::string(TestDataDir()) + "/svcfiles/" + golden));
  EXPECT_STREQ(PLRGetVnetCfg(vnet, "DHCP_CFG_HASH"), Sha1Upper(BlockOf(conf)).c_str());
  std::string output;
  EXPECT_TRUE(DhcpdAccepts(DhcpConfPath(vnet), &output)) << output;
}

using DhcpConf = svc::ServiceTest;

const std::string kNatVnet = VnetRecords(8, "192.168.8.0", "255.255.255.0", true) +
                             "add_dhcp_mac_to_ip 8 00:50:56:3F:00:10 192.168.8.10\n";

TEST_F(DhcpConf, GeneratedFilesAreExactAcceptedAndNeverHalfWritten) {
  Load(kNatVnet + VnetRecords(1, "172.16.5.0", "255.255.255.0", false) +
       "answer VNET_1_VIRTUAL_ADAPTER_ADDR 172.16.5.3\nanswer VNET_1_DHCP_PARAM_DOMAIN_NAME lab\n"
       "answer VNET_1_DHCP_PARAM_MAX_LEASE_TIME 3600\n"
       "answer VNET_1_DHCP_PARAM_SUB_DEFAULT_LEASE_TIME 600\n"
       "add_dhcp_mac_to_ip 1 00:0C:29:AB:CD:EF 172.16.5.20\nanswer VNET_2_DHCP yes\n"
       "answer VNET_9_DHCP yes\n" +
       VnetRecords(7, "10.7.0.0", "255.255.0.0", false));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  ExpectFreshValidFile(8, "dhcpd-nat-kavix8.conf");
  EXPECT_TRUE(FileExists(DhcpLeasesPath(8)));
  EXPECT_FALSE(FileExists(DhcpBackupPath(8)));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(1));
  ExpectFreshValidFile(1, "dhcpd-hostonly-kavix1.conf");
  const std::string first = ReadFile(DhcpConfPath(8));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(ReadFile(DhcpBackupPath(8)), first) << "a rewrite saves the file it replaces";
  const std::string second = ReadFile(DhcpConfPath(8));
  EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_CFG_HASH"), Sha1Upper(BlockOf(second)).c_str());
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.252"));  // too small: the file is kept
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(ReadFile(DhcpConfPath(8)), second);
  // Failures never leave a half file; DHCP off removes the files.
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(2));  // no subnet: the file it created goes again
  EXPECT_FALSE(FileExists(DhcpConfPath(2)));
  ASSERT_EQ(test::Run("mkdir -p " + DhcpConfPath(9)), 0);  // unreadable: never overwritten
  EXPECT_FALSE(PLRDHCPWriteDHCPCfg(9));
  ASSERT_TRUE(PLRDHCPUpdateFromConfig(7));
  WriteFile("/etc/tarsis/kavix7/dhcpd/dhcpd.leases~", "old\n");
  ASSERT_TRUE(PLRSetVnetUseDHCP(7, false, false));
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(7));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix7"));
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(7));
  WriteFile("/etc/tarsis/kavix7/dhcpd/notes", "mine\n");
  EXPECT_TRUE(PLRDHCPUpdateFromConfig(7));
  EXPECT_FALSE(FileExists(DhcpConfPath(7)) || FileExists(DhcpLeasesPath(7)));
  EXPECT_EQ(ReadFile("/etc/tarsis/kavix7/dhcpd/notes"), "mine\n");
}

// An untouched block (hash matching in any case on its first 20 digits) is replaced in place,
// keeping the user's text around it; anything else gives a fresh file. The old file is kept.
TEST_F(DhcpConf, UntouchedBlockIsReplacedInPlaceAndAnEditedOneGivesAFreshFile) {
  Load(kNatVnet);
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  const std::string generated = ReadFile(DhcpConfPath(8)), block = BlockOf(generated);
  const std::string header = generated.substr(0, generated.find(block)),
                    hash = PLRGetVnetCfg(8, "DHCP_CFG_HASH");
  std::string lower = hash, edited = generated;
  for (char& c : lower) c = static_cast<char>(tolower(c));
  edited[edited.find("range 192.168.8.128") + 18] = '9';
  const std::string around =
      "# top\r\n" + std::string(3, '\0') + "\n" + block + "tail\n\n# no newline";
  const std::string noEnd = block.substr(0, block.size() - 73);
  std::string big;  // several megabytes of the user's own text on both sides
  for (int i = 0; big.size() < (4u << 20); ++i) big += "# host note " + std::to_string(i) + "\n";
  const struct {
    std::string file, hash;  // hash "" removes it
    bool kept;
  } kEdits[] = {{around, hash, true},
                {around, lower, true},
                {around, hash.substr(0, 20) + "0", true},
                {around, "", false},
                {"# u\n" + block.substr(0, 72) + "# stray\n" + block, hash, true},
                {edited, hash, false},
                {noEnd, hash, false},
                {block + "# after\n", hash, true},
                {block.substr(0, 71) + " \n" + block.substr(72), hash, false},
                {big + block + big, hash, true}};
  ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));  // the new block differs from the old
  for (const auto& e : kEdits) {
    SCOPED_TRACE(e.file.substr(0, 200));
    ASSERT_TRUE(e.hash.empty() ? PLRRemoveVnetCfg(8, "DHCP_CFG_HASH")
                               : PLRSetVnetCfg(8, "DHCP_CFG_HASH", e.hash.c_str()));
    WriteFile(DhcpConfPath(8), e.file);
    ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
    EXPECT_EQ(ReadFile(DhcpBackupPath(8)), e.file);
    const std::string conf = ReadFile(DhcpConfPath(8)), newBlock = BlockOf(conf);
    EXPECT_STREQ(PLRGetVnetCfg(8, "DHCP_CFG_HASH"), Sha1Upper(newBlock).c_str());
    EXPECT_EQ(newBlock.find("option routers"), std::string::npos);
    const size_t at = e.file.rfind(block.substr(0, 72));
    EXPECT_EQ(conf, e.kept ? (at == 0 ? header : e.file.substr(0, at)) + newBlock +
                                 e.file.substr(at + block.size())
                           : header + newBlock);
  }
}

// Host entries follow the cursor enumeration of the mappings, across several
// spills of the writer, and stop where it stops: at an address the scan
// accepts (blanks before it) that is too long for the generator's buffer,
// with the enumeration's line under its name.
TEST_F(DhcpConf, HostEntriesFollowTheEnumerationAndStopWhereItStops) {
  std::string records = kNatVnet;
  for (unsigned i = 0; i < 3000; ++i) {
    char mac[18];
    snprintf(mac, sizeof mac, "02:00:00:%02X:%02X:%02X", i % 7, (i * 37) % 256, i / 256);
    records += std::string("add_dhcp_mac_to_ip 8 ") + mac + " 192.168.8." +
               std::to_string(1 + i % 250) + "\n";
    if (i % 4 == 0) records += std::string("remove_dhcp_mac_to_ip 8 ") + mac + "\n";
  }
  Load(records);
  auto enumerate = [](size_t ipSize) {
    std::vector<std::string> macs;
    uint32_t cursor = 0;
    char mac[18], ip[32];
    while (PLRNetCfgEnumDHCPMACToIP(nullptr, 8, &cursor, mac, sizeof mac, ip, ipSize))
      macs.push_back(mac);
    return macs;
  };
  auto hostsInFile = [] {
    std::vector<std::string> macs;
    const std::string text = ReadFile(DhcpConfPath(8));
    const std::string tag = "hardware ethernet ";
    for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, at + 1))
      macs.push_back(text.substr(at + tag.size(), 17));
    if (!macs.empty()) macs.erase(macs.begin());  // the host adapter's own entry
    return macs;
  };
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_GT(ReadFile(DhcpConfPath(8)).size(), 3 * 64 * 1024u);
  std::vector<std::string> listed = enumerate(16);
  ASSERT_EQ(listed.size(), 2251u);  // 2,250 left of the 3,000, and the one of kNatVnet
  EXPECT_EQ(hostsInFile(), listed);

  const std::string middle = listed[listed.size() / 2];
  const std::string tooLong = "    192.168.8.99";  // 16 characters with the blanks
  ASSERT_TRUE(PLRNetCfgAddDHCPMACToIP(nullptr, 8, middle.c_str(), tooLong.c_str(), false));
  listed = enumerate(16);
  ASSERT_GT(listed.size(), 0u);
  ASSERT_LT(listed.size(), 2251u);
  EXPECT_EQ(enumerate(17).size(), 2251u) << "a larger buffer lists them all";
  ASSERT_TRUE(PLRDHCPWriteDHCPCfg(8));
  EXPECT_EQ(hostsInFile(), listed);
  const std::string log = LogText();
  const std::string line = "Insufficient buffer size: 16 for IP address: " + tooLong;
  const size_t found = log.rfind(line);
  ASSERT_NE(found, std::string::npos);
  const size_t lineStart = log.rfind('\n', found) + 1;
  EXPECT_NE(log.substr(lineStart, found - lineStart).find("PLRNetCfgEnumDHCPMACToIP"),
            std::string::npos);
}

// The block as a reader with a 256-byte line buffer finds it, one piece
// at a time (a longer line arrives in pieces of 255 bytes): the reference
// for the marker search.
std::pair<long, long> LocateByPieces(std::string_view content) {
  long start = -1;
  for (size_t pos = 0; pos < content.size();) {
    const size_t limit = std::min<size_t>(content.size() - pos, 255);
    const size_t newline = content.substr(pos, limit).find('\n');
    const std::string_view piece =
        content.substr(pos, newline == std::string_view::npos ? limit : newline + 1);
    if (piece == kStart) start = static_cast<long>(pos);
    pos += piece.size();
    if (piece == kEnd) return start < 0 ? std::pair{0L, 0L} : std::pair{start, long(pos)};
  }
  return {0, 0};
}

TEST(DhcpBlock, MarkerSearchFindsWhatAPieceByPieceReaderFinds) {
  // Markers at line starts, at piece starts inside long lines and just off
  // them, cut short, repeated and out of order.
  std::mt19937 rng(7);
  for (int round = 0; round < 4000; ++round) {
    std::string text;
    for (unsigned part = rng() % 9; part > 0; --part) {
      switch (rng() % 7) {
        case 0:
          text += kStart;
          break;
        case 1:
          text += kEnd;
          break;
        case 2:
          text += std::string(255 * (rng() % 3) + (rng() % 2 ? 0 : rng() % 3), 'x');
          break;
        case 3:
          text += "\n";
          break;
        case 4:
          text += "host a {\n";
          break;
        case 5:
          text += kStart.substr(0, rng() % 72);
          break;
        default:
          text += kEnd.substr(rng() % 72);
          break;
      }
    }
    const DhcpBlockPos found = PLRLocateKavixDHCPBlock(text);
    EXPECT_EQ(std::pair(found.start, found.end), LocateByPieces(text)) << text;
  }
}

}  // namespace
}  // namespace plr::test
