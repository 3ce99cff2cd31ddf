#include "cli/output.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>

namespace pelorus_cli {

OutputMode& Output() {
  static OutputMode mode;
  return mode;
}

void Table::Print() const {
  if (Output().quiet) return;
  const bool align = isatty(STDOUT_FILENO) != 0;
  std::vector<size_t> width(header_.size(), 0);
  for (size_t i = 0; i < header_.size(); ++i) width[i] = header_[i].size();
  for (const auto& row : rows_)
    for (size_t i = 0; i < row.size() && i < width.size(); ++i)
      width[i] = std::max(width[i], row[i].size());
  auto print = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 == row.size()) break;
      line += align ? std::string(width[i] - row[i].size() + 2, ' ') : "\t";
    }
    fputs((line + "\n").c_str(), stdout);
  };
  print(header_);
  for (const auto& row : rows_) print(row);
}

void Say(const std::string& line) {
  if (!Output().quiet && !Output().json) fputs((line + "\n").c_str(), stdout);
}

std::string Cell(const nlohmann::json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>().empty() ? "-" : value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return value.dump();
}

}  // namespace pelorus_cli
