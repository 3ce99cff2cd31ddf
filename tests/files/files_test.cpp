// File names by type code, and creating, removing and checking the files,
// directories and kavix device nodes they name.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/core/core_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

constexpr uint32_t kNone = PLR_VNET_NONE;

class FilesTest : public testing::Test {
 protected:
  void SetUp() override { LoadWithRecords(records()); }
  void TearDown() override {
    sys::ClearFaults();
    PLR_Unload();
  }
  virtual std::string records() const { return ""; }
  static int Count(const std::string& line) { return CountLine(LogLines(kLogPath), line); }
  static std::string Name(uint32_t vnet, uint32_t type) {
    char buf[PLR_PATH_SIZE];
    return PLRGetFileName(vnet, type, buf, sizeof buf) ? buf : "<failed>";
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
  }
  // Creates the vnet's directory tree, as the service code does before its files.
  static void CreateVnetDirs(uint32_t vnet) {
    for (uint32_t type : {PLR_FILE_VNET_DIR, PLR_FILE_DHCP_DIR, PLR_FILE_NAT_DIR})
      ASSERT_TRUE(PLRCreateFile(vnet, type, nullptr)) << type;
  }
};

TEST_F(FilesTest, NamesOfEveryCode) {
  const std::pair<uint32_t, const char*> names[] = {
      {PLR_FILE_VNET_DIR, "/etc/tarsis/kavix8"},
      {PLR_FILE_DHCP_DIR, "/etc/tarsis/kavix8/dhcpd"},
      {PLR_FILE_NAT_DIR, "/etc/tarsis/kavix8/nat"},
      {PLR_FILE_DHCP_CONF, "/etc/tarsis/kavix8/dhcpd/dhcpd.conf"},
      {PLR_FILE_DHCP_CONF_BAK, "/etc/tarsis/kavix8/dhcpd/dhcpd.conf.bak"},
      {PLR_FILE_DHCP_LEASES, "/etc/tarsis/kavix8/dhcpd/dhcpd.leases"},
      {PLR_FILE_DHCP_LEASES_OLD, "/etc/tarsis/kavix8/dhcpd/dhcpd.leases~"},
      {PLR_FILE_NAT_MAC, "/etc/tarsis/kavix8/nat.mac"},
      {PLR_FILE_NAT_CONF, "/etc/tarsis/kavix8/nat/nat.conf"},
      {PLR_FILE_NAT_CONF_BAK, "/etc/tarsis/kavix8/nat/nat.conf.bak"},
      {PLR_FILE_KAVIX_DEVICE, "/dev/kavix8"},
      {PLR_FILE_NETWORKING, "/etc/tarsis/networking"},
      {PLR_FILE_TARSIS_CONFIG, "/etc/tarsis/config"},
  };
  for (const auto& [type, path] : names) EXPECT_EQ(Name(8, type), path) << type;
  EXPECT_EQ(Name(kNone, PLR_FILE_NETWORKING), "/etc/tarsis/networking");
  EXPECT_EQ(Name(255, PLR_FILE_KAVIX_DEVICE), "/dev/kavix255");
}

TEST_F(FilesTest, CustomUnknownAndUnnamableCodesHaveNoName) {
  size_t linesBefore = LogLines(kLogPath).size();
  EXPECT_EQ(Name(8, PLR_FILE_CUSTOM), "<failed>");
  EXPECT_EQ(Name(8, 14), "<failed>");
  EXPECT_EQ(Name(8, 0xFFFFFFFFu), "<failed>");
  EXPECT_EQ(LogLines(kLogPath).size(), linesBefore) << "no line for these codes";
  EXPECT_EQ(Name(256, PLR_FILE_KAVIX_DEVICE), "<failed>") << "no vnet name above 255";
}

TEST_F(FilesTest, TooSmallBufferIsAFormattingError) {
  char buf[20];
  EXPECT_FALSE(PLRGetFileName(8, PLR_FILE_DHCP_CONF, buf, sizeof buf));
  EXPECT_EQ(Count("PLRGetFileName - Error formatting the file name for file type: 5from cD: "
                  "/etc/tarsis, vnet: 8"),
            1);
  // The longest name fits one byte exactly and no less.
  std::string longest = "/etc/tarsis/kavix8/dhcpd/dhcpd.conf.bak";
  char exact[64];
  EXPECT_TRUE(PLRGetFileName(8, PLR_FILE_DHCP_CONF_BAK, exact, longest.size() + 1));
  EXPECT_FALSE(PLRGetFileName(8, PLR_FILE_DHCP_CONF_BAK, exact, longest.size()));
  EXPECT_TRUE(PLRGetFileName(8, PLR_FILE_KAVIX_DEVICE, exact, 12));
  EXPECT_FALSE(PLRGetFileName(8, PLR_FILE_KAVIX_DEVICE, exact, 11));
}

