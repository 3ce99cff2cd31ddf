#include "tests/support/core_util.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {

std::vector<std::string> LogLines(const std::string& path) {
  static const std::regex kStamp("^[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} ");
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(std::regex_replace(line, kStamp, ""));
  return lines;
}

bool ContainsInOrder(const std::vector<std::string>& lines,
                     const std::vector<std::string>& expected) {
  size_t next = 0;
  for (const std::string& line : lines)
    if (next < expected.size() && line == expected[next]) ++next;
  return next == expected.size();
}

int CountLine(const std::vector<std::string>& lines, const std::string& line) {
  int count = 0;
  for (const std::string& l : lines) count += l == line;
  return count;
}

void LoadWithRecords(const std::string& records) {
  WriteDatabase(records);
  ASSERT_TRUE(PLR_Load(0));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
}

int SourceLineOf(const std::string& file, const std::string& text) {
  std::ifstream in(std::string(SourceDir()) + "/" + file);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number)
    if (line.find(text) != std::string::npos) return number;
  return 0;
}

}  // namespace plr::test
