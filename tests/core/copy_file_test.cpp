// Copying a file over another in place: contents, creation of the
// destination, and every failure leaving its one line.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/sys-util.h"
#include "pelorus.h"
#include "tests/core/core_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

class CopyFileTest : public testing::Test {
 protected:
  void SetUp() override { LoadWithRecords(); }
  void TearDown() override {
    sys::ClearFaults();
    PLR_Unload();
  }
  static int Count(const std::string& line) { return CountLine(LogLines(kLogPath), line); }
};

// Text of `size` bytes that differs from chunk to chunk, so misplaced chunks show.
std::string Pattern(size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i)
    text.push_back(static_cast<char>('a' + (i * 7 + i / 1024) % 26));
  return text;
}

TEST_F(CopyFileTest, CopiesAcrossChunkBoundariesAndTruncatesTheOldContent) {
  for (size_t size : {0u, 1u, 1023u, 1024u, 1025u, 5000u}) {
    std::string source = Pattern(size);
    WriteFile("/tmp/src", source);
    WriteFile("/tmp/dst", std::string(6000, 'z'));
    ASSERT_TRUE(PLRCopyFile("/tmp/src", "/tmp/dst")) << size;
    EXPECT_EQ(ReadFile("/tmp/dst"), source) << size;
  }
  EXPECT_EQ(Count("PLRCopyFile - Finished reading from source file: /tmp/src"), 6);
  umask(077);
  ASSERT_TRUE(PLRCopyFile("/tmp/src", "/tmp/new"));
  struct stat st;
  ASSERT_EQ(stat("/tmp/new", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u) << "a missing destination is created 0644";
  EXPECT_EQ(ReadFile("/tmp/new"), Pattern(5000));
  EXPECT_EQ(umask(077), 077u) << "the caller's umask is back";
}

TEST_F(CopyFileTest, BadArgumentsAndUnopenableFilesFail) {
  EXPECT_FALSE(PLRCopyFile(nullptr, "/tmp/dst"));
  EXPECT_FALSE(PLRCopyFile("/tmp/src", nullptr));
  EXPECT_EQ(Count("PLRCopyFile - Invalid arguments"), 2);
  EXPECT_FALSE(FileExists("/tmp/dst"));
  EXPECT_FALSE(PLRCopyFile("/tmp/nothing", "/tmp/dst"));
  EXPECT_EQ(Count("PLRCopyFile - Could not open source file: /tmp/nothing, error: No such file or "
                  "directory"),
            1);
  EXPECT_TRUE(FileExists("/tmp/dst")) << "the destination is opened first";
  WriteFile("/tmp/src", "data");
  EXPECT_FALSE(PLRCopyFile("/tmp/src", "/tmp/no-dir/dst"));
  EXPECT_EQ(Count("PLRCopyFile - Could not open destination file: /tmp/no-dir/dst, error: No such "
                  "file or directory"),
            1);
}

TEST_F(CopyFileTest, ReadAndWriteFaultsFailWithoutRollback) {
  WriteFile("/tmp/src", Pattern(3000));
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);
  EXPECT_FALSE(PLRCopyFile("/tmp/src", "/tmp/dst"));
  EXPECT_EQ(Count("PLRCopyFile - Writing to destination file: /tmp/dst failed, error: No space "
                  "left on device"),
            1);
  EXPECT_EQ(ReadFile("/tmp/dst"), Pattern(3000).substr(0, 1024)) << "no rollback, by design";
  sys::ClearFaults();
  sys::FailNth(sys::Op::kRead, 1, EIO);
  EXPECT_FALSE(PLRCopyFile("/tmp/src", "/tmp/dst"));
  EXPECT_EQ(Count("PLRCopyFile - Reading from source file: /tmp/src failed, error: Input/output "
                  "error"),
            1);
}

TEST_F(CopyFileTest, DescriptorZeroIsLeftOpen) {
  WriteFile("/tmp/src", "data");
  int saved = dup(0);
  ASSERT_GE(saved, 0);
  close(0);  // the source is opened as descriptor 0
  EXPECT_TRUE(PLRCopyFile("/tmp/src", "/tmp/dst"));
  bool zeroOpen = fcntl(0, F_GETFD) != -1;
  dup2(saved, 0);
  close(saved);
  EXPECT_TRUE(zeroOpen);
  EXPECT_EQ(ReadFile("/tmp/dst"), "data");
}

}  // namespace
}  // namespace plr::test