class ConfigDirTest : public FilesTest {
  std::string records() const override { return "answer CONFIGDIR /tmp/conf\n"; }
};

TEST_F(ConfigDirTest, ConfigDirAnswerMovesEveryNameButTheDevice) {
  EXPECT_EQ(Name(3, PLR_FILE_DHCP_DIR), "/tmp/conf/kavix3/dhcpd");
  EXPECT_EQ(Name(kNone, PLR_FILE_NETWORKING), "/tmp/conf/networking");
  EXPECT_EQ(Name(3, PLR_FILE_KAVIX_DEVICE), "/dev/kavix3");
  ASSERT_EQ(mkdir("/tmp/conf", 0755), 0);
  EXPECT_TRUE(PLRCreateFile(3, PLR_FILE_VNET_DIR, nullptr));
  EXPECT_TRUE(S_ISDIR(ModeOf("/tmp/conf/kavix3")));
}

TEST_F(FilesTest, CreateExistsRemoveForEveryCreatableCode) {
  umask(077);
  CreateVnetDirs(4);
  for (uint32_t type : {PLR_FILE_VNET_DIR, PLR_FILE_DHCP_DIR, PLR_FILE_NAT_DIR}) {
    EXPECT_EQ(ModeOf(Name(4, type)), S_IFDIR | 0755u) << type;
    EXPECT_TRUE(PLRFileExists(4, type, nullptr)) << type;
  }
  const uint32_t files[] = {PLR_FILE_DHCP_CONF,   PLR_FILE_DHCP_CONF_BAK,
                            PLR_FILE_DHCP_LEASES, PLR_FILE_DHCP_LEASES_OLD,
                            PLR_FILE_NAT_CONF,    PLR_FILE_NAT_CONF_BAK};
  for (uint32_t type : files) {
    ASSERT_TRUE(PLRCreateFile(4, type, nullptr)) << type;
    EXPECT_EQ(ModeOf(Name(4, type)), S_IFREG | 0644u) << type;
    EXPECT_TRUE(PLRFileExists(4, type, nullptr)) << type;
    EXPECT_EQ(Count("PLRCreateFile - File: " + Name(4, type) + " created"), 1);
  }
  EXPECT_EQ(umask(077), 077u) << "the caller's umask is restored";

  for (uint32_t type : files) {
    EXPECT_TRUE(PLRRemoveFile(4, type, nullptr)) << type;
    EXPECT_FALSE(FileExists(Name(4, type))) << type;
    EXPECT_FALSE(PLRFileExists(4, type, nullptr)) << type;
  }
  for (uint32_t type : {PLR_FILE_NAT_DIR, PLR_FILE_DHCP_DIR, PLR_FILE_VNET_DIR}) {
    EXPECT_TRUE(PLRRemoveFile(4, type, nullptr)) << type;
    EXPECT_EQ(Count("PLRRemoveFile - Directory: " + Name(4, type) + " deleted"), 1);
  }
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix4"));
  EXPECT_EQ(Count("PLRFileExists - Cannot check for file or directory: "
                  "/etc/tarsis/kavix4/nat/nat.conf , error: No such file or directory"),
            1);
}

TEST_F(FilesTest, ExistingFileIsKeptWithoutWarning) {
  CreateVnetDirs(1);
  std::string path = Name(1, PLR_FILE_NAT_CONF);
  WriteFile(path, "keep me", 0600);
  EXPECT_TRUE(PLRCreateFile(1, PLR_FILE_NAT_CONF, nullptr));
  EXPECT_EQ(ReadFile(path), "keep me") << "no truncation";
  EXPECT_EQ(ModeOf(path), S_IFREG | 0600u) << "an existing file keeps its mode";
  EXPECT_EQ(Count("PLRCreateFile - File: " + path + " already exists"), 0);
  EXPECT_EQ(Count("PLRCreateFile - File: " + path + " created"), 1);
  sys::FailNth(sys::Op::kOpen, 1, EEXIST);  // only a race makes open report EEXIST
  EXPECT_TRUE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, "/tmp/raced"));
  EXPECT_EQ(Count("PLRCreateFile - File: /tmp/raced already exists"), 1);
}

TEST_F(FilesTest, ExistingDirectoryIsAWarningOnly) {
  CreateVnetDirs(1);
  EXPECT_TRUE(PLRCreateFile(1, PLR_FILE_VNET_DIR, nullptr));
  EXPECT_EQ(Count("PLRCreateFile - Directory: /etc/tarsis/kavix1 already exists"), 1);
  EXPECT_EQ(Count("PLRCreateFile - Directory: /etc/tarsis/kavix1 created"), 1);
}

