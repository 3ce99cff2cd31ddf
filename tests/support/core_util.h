// Log reading and library set-up shared by the core and files tests.
#pragma once

#include <string>
#include <vector>

namespace plr::test {

// The lines of a log file with their time stamps removed ("Nov 15 11:06:43 "),
// so "Nov 15 11:06:43 PLR_Load - LOG_ERR logged" reads "PLR_Load - LOG_ERR logged".
// The API entry and exit blocks span several lines each. A missing file has none.
std::vector<std::string> LogLines(const std::string& path);

// True when `expected` occur in `lines` in this order (other lines may lie between).
bool ContainsInOrder(const std::vector<std::string>& lines,
                     const std::vector<std::string>& expected);

// Number of lines equal to `line`.
int CountLine(const std::vector<std::string>& lines, const std::string& line);

// Writes a database holding `records` and loads the library with every log
// level enabled from then on; fails the test when the load fails.
void LoadWithRecords(const std::string& records = "");

// The 1-based number of the first line of `file` (relative to the source
// tree) that contains `text`, or 0.
int SourceLineOf(const std::string& file, const std::string& text);

}  // namespace plr::test
