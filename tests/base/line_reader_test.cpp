#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/fd-util.h"
#include "base/line-reader.h"

namespace plr {
namespace {

// All lines of `text` as the reader returns them, with the given limit.
std::vector<std::string> Lines(const std::string& text, size_t maxLength = 1024) {
  // fmemopen refuses an empty buffer; /dev/null is the empty stream then.
  UniqueFile f(text.empty() ? fopen("/dev/null", "r")
                            : fmemopen(const_cast<char*>(text.data()), text.size(), "r"));
  EXPECT_TRUE(f);
  LineReader reader(f.get(), maxLength);
  std::vector<std::string> lines;
  std::string line;
  LineReader::Status status;
  while ((status = reader.Next(line)) == LineReader::Status::kLine) lines.push_back(line);
  EXPECT_EQ(status, LineReader::Status::kEof);
  EXPECT_TRUE(line.empty());
  return lines;
}

using V = std::vector<std::string>;

TEST(LineReader, SplitsLines) {
  EXPECT_EQ(Lines(""), V{});
  EXPECT_EQ(Lines("\n"), V{""});
  EXPECT_EQ(Lines("a\nb\n"), (V{"a", "b"}));
  EXPECT_EQ(Lines("a\nb"), (V{"a", "b"}));  // last line without newline
  EXPECT_EQ(Lines("a\n\n\nb\n"), (V{"a", "", "", "b"}));
  EXPECT_EQ(Lines("a\r\nb\r\n"), (V{"a\r", "b\r"}));  // CR is data
  EXPECT_EQ(Lines(std::string("x\0y\n", 4)), V{std::string("x\0y", 3)});
}

TEST(LineReader, CutsOverlongLinesAndDiscardsTheirRest) {
  const std::string l1023(1023, 'a'), l1024(1024, 'b'), l1025(1025, 'c');
  EXPECT_EQ(Lines(l1023 + "\nnext\n"), (V{l1023, "next"}));
  EXPECT_EQ(Lines(l1024 + "\nnext\n"), (V{std::string(1023, 'b'), "next"}));
  EXPECT_EQ(Lines(l1025 + "\nnext"), (V{std::string(1023, 'c'), "next"}));
  EXPECT_EQ(Lines(l1025), V{std::string(1023, 'c')});
  EXPECT_EQ(Lines("abcdef\ngh\n", 4), (V{"abc", "gh"}));
}

TEST(LineReader, ReportsReadErrors) {
  UniqueFile f(fopen("/tmp", "r"));  // a directory: reading fails with EISDIR
  ASSERT_TRUE(f);
  LineReader reader(f.get());
  std::string line;
  EXPECT_EQ(reader.Next(line), LineReader::Status::kError);
  EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace plr