TEST_F(FilesTest, DeviceNodeIsCharacterMajor119MinorVnet) {
  umask(0);
  ASSERT_TRUE(PLRCreateFile(7, PLR_FILE_KAVIX_DEVICE, nullptr));
  struct stat st;
  ASSERT_EQ(stat("/dev/kavix7", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(major(st.st_rdev), 119u);
  EXPECT_EQ(minor(st.st_rdev), 7u);
  EXPECT_TRUE(PLRFileExists(7, PLR_FILE_KAVIX_DEVICE, nullptr));

  size_t linesBefore = LogLines(kLogPath).size();
  EXPECT_TRUE(PLRCreateFile(7, PLR_FILE_KAVIX_DEVICE, nullptr));
  EXPECT_EQ(LogLines(kLogPath).size(), linesBefore) << "an existing node is fine, silently";

  EXPECT_TRUE(PLRRemoveFile(7, PLR_FILE_KAVIX_DEVICE, nullptr));
  EXPECT_FALSE(FileExists("/dev/kavix7"));
  EXPECT_EQ(Count("PLRRemoveFile - File: /dev/kavix7 deleted"), 1);
  EXPECT_FALSE(PLRCreateFile(300, PLR_FILE_KAVIX_DEVICE, nullptr));
  EXPECT_EQ(Count("PLRCreateFile - Cannot construct file name"), 1);
}

TEST_F(FilesTest, ExistsChecksTheKindOfEachCode) {
  // A block device passes the device check; a regular file does not.
  ASSERT_EQ(mknod("/dev/kavix5", S_IFBLK | 0600, makedev(7, 0)), 0);
  EXPECT_TRUE(PLRFileExists(5, PLR_FILE_KAVIX_DEVICE, nullptr));
  WriteFile("/dev/kavix6", "");
  EXPECT_FALSE(PLRFileExists(6, PLR_FILE_KAVIX_DEVICE, nullptr));
  EXPECT_EQ(Count("PLRFileExists - File/Directory/device of type: 13 and name: /dev/kavix6 is "
                  "found but is not of valid type"),
            1);
  // A file where a directory belongs, and a directory where a file belongs.
  WriteFile("/etc/tarsis/kavix3", "");
  EXPECT_FALSE(PLRFileExists(3, PLR_FILE_VNET_DIR, nullptr));
  ASSERT_EQ(mkdir("/etc/tarsis/kavix2", 0755), 0);
  ASSERT_EQ(mkdir("/etc/tarsis/kavix2/nat", 0755), 0);
  ASSERT_EQ(mkdir("/etc/tarsis/kavix2/nat/nat.conf", 0755), 0);
  EXPECT_FALSE(PLRFileExists(2, PLR_FILE_NAT_CONF, nullptr));
  EXPECT_EQ(Count("PLRFileExists - File/Directory/Device: /etc/tarsis/kavix2/nat/nat.conf exists"),
            1);
  // The custom code accepts anything that exists.
  EXPECT_TRUE(PLRFileExists(kNone, PLR_FILE_CUSTOM, "/etc/tarsis/kavix2"));
  EXPECT_TRUE(PLRFileExists(kNone, PLR_FILE_CUSTOM, "/dev/null"));
}

TEST_F(FilesTest, CodesWithoutAnOperationAreRefused) {
  CreateVnetDirs(2);
  for (uint32_t type : {0u, 9u, 12u, 14u})  // networking, nat.mac, config, unknown
    EXPECT_FALSE(PLRCreateFile(2, type, nullptr)) << type;
  EXPECT_FALSE(FileExists(Name(2, PLR_FILE_NAT_MAC)));
  EXPECT_FALSE(FileExists("/etc/tarsis/config"));

  WriteFile(Name(2, PLR_FILE_NAT_MAC), "00:11:22:33:44:55");
  EXPECT_FALSE(PLRFileExists(2, PLR_FILE_NAT_MAC, nullptr));
  EXPECT_TRUE(PLRRemoveFile(2, PLR_FILE_NAT_MAC, nullptr)) << "nat.mac can only be removed";
  EXPECT_FALSE(FileExists(Name(2, PLR_FILE_NAT_MAC)));

  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_NETWORKING, nullptr));
  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_TARSIS_CONFIG, nullptr));
  EXPECT_TRUE(FileExists(kDatabasePath)) << "the database is never removed by code";
  EXPECT_FALSE(PLRFileExists(kNone, PLR_FILE_NETWORKING, nullptr));

  // A custom name goes only with the custom code, and the custom code needs one.
  const int invalidBefore = Count("PLRCreateFile - Invalid arguments");
  EXPECT_FALSE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, nullptr));
  EXPECT_FALSE(PLRCreateFile(1, PLR_FILE_VNET_DIR, "/tmp/x"));
  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, nullptr));
  EXPECT_FALSE(PLRFileExists(kNone, PLR_FILE_CUSTOM, nullptr));
  EXPECT_FALSE(FileExists("/tmp/x"));
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix1"));
  EXPECT_EQ(Count("PLRCreateFile - Invalid arguments"), invalidBefore + 2);
}

