#include "base/sys-util.h"

#include <errno.h>
#include <fcntl.h>

#include <gtest/gtest.h>

namespace plr {
namespace {

TEST(SysFaults, NthWriteFailsOnceThenWritesAgain) {
  int fd = sys::open("/tmp/f", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  sys::FailNth(sys::Op::kWrite, 2, ENOSPC);
  EXPECT_EQ(sys::write(fd, "a", 1), 1);
  errno = 0;
  EXPECT_EQ(sys::write(fd, "b", 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(sys::write(fd, "c", 1), 1);
  EXPECT_EQ(sys::CallCount(sys::Op::kWrite), 3u);
  sys::ClearFaults();
  close(fd);
}

TEST(SysFaults, FailFromIsSticky) {
  sys::FailFrom(sys::Op::kOpen, 1, EACCES);
  EXPECT_EQ(sys::open("/tmp/g", O_RDONLY | O_CREAT, 0644), -1);
  EXPECT_EQ(sys::open("/tmp/g", O_RDONLY | O_CREAT, 0644), -1);
  EXPECT_EQ(errno, EACCES);
  sys::ClearFaults();
  int fd = sys::open("/tmp/g", O_RDONLY | O_CREAT, 0644);
  EXPECT_GE(fd, 0);
  close(fd);
}

}  // namespace
}  // namespace plr
