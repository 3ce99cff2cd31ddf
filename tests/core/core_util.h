// Log reading and library set-up of the core and files tests, kept with them
// until they move to the shared log probe (tests/support/sandbox.h).
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr::test {

// The lines of a log file with their time stamps removed ("Nov 15 11:06:43 ").
// A missing file has none.
inline std::vector<std::string> LogLines(const std::string& path) {
  static const std::regex kStamp("^[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} ");
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);)
    lines.push_back(std::regex_replace(line, kStamp, ""));
  return lines;
}

// True when `expected` occur in `lines` in this order (other lines may lie between).
inline bool ContainsInOrder(const std::vector<std::string>& lines,
                            const std::vector<std::string>& expected) {
  size_t next = 0;
  for (const std::string& line : lines)
    if (next < expected.size() && line == expected[next]) ++next;
  return next == expected.size();
}

// Number of lines equal to `line`.
inline int CountLine(const std::vector<std::string>& lines, const std::string& line) {
  int count = 0;
  for (const std::string& l : lines) count += l == line;
  return count;
}

// Writes a database holding `records` and loads the library with every log
// level enabled from then on; fails the test when the load fails.
inline void LoadWithRecords(const std::string& records = "") {
  WriteDatabase(records);
  ASSERT_TRUE(PLR_Load(0));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
}

// The 1-based number of the first line of `file` (relative to the source
// tree) that contains `text`, or 0.
inline int SourceLineOf(const std::string& file, const std::string& text) {
  std::ifstream in(std::string(SourceDir()) + "/" + file);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number)
    if (line.find(text) != std::string::npos) return number;
  return 0;
}

}  // namespace plr::test