TEST_F(FilesTest, CustomNameOf255IsAcceptedAnd256Refused) {
  std::string longest = "/tmp/" + std::string(250, 'n');
  std::string tooLong = longest + "n";
  ASSERT_EQ(longest.size(), 255u);
  EXPECT_TRUE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, longest.c_str()));
  EXPECT_TRUE(PLRFileExists(kNone, PLR_FILE_CUSTOM, longest.c_str()));
  EXPECT_TRUE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, longest.c_str()));
  EXPECT_FALSE(FileExists(longest));

  EXPECT_FALSE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, tooLong.c_str()));
  EXPECT_FALSE(PLRFileExists(kNone, PLR_FILE_CUSTOM, tooLong.c_str()));
  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, tooLong.c_str()));
  EXPECT_EQ(Count("PLRCreateFile - Custom file name " + tooLong +
                  " is longer than allowed 256 characters"),
            1);
  EXPECT_EQ(Count("PLRRemoveFile - Custom file name " + tooLong +
                  " is longer than allowed 256 characters"),
            1);
}

TEST_F(FilesTest, RemoveOfMissingSucceedsAndOfNonEmptyDirOrOnFaultFails) {
  EXPECT_TRUE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, "/tmp/none"));
  EXPECT_TRUE(PLRRemoveFile(9, PLR_FILE_VNET_DIR, nullptr));
  EXPECT_EQ(Count("PLRRemoveFile - File /tmp/none does not exist"), 1);
  EXPECT_EQ(Count("PLRRemoveFile - Directory /etc/tarsis/kavix9 does not exist"), 1);

  CreateVnetDirs(6);
  EXPECT_FALSE(PLRRemoveFile(6, PLR_FILE_VNET_DIR, nullptr));
  EXPECT_TRUE(FileExists("/etc/tarsis/kavix6/nat"));
  EXPECT_EQ(Count("PLRRemoveFile - Cannot delete Directory: /etc/tarsis/kavix6 because of: "
                  "Directory not empty"),
            1);

  WriteFile("/tmp/busy", "");
  sys::FailNth(sys::Op::kUnlink, 1, EBUSY);
  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, "/tmp/busy"));
  EXPECT_TRUE(FileExists("/tmp/busy"));
  EXPECT_EQ(Count("PLRRemoveFile - Cannot delete File: /tmp/busy because of: Device or resource "
                  "busy"),
            1);
}

TEST_F(FilesTest, FailedCreateClearsWhateverStandsAtThePath) {
  // A regular file where the device node belongs, and mknod refused.
  WriteFile("/dev/kavix4", "stale");
  sys::FailNth(sys::Op::kMknod, 1, EPERM);
  EXPECT_FALSE(PLRCreateFile(4, PLR_FILE_KAVIX_DEVICE, nullptr));
  EXPECT_FALSE(FileExists("/dev/kavix4"));
  EXPECT_EQ(Count("PLRCreateFile - Creating kavix device failed, error: Operation not permitted"),
            1);

  // An empty directory standing where mkdir is refused.
  ASSERT_EQ(mkdir("/etc/tarsis/kavix4", 0700), 0);
  sys::FailNth(sys::Op::kMkdir, 1, EACCES);
  umask(027);
  EXPECT_FALSE(PLRCreateFile(4, PLR_FILE_VNET_DIR, nullptr));
  EXPECT_EQ(umask(027), 027u) << "the umask is restored on failure too";
  EXPECT_FALSE(FileExists("/etc/tarsis/kavix4"));
  EXPECT_EQ(Count("PLRCreateFile - Cannot create Directory: /etc/tarsis/kavix4 because of: "
                  "Permission denied"),
            1);

  // A file whose creation is refused is removed too, even one that existed.
  WriteFile("/tmp/old", "old");
  sys::FailNth(sys::Op::kOpen, 1, EROFS);
  EXPECT_FALSE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, "/tmp/old"));
  EXPECT_FALSE(FileExists("/tmp/old"));
  EXPECT_EQ(Count("PLRCreateFile - Cannot create File: /tmp/old because of: Read-only file system"),
            1);
}

TEST(FilesUnloaded, NamesUseTheDefaultConfigDir) {
  char buf[PLR_PATH_SIZE];
  ASSERT_TRUE(PLRGetFileName(kNone, PLR_FILE_NETWORKING, buf, sizeof buf));
  EXPECT_STREQ(buf, "/etc/tarsis/networking");
  ASSERT_TRUE(PLRCreateFile(12, PLR_FILE_VNET_DIR, nullptr));
  struct stat st;
  ASSERT_EQ(stat("/etc/tarsis/kavix12", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

}  // namespace
}  // namespace plr::test
