// The default exchange file lives in /tmp, where anyone can plant a link, a
// FIFO or a file of their own: export replaces whatever is there with a file
// of its own, import and merge read only what no one else can have written.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "pelorus.h"
#include "tests/support/services_util.h"

namespace plr::test {
namespace {

constexpr const char* kExchange = "/tmp/networking_export";
constexpr const char* kLinkTarget = "/tmp/created-through-link";

// A root-owned backup file that import and merge accept.
void WriteTrustedBackup(const std::string& path, int mode = 0600) {
  WriteFile(path, "BACKUP_VERSION=1,0\nanswer VNET_6_MTU 1400\n", mode);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

// Files in /etc/tarsis whose names start with ".networking.".
std::vector<std::string> LeftoverTemporaries() {
  std::vector<std::string> found;
  if (DIR* dir = opendir("/etc/tarsis")) {
    while (const dirent* entry = readdir(dir))
      if (std::string(entry->d_name).rfind(".networking.", 0) == 0) found.push_back(entry->d_name);
    closedir(dir);
  }
  return found;
}

using HostilePlaces = LoadedLibraryTest;

TEST_F(HostilePlaces, ExportReplacesWhateverIsPlantedAtItsName) {
  Load("answer VNET_8_NAT yes\n");
  const std::string database = Database();
  const struct {
    const char* name;
    std::function<void()> plant;
  } kPlanted[] = {
      {"link to the live database", [] { ASSERT_EQ(symlink(kDatabasePath, kExchange), 0); }},
      {"dangling link", [] { ASSERT_EQ(symlink(kLinkTarget, kExchange), 0); }},
      {"another user's world-writable file",
       [] {
         WriteFile(kExchange, "BACKUP_VERSION=1,0\n", 0666);
         ASSERT_EQ(chmod(kExchange, 0666) | chown(kExchange, 65534, 65534), 0);
       }},
      {"FIFO", [] { ASSERT_EQ(mkfifo(kExchange, 0666), 0); }},
  };
  for (const auto& planted : kPlanted) {
    SCOPED_TRACE(planted.name);
    unlink(kExchange);
    planted.plant();
    {
      Watchdog guard(10);  // a FIFO opened for writing would block here forever
      ASSERT_TRUE(PLR_ExportDatabaseToFile(nullptr));
    }
    struct stat st;
    ASSERT_EQ(lstat(kExchange, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(ReadFile(kExchange), "BACKUP_VERSION=1,0\nanswer VNET_8_NAT yes\n");
    EXPECT_EQ(Database(), database);
    EXPECT_FALSE(FileExists(kLinkTarget));
  }
}

TEST_F(HostilePlaces, ImportAndMergeReadOnlyFilesNoOneElseCanHaveWritten) {
  Load("answer VNET_8_NAT yes\n");
  const std::string database = Database();
  WriteTrustedBackup("/tmp/trusted");
  const struct {
    const char* name;
    std::function<void()> plant;
    const char* refusal;
  } kPlanted[] = {
      {"link to a trusted backup", [] { ASSERT_EQ(symlink("/tmp/trusted", kExchange), 0); },
       "Refusing to read /tmp/networking_export: it is a symbolic link"},
      {"FIFO", [] { ASSERT_EQ(mkfifo(kExchange, 0600), 0); },
       "Refusing to read /tmp/networking_export: not a regular file"},
      {"another user's file",
       [] {
         WriteTrustedBackup(kExchange, 0600);
         ASSERT_EQ(chown(kExchange, 65534, 65534), 0);
       },
       "Refusing to read /tmp/networking_export: owned by uid 65534, not by root or the caller"},
      {"group-writable file", [] { WriteTrustedBackup(kExchange, 0620); },
       "Refusing to read /tmp/networking_export: writable by others than its owner (mode 0620)"},
      {"world-writable file", [] { WriteTrustedBackup(kExchange, 0646); },
       "Refusing to read /tmp/networking_export: writable by others than its owner (mode 0646)"},
  };
  for (const auto& planted : kPlanted) {
    SCOPED_TRACE(planted.name);
    unlink(kExchange);
    planted.plant();
    const size_t before = LogCount(planted.refusal);
    {
      Watchdog guard(10);  // a FIFO opened for reading would block here forever
      EXPECT_FALSE(PLR_ImportDatabaseFromFile(nullptr));
      EXPECT_FALSE(PLR_MergeDatabaseFromFile(nullptr));
    }
    EXPECT_EQ(LogCount(planted.refusal), before + 2);
    EXPECT_EQ(Database(), database);
  }
  // The same file, owned by root and writable only by it, is merged; the
  // merge leaves no restore point behind.
  unlink(kExchange);
  WriteTrustedBackup(kExchange, 0644);
  ASSERT_TRUE(PLR_MergeDatabaseFromFile(nullptr));
  EXPECT_NE(Database().find("answer VNET_6_MTU 1400\n"), std::string::npos);
  EXPECT_EQ(LeftoverTemporaries(), std::vector<std::string>{});
}

}  // namespace
}  // namespace plr::test
