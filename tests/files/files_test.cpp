// File names by type code, and creating, removing and checking what they name.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string>
#include <tuple>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/support/sandbox.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

constexpr uint32_t kNone = PLR_VNET_NONE;

// The name of a code for vnet 8 in a buffer of `size`, or "<failed>".
std::string Name(uint32_t vnet, uint32_t type, size_t size = PLR_PATH_SIZE) {
  char buf[PLR_PATH_SIZE];
  return PLRGetFileName(vnet, type, buf, size) ? buf : "<failed>";
}
mode_t ModeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

using Files = svc::ServiceTest;

TEST_F(Files, EveryCodeIsNamedCreatedCheckedAndRemoved) {
  Load("");
  const struct {
    uint32_t type;
    const char* path;
    mode_t created;  // 0: the code cannot be created
  } kCodes[] = {
      {PLR_FILE_KAVIX_DEVICE, "/dev/kavix8", S_IFCHR | 0600},
      {PLR_FILE_VNET_DIR, "/etc/tarsis/kavix8", S_IFDIR | 0755},
      {PLR_FILE_DHCP_DIR, "/etc/tarsis/kavix8/dhcpd", S_IFDIR | 0755},
      {PLR_FILE_NAT_DIR, "/etc/tarsis/kavix8/nat", S_IFDIR | 0755},
      {PLR_FILE_DHCP_CONF, "/etc/tarsis/kavix8/dhcpd/dhcpd.conf", S_IFREG | 0644},
      {PLR_FILE_DHCP_CONF_BAK, "/etc/tarsis/kavix8/dhcpd/dhcpd.conf.bak", S_IFREG | 0644},
      {PLR_FILE_DHCP_LEASES, "/etc/tarsis/kavix8/dhcpd/dhcpd.leases", S_IFREG | 0644},
      {PLR_FILE_DHCP_LEASES_OLD, "/etc/tarsis/kavix8/dhcpd/dhcpd.leases~", S_IFREG | 0644},
      {PLR_FILE_NAT_CONF, "/etc/tarsis/kavix8/nat/nat.conf", S_IFREG | 0644},
      {PLR_FILE_NAT_CONF_BAK, "/etc/tarsis/kavix8/nat/nat.conf.bak", S_IFREG | 0644},
      {PLR_FILE_NAT_MAC, "/etc/tarsis/kavix8/nat.mac", 0},
      {PLR_FILE_NETWORKING, "/etc/tarsis/networking", 0},
      {PLR_FILE_TARSIS_CONFIG, "/etc/tarsis/config", 0}};
  umask(077);
  for (const auto& c : kCodes) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(Name(8, c.type, strlen(c.path) + 1), c.path);
    EXPECT_EQ(Name(8, c.type, strlen(c.path)), "<failed>");
    EXPECT_EQ(PLRCreateFile(8, c.type, nullptr), c.created != 0);
    EXPECT_TRUE(c.created == 0 || ModeOf(c.path) == c.created) << std::oct << ModeOf(c.path);
    EXPECT_EQ(PLRFileExists(8, c.type, nullptr), c.created != 0);
  }
  EXPECT_EQ(umask(077), 077u) << "the caller's umask is restored";
  struct stat st;
  ASSERT_EQ(stat("/dev/kavix8", &st), 0);
  EXPECT_EQ(st.st_rdev, makedev(119, 8));
  EXPECT_TRUE(PLRCreateFile(8, PLR_FILE_KAVIX_DEVICE, nullptr)) << "an existing node is fine";
  EXPECT_FALSE(PLRRemoveFile(8, PLR_FILE_VNET_DIR, nullptr)) << "not empty";
  WriteFile("/etc/tarsis/kavix8/nat.mac", "");
  for (size_t i = std::size(kCodes); i-- > 0;) {
    const bool removable = kCodes[i].created != 0 || kCodes[i].type == PLR_FILE_NAT_MAC;
    EXPECT_EQ(PLRRemoveFile(8, kCodes[i].type, nullptr), removable) << kCodes[i].path;
    EXPECT_EQ(FileExists(kCodes[i].path), !removable) << kCodes[i].path;
  }
  EXPECT_TRUE(PLRRemoveFile(8, PLR_FILE_VNET_DIR, nullptr)) << "missing counts as removed";
  EXPECT_EQ(Name(kNone, PLR_FILE_NETWORKING), "/etc/tarsis/networking");
  EXPECT_EQ(Name(256, PLR_FILE_KAVIX_DEVICE), "<failed>");
  EXPECT_FALSE(PLRCreateFile(300, PLR_FILE_KAVIX_DEVICE, nullptr));
  for (uint32_t type : {uint32_t{PLR_FILE_CUSTOM}, 14u, 0xFFFFFFFFu})
    EXPECT_TRUE(Name(8, type) == "<failed>" && !PLRCreateFile(8, type, nullptr) &&
                !PLRFileExists(8, type, nullptr))
        << type;
  // Exists checks the kind; create keeps an existing file; a custom name goes only with the
  // custom code and holds at most 255 bytes; a failed create leaves nothing at the path, even
  // what stood there before, and restores the umask; a failed remove keeps the file.
  ASSERT_EQ(mknod("/dev/kavix5", S_IFBLK | 0600, makedev(7, 0)), 0);  // a block device will do
  ASSERT_EQ(test::Run("mkdir -p /etc/tarsis/kavix2/nat/nat.conf /etc/tarsis/kavix4"), 0);
  for (const char* path : {"/dev/kavix6", "/etc/tarsis/kavix3", "/dev/kavix4", "/tmp/old"})
    WriteFile(path, "keep me", 0600);
  EXPECT_TRUE(PLRFileExists(5, PLR_FILE_KAVIX_DEVICE, nullptr) &&
              PLRFileExists(kNone, PLR_FILE_CUSTOM, "/etc/tarsis/kavix2"));
  EXPECT_FALSE(PLRFileExists(6, PLR_FILE_KAVIX_DEVICE, nullptr) ||
               PLRFileExists(3, PLR_FILE_VNET_DIR, nullptr) ||
               PLRFileExists(2, PLR_FILE_NAT_CONF, nullptr));
  EXPECT_TRUE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, "/tmp/old"));
  EXPECT_EQ(ReadFile("/tmp/old"), "keep me");
  EXPECT_EQ(ModeOf("/tmp/old"), S_IFREG | 0600u);
  EXPECT_FALSE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, nullptr) ||
               PLRCreateFile(1, PLR_FILE_VNET_DIR, "/tmp/not-created") ||
               PLRRemoveFile(kNone, PLR_FILE_CUSTOM, nullptr) ||
               PLRFileExists(kNone, PLR_FILE_CUSTOM, nullptr));
  EXPECT_FALSE(FileExists("/tmp/not-created") || FileExists("/etc/tarsis/kavix1"));
  const std::string longest = "/tmp/" + std::string(250, 'n'), tooLong = longest + "n";
  EXPECT_TRUE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, longest.c_str()) &&
              PLRFileExists(kNone, PLR_FILE_CUSTOM, longest.c_str()) &&
              PLRRemoveFile(kNone, PLR_FILE_CUSTOM, longest.c_str()));
  EXPECT_FALSE(FileExists(longest));
  WriteFile(tooLong, "");
  EXPECT_FALSE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, tooLong.c_str()) ||
               PLRFileExists(kNone, PLR_FILE_CUSTOM, tooLong.c_str()) ||
               PLRRemoveFile(kNone, PLR_FILE_CUSTOM, tooLong.c_str()));
  EXPECT_TRUE(FileExists(tooLong));
  umask(027);
  for (auto [op, vnet, type, custom, path] :
       {std::tuple<sys::Op, uint32_t, uint32_t, const char*, const char*>{
            sys::Op::kMknod, 4u, PLR_FILE_KAVIX_DEVICE, nullptr, "/dev/kavix4"},
        {sys::Op::kMkdir, 4u, PLR_FILE_VNET_DIR, nullptr, "/etc/tarsis/kavix4"},
        {sys::Op::kOpen, kNone, PLR_FILE_CUSTOM, "/tmp/old", "/tmp/old"}}) {
    sys::FailNth(op, 1, EACCES);
    EXPECT_FALSE(PLRCreateFile(vnet, type, custom)) << path;
    sys::ClearFaults();
    EXPECT_FALSE(FileExists(path)) << path;
  }
  EXPECT_EQ(umask(027), 027u);
  sys::FailNth(sys::Op::kOpen, 1, EEXIST);  // only a race makes open report EEXIST
  EXPECT_TRUE(PLRCreateFile(kNone, PLR_FILE_CUSTOM, "/tmp/raced"));
  sys::FailNth(sys::Op::kUnlink, 1, EBUSY);
  EXPECT_FALSE(PLRRemoveFile(kNone, PLR_FILE_CUSTOM, "/dev/kavix6"));
  sys::ClearFaults();
  EXPECT_TRUE(FileExists("/dev/kavix6"));
  PLR_Unload();
  Load("answer CONFIGDIR /tmp/conf\n");
  EXPECT_EQ(Name(3, PLR_FILE_DHCP_DIR), "/tmp/conf/kavix3/dhcpd");
  EXPECT_EQ(Name(3, PLR_FILE_KAVIX_DEVICE), "/dev/kavix3");
}

}  // namespace
}  // namespace plr::test
