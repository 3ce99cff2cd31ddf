// The service table, PID file names and reading PIDs from PID files.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

using namespace svc;  // NOLINT: the services test vocabulary

class ServiceTableTest : public ServiceTest {};

TEST_F(ServiceTableTest, OptionCodesAndDescriptionsFollowTheServiceIds) {
  const struct {
    uint32_t service, option;
    const char* desc;
  } cases[] = {{PLR_SERVICE_BRIDGE, 1, "Bridge"}, {PLR_SERVICE_NETIFUP, 4, "Netifup"},
               {PLR_SERVICE_DHCP, 2, "DHCP"},     {PLR_SERVICE_NAT, 3, "NAT"},
               {0, 0, ""},                        {5, 0, ""},
               {0x8801u, 0, ""},                  {0xFFFFFFFFu, 0, ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(PLRLookupConfigOptionForServiceID(c.service), c.option) << c.service;
    EXPECT_STREQ(PLRLookupDescStringForServiceID(c.service), c.desc) << c.service;
  }
}

struct PidName {
  uint32_t vnet, service;
  const char* path;
  const char* desc;
};

// Bridge and NAT name the file by vnet number, netifup and DHCP by vnet name.
TEST_F(ServiceTableTest, PidFileNamesKeepBothForms) {
  Load("");
  const PidName cases[] = {
      {0, PLR_SERVICE_BRIDGE, "/var/run/kavix-bridge-0.pid", "Bridge"},
      {3, PLR_SERVICE_NETIFUP, "/var/run/kavix-netifup-kavix3.pid", "Netifup"},
      {8, PLR_SERVICE_DHCP, "/var/run/kavix-dhcpd-kavix8.pid", "DHCP"},
      {8, PLR_SERVICE_NAT, "/var/run/kavix-natd-8.pid", "NAT"},
      {255, PLR_SERVICE_BRIDGE, "/var/run/kavix-bridge-255.pid", "Bridge"},
  };
  for (const PidName& c : cases) {
    char* path = nullptr;
    const char* desc = nullptr;
    ASSERT_TRUE(PLRGetPidFilename(c.vnet, c.service, &path, &desc)) << c.path;
    EXPECT_STREQ(path, c.path);
    EXPECT_STREQ(desc, c.desc);
    free(path);
  }
  EXPECT_TRUE(LogHas("PLRGetPidFilename - Cannot find DHCP_PROGRAM value in Vnet Config"));
  EXPECT_TRUE(LogHas("Cannot find NETIFUP_PROGRAM value in Vnet Config"));
  char* path = nullptr;
  ASSERT_TRUE(PLRGetPidFilename(1, PLR_SERVICE_NAT, &path, nullptr));  // desc is optional
  EXPECT_STREQ(path, "/var/run/kavix-natd-1.pid");
  free(path);
}

TEST_F(ServiceTableTest, RunDirAndProgramAnswersNameThePidFile) {
  Load("answer RUNDIR /run/svc\nanswer DHCP_PROGRAM mydhcpd\nanswer NAT_PROGRAM mynatd\n");
  char* path = nullptr;
  ASSERT_TRUE(PLRGetPidFilename(8, PLR_SERVICE_DHCP, &path, nullptr));
  EXPECT_STREQ(path, "/run/svc/mydhcpd-kavix8.pid");
  free(path);
  ASSERT_TRUE(PLRGetPidFilename(8, PLR_SERVICE_NAT, &path, nullptr));
  EXPECT_STREQ(path, "/run/svc/mynatd-8.pid");
  free(path);
  EXPECT_FALSE(LogHas("Cannot find DHCP_PROGRAM value"));
}

TEST_F(ServiceTableTest, UnknownServiceHasNoPidFile) {
  Load("");
  char* path = reinterpret_cast<char*>(0x1);
  const char* desc = "untouched";
  EXPECT_FALSE(PLRGetPidFilename(1, 5, &path, &desc));
  EXPECT_EQ(path, reinterpret_cast<char*>(0x1));
  EXPECT_STREQ(desc, "untouched");
  EXPECT_FALSE(PLRGetPidFilename(1, 0, &path, &desc));
  EXPECT_TRUE(LogHas("PLRGetPidFilename - Invalid service name: 5"));
  EXPECT_TRUE(LogHas("PLRGetPidFilename - Invalid service name: 0"));
}

struct PidText {
  std::string text;
  int32_t pid;
};

// Only a plain positive number above 1 on the first line is a PID: anything
// else reads as "no PID", so no caller can ever signal init, a process group
// or every process.
TEST_F(ServiceTableTest, OnlyAPlainNumberOnTheFirstLineIsAPid) {
  Load("");
  const PidText cases[] = {
      {"1234\n", 1234},
      {"1234", 1234},
      {"77\nabc\n", 77},
      {"abc\n", 0},
      {"", 0},
      {"\n", 0},
      {"-5\n", 0},
      {"0\n", 0},
      {"1\n", 0},
      {"4294967295\n", 0},
      {"2147483648\n", 0},
      {"99999999999\n", 0},
      {"12abc\n", 0},
      {"abc\n1234\n", 0},
      {"2147483647\n", 2147483647},
      {std::string(300, '1') + "\n", 0},  // an overlong first line
  };
  for (const PidText& c : cases) {
    WriteFile("/run/test.pid", c.text);
    bool noFile = true;
    EXPECT_EQ(PLRExtractPidFromFile("/run/test.pid", &noFile), c.pid) << '"' << c.text << '"';
    EXPECT_FALSE(noFile) << c.text;
  }
}

TEST_F(ServiceTableTest, MissingFileIsToldApartFromUnreadableOne) {
  Load("");
  bool noFile = false;
  EXPECT_EQ(PLRExtractPidFromFile("/run/none.pid", &noFile), 0);
  EXPECT_TRUE(noFile);
  EXPECT_TRUE(
      LogHas("PLRExtractPidFromFile - Could not open the PID file: /run/none.pid, error: "
             "No such file or directory"));

  // A directory opens but cannot be read: the file exists, it holds no PID.
  ASSERT_EQ(mkdir("/run/dir.pid", 0755), 0);
  noFile = true;
  EXPECT_EQ(PLRExtractPidFromFile("/run/dir.pid", &noFile), 0);
  EXPECT_FALSE(noFile);
}

TEST_F(ServiceTableTest, ReadingPidsLeaksNoDescriptor) {
  Load("");
  WriteFile("/run/a.pid", "4321\n");
  WriteFile("/run/b.pid", "garbage\n");
  std::set<int> before = OpenFds();
  bool noFile;
  for (int i = 0; i < 50; ++i) {
    for (const char* path : {"/run/a.pid", "/run/b.pid", "/run/missing.pid"})
      PLRExtractPidFromFile(path, &noFile);
  }
  EXPECT_EQ(OpenFds(), before);
}

}  // namespace
}  // namespace plr::test
