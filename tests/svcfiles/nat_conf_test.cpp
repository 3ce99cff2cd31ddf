// nat.conf: the generated text read back with the reader, backup, removal, and the reader.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"
#include "tests/support/svcfiles_util.h"

namespace plr::test {
namespace {

// One section's items as the reader lists them, "key=value#comment;" each, or every section
// name (";" each) when `section` is null; "NULL" when the listing cannot start.
std::string List(const char* section) {
  NatCfgIterator* iter = section ? NatCfgListItemsInit(section) : NatCfgListSectionsInit();
  if (iter == nullptr) return "NULL";
  std::string out;
  char *value = nullptr, *comment = nullptr;
  while (char* key = section ? NatCfgListItems(iter, &value, &comment) : NatCfgListSections(iter)) {
    out += key + (section ? "=" + std::string(value) + (*comment ? "#" : "") + comment : "") + ";";
    free(key);
    if (section) free(value), free(comment);
  }
  section ? NatCfgListItemsDestroy(iter) : NatCfgListSectionsDestroy(iter);
  return out;
}

std::string Get(const char* section, const char* key) {
  char* value = NatCfgGetItem(section, key);
  const std::string out = value ? value : "NULL";
  free(value);
  return out;
}

// Makes `text` the file the reader reads.
void Use(const std::string& text) {
  WriteFile("/tmp/reader.conf", text);
  globalConfig = "/tmp/reader.conf";
}

using NatConf = svc::ServiceTest;

TEST_F(NatConf, GeneratedFileHasTheExactTextAndReadsBackAsWritten) {
  Load(VnetRecords(8, "192.168.8.0", "255.255.255.0", true) +
       "add_nat_portfwd 8 tcp 8080 192.168.8.128 80 web server\n"
       "add_nat_portfwd 8 udp 6000 192.168.8.129 6001\n");
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  const std::string path = NatConfPath(8), previous = ReadFile(path);
  EXPECT_EQ(previous, ReadFile(std::string(TestDataDir()) + "/svcfiles/nat-kavix8.conf"));
  EXPECT_FALSE(FileExists(NatBackupPath(8)));
  // Stored values, several forwards in one protocol, none in the other.
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_GATEWAY_IP, "192.168.8.254"));
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_UDP_TIMEOUT, "600"));
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_ACTIVE_FTP, "0"));
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_NAT6, "1"));
  ASSERT_TRUE(PLRNATSetPortForward(8, 1, 2222, "192.168.8.130", 22, "ssh"));
  ASSERT_TRUE(PLRNATSetPortForward(8, 1, 65535, "192.168.8.131", 1, nullptr));
  ASSERT_TRUE(PLRNATSetPortForward(8, 0, 6000, nullptr, 0, nullptr));
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  EXPECT_EQ(ReadFile(NatBackupPath(8)), previous);
  globalConfig = "/etc/tarsis/kavix8/nat/nat.conf";
  EXPECT_EQ(List(nullptr), "host;tcp;udp;netbios;incomingtcp;incomingudp;");
  EXPECT_EQ(List("host"),
            "ip=192.168.8.254;netmask=255.255.255.0;device=/dev/kavix8;activeFTP=0;allowAnyOUI=1;"
            "resetConnectionOnLinkDown=1;resetConnectionOnDestLocalHost=1;natIp6Enable=1;"
            "natIp6Prefix=fd15:4ba5:5a2b:1008::/64;");
  EXPECT_EQ(List("udp"), "timeout=600;");
  EXPECT_EQ(List("incomingtcp"),
            "65535=192.168.8.131:1;2222=192.168.8.130:22;8080=192.168.8.128:80;");
  EXPECT_EQ(List("incomingudp"), "");
}

TEST_F(NatConf, ForwardLinesFollowTheEnumerationAcrossSpills) {
  // Enough forwards that the file is written in several spills, added and
  // partly removed in a scattered order.
  std::string records = VnetRecords(8, "192.168.8.0", "255.255.255.0", true);
  for (unsigned i = 0; i < 6000; ++i) {
    const unsigned port = 1 + (i * 7919) % 60000;
    records += "add_nat_portfwd 8 tcp " + std::to_string(port) + " 192.168.8." +
               std::to_string(1 + i % 254) + " " + std::to_string(65535 - i) + " d\n";
    if (i % 5 == 0) records += "remove_nat_portfwd 8 tcp " + std::to_string(port) + "\n";
  }
  Load(records);
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  std::string expected;
  uint32_t cursor = 0;
  uint16_t hostPort = 0, vmPort = 0;
  char ip[16];
  while (PLRNetCfgEnumNATPortFwd(nullptr, 8, true, &cursor, &hostPort, ip, sizeof ip, &vmPort,
                                 nullptr, nullptr))
    expected += std::to_string(hostPort) + " = " + ip + ":" + std::to_string(vmPort) + "\n";
  EXPECT_EQ(cursor, 4800u);
  const std::string text = ReadFile(NatConfPath(8));
  const size_t tcp = text.find("[incomingtcp]");
  const size_t udp = text.find("[incomingudp]");
  ASSERT_NE(tcp, std::string::npos);
  ASSERT_NE(udp, std::string::npos);
  EXPECT_GT(text.size(), 2 * 64 * 1024u);
  EXPECT_NE(text.find(expected), std::string::npos) << "the TCP lines, in enumeration order";
  EXPECT_TRUE(text.find(expected) > tcp && text.find(expected) < udp);
  // No UDP forwards: the walk says so as the enumeration does.
  const std::string log = LogText();
  const size_t empty = log.find("List of forwarded ports is empty");
  ASSERT_NE(empty, std::string::npos);
  const size_t lineStart = log.rfind('\n', empty) + 1;
  EXPECT_NE(log.substr(lineStart, empty - lineStart).find("PLRNetCfgEnumNATPortFwd"),
            std::string::npos)
      << log.substr(lineStart, empty - lineStart);
}

