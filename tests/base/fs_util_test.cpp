#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "base/fs-util.h"
#include "base/sys-util.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

constexpr const char* kDir = "/tmp/replace";
constexpr const char* kFile = "/tmp/replace/networking";

std::set<std::string> Entries(const char* dir) {
  std::set<std::string> names;
  DIR* d = opendir(dir);
  EXPECT_NE(d, nullptr);
  while (struct dirent* e = d ? readdir(d) : nullptr)
    if (e->d_name[0] != '.' || (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")))
      names.insert(e->d_name);
  if (d) closedir(d);
  return names;
}

// The fault-injecting write of the call table, chained under short writes.
ssize_t (*gInjectingWrite)(int, const void*, size_t);

ssize_t ShortWrite(int fd, const void* buf, size_t n) {
  return gInjectingWrite(fd, buf, n < 4096 ? n : 4096);
}

mode_t ModeOf(const char* path) {
  struct stat st = {};
  EXPECT_EQ(stat(path, &st), 0);
  return st.st_mode & 07777;
}

class ReplaceFile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(kDir, 0755), 0);
    test::WriteFile(kFile, "old\n", 0640);
  }
  void TearDown() override { sys::ClearFaults(); }
};

TEST_F(ReplaceFile, ReplacesContentAndModeLeavingNoTemporary) {
  umask(022);
  const std::string data(200000, 'n');
  ASSERT_TRUE(ReplaceFileAtomically(kFile, data, 0664));
  EXPECT_TRUE(test::ReadFile(kFile) == data) << "content differs";
  EXPECT_EQ(ModeOf(kFile), 0664u) << "the mode is exact, not masked";
  EXPECT_EQ(Entries(kDir), std::set<std::string>{"networking"});
  EXPECT_EQ(sys::CallCount(sys::Op::kFsync), 2u) << "file and directory";
  EXPECT_EQ(sys::CallCount(sys::Op::kRename), 1u);
}

TEST_F(ReplaceFile, EmptyContentAndRelativePath) {
  ASSERT_EQ(chdir(kDir), 0);
  ASSERT_TRUE(ReplaceFileAtomically("networking", "", 0600));
  EXPECT_EQ(test::ReadFile(kFile), "");
  EXPECT_EQ(Entries(kDir), std::set<std::string>{"networking"});
}

TEST_F(ReplaceFile, FaultBeforeRenameKeepsOldFileAndRemovesTemporary) {
  struct Fault {
    sys::Op op;
    unsigned nth;
    int err;
  } faults[] = {{sys::Op::kOpen, 1, EMFILE},
                {sys::Op::kWrite, 1, ENOSPC},
                {sys::Op::kWrite, 2, EIO},
                {sys::Op::kFsync, 1, EIO},
                {sys::Op::kRename, 1, EXDEV}};
  const std::string data(100000, 'n');  // large enough to need several writes
  for (const Fault& f : faults) {
    SCOPED_TRACE("op " + std::to_string(static_cast<int>(f.op)) + " call " + std::to_string(f.nth));
    sys::ClearFaults();
    sys::FailNth(f.op, f.nth, f.err);
    // Short writes make the second write call, and its fault, reachable.
    gInjectingWrite = sys::calls().write;
    sys::calls().write = ShortWrite;
    errno = 0;
    EXPECT_FALSE(ReplaceFileAtomically(kFile, data, 0644));
    EXPECT_EQ(errno, f.err);
    sys::ResetCalls();
    EXPECT_TRUE(test::ReadFile(kFile) == "old\n") << "the old file changed";
    EXPECT_EQ(ModeOf(kFile), 0640u);
    EXPECT_EQ(Entries(kDir), std::set<std::string>{"networking"});
  }
}

TEST_F(ReplaceFile, DirectorySyncFailureIsReportedAfterTheReplace) {
  sys::FailNth(sys::Op::kFsync, 2, EIO);
  EXPECT_FALSE(ReplaceFileAtomically(kFile, "new\n", 0644));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(test::ReadFile(kFile), "new\n");
  EXPECT_EQ(Entries(kDir), std::set<std::string>{"networking"});
}

TEST(ReadWholeFile, ReadsEverythingOrFails) {
  const std::string data(300000, 'r');
  test::WriteFile("/tmp/whole", data);
  std::string out = "stale";
  ASSERT_TRUE(ReadWholeFile("/tmp/whole", &out));
  EXPECT_TRUE(out == data) << "read " << out.size() << " of " << data.size() << " bytes";
  EXPECT_FALSE(ReadWholeFile("/tmp/absent", &out));
  EXPECT_EQ(errno, ENOENT);
  sys::FailNth(sys::Op::kRead, 2, EIO);
  EXPECT_FALSE(ReadWholeFile("/tmp/whole", &out));
  EXPECT_EQ(errno, EIO);
  sys::ClearFaults();
}

TEST(FsyncParentDir, SyncsTheDirectoryOfAPath) {
  EXPECT_TRUE(FsyncParentDir("/tmp/anything"));
  EXPECT_TRUE(FsyncParentDir("/top-level"));
  EXPECT_FALSE(FsyncParentDir("/tmp/no-such-dir/file"));
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace plr
