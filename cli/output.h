// How results reach stdout: tables for people (columns aligned on a
// terminal, one tab between fields otherwise, so cut and awk work), one JSON
// document with --json, nothing at all with --quiet.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace pelorus_cli {

struct OutputMode {
  bool json = false;
  bool quiet = false;
};
OutputMode& Output();

// Rows of text under a header row.
class Table {
 public:
  explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  // Prints the table (header included) unless --quiet.
  void Print() const;

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
};

// A read command's document: printed as JSON with --json; otherwise `human`
// prints it. Nothing with --quiet.
template <class Human>
void Emit(const nlohmann::json& doc, Human&& human) {
  if (Output().quiet) return;
  if (Output().json) {
    fputs((doc.dump(2) + "\n").c_str(), stdout);
    return;
  }
  human();
}

// One line of text for people (not with --json or --quiet).
void Say(const std::string& line);

// A JSON value as table text: strings bare, null as "-", others dumped.
std::string Cell(const nlohmann::json& value);

}  // namespace pelorus_cli