TEST_F(NatConf, MissingValuesTouchNothingAndNatOffRemovesTheFiles) {
  Load("answer VNET_8_NAT yes\n");
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));  // no gateway address
  ASSERT_TRUE(PLRNATSetParameter(8, PLR_NAT_PARAM_GATEWAY_IP, "10.0.0.2"));
  EXPECT_FALSE(PLRNATUpdateFromConfig(8));  // no netmask
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));
  ASSERT_TRUE(PLRSetVnetSubnetMask(8, "255.255.255.0"));
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  ASSERT_TRUE(PLRNATUpdateFromConfig(8));
  WriteFile("/etc/tarsis/kavix8/nat.mac", "00:50:56:01:02:03\n");
  ASSERT_TRUE(PLRSetVnetUseNAT(8, false, false));
  EXPECT_TRUE(PLRNATUpdateFromConfig(8));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix8"));
}

// Lookups in hand-written files: header and key matching, separators, quoting and escapes,
// comments, duplicate sections.
TEST_F(NatConf, ReaderFindsWhatTheFileSays) {
  const struct {
    const char *file, *section, *key, *value;
  } kLookups[] = {{"[Host]\nIP:192.168.8.2\nip = 192.168.8.3\n", "HOST", "Ip", "192.168.8.2"},
                  {"[t]\nipx = 9\n  ip \t = 7\n", "t", "ip", "7"},
                  {"[q]\nv = \"c  d\" # after\n", "q", "v", "c  d"},
                  {"[q]\nv = 'a b'\n", "q", "v", "a b"},
                  {"[q]\nv = \"t\\tn\\nr\\rb\\\\q\\\"x\\y\"\n", "q", "v", "t\tn\nr\rb\\q\"xy"},
                  {"[q]\nv = \"runs to the end\n", "q", "v", "runs to the end"},
                  {"[q]\nv = x#y\n", "q", "v", "x#y"},
                  {"[q]\n# v = 1\n= v\nv\n", "q", "v", "NULL"},
                  {"[u]\nt = 10\n[tcp]\nlate = 1\n[U]\nextra = 20\nt = 30\n", "u", "extra", "20"}};
  for (const auto& l : kLookups) {
    Use(l.file);
    EXPECT_EQ(Get(l.section, l.key), l.value) << l.file;
  }
  Use("  [host]  trailing\nip = 1\n[no closing bracket\n[]\n[Mixed Case]x]\nk = [no header]\n[u]");
  EXPECT_EQ(List(nullptr), "host;;Mixed Case;u;");
  Use("[q]\nt = 60 # seconds\n# c = 1\n= orphan\n\r\nno separator\na = b c #  spaced\r\n"
      "cr = \"x\ry\"\r\n[Q]\nlater = 1\n");
  EXPECT_EQ(List("q"), "t=60#seconds;a=b#spaced;cr=x;");
  EXPECT_EQ(List("x"), "NULL");
  Use("[n]\nok = 42\nbad = 12x\nneg = -1\nhuge = 99999999999999999999999\nempty =\n");
  std::string longs;
  for (const char* key : {"ok", "bad", "missing", "neg", "huge", "empty"})
    longs += std::to_string(NatCfgGetItemLong("n", key, 7)) + " ";
  EXPECT_EQ(longs, "42 7 7 18446744073709551615 18446744073709551615 0 ");
  globalConfig = "/tmp/none.conf";  // without a file every call comes back empty
  EXPECT_EQ(Get("host", "ip") + List(nullptr) + List("host"), "NULLNULLNULL");
  EXPECT_EQ(NatCfgGetItemLong("udp", "timeout", 77), 77u);
  EXPECT_EQ(NatCfgListItems(nullptr, nullptr, nullptr), nullptr);
}

}  // namespace
}  // namespace plr::test
