// Shared helpers of the netcfg tests: private caches, and a canonical text of
// a cache's whole state for comparisons.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "netcfg/db-internal.h"
#include "pelorus/dbapi.h"
#include "tests/support/sandbox.h"

namespace plr::test {

// Loads `path` into a private cache; null on failure.
inline PLRNetworkConfigurationDB* LoadCache(const char* path = kDatabasePath, bool backup = false,
                                            bool readOnly = false) {
  PLRNetworkConfigurationDB* db = nullptr;
  return PLRNetCfgLoad(path, &db, backup, readOnly) ? db : nullptr;
}

// The exported records of a cache plus its prefixes (which a compacted file
// leaves out), sorted; equal texts mean equal caches. BINDIR is never exported.
inline std::string StateOf(PLRNetworkConfigurationDB* db) {
  char* text = nullptr;
  if (!PLRNetCfgExportConfigToBuffer(db, &text, false, true)) return "<export failed>";
  std::istringstream in(text + sizeof "VERSION=1,0");
  free(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet)
    for (const auto& prefix : db->prefixes[vnet] ? *db->prefixes[vnet] : NetCfgStringSet())
      lines.push_back("add_nat_prefix " + std::to_string(vnet) + " " + prefix);
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const auto& line : lines) out += line + "\n";
  return out;
}

// The state a file replays to (a fresh private read-only load).
inline std::string StateOfFile(const char* path = kDatabasePath) {
  PLRNetworkConfigurationDB* db = LoadCache(path, false, true);
  if (db == nullptr) return "<load failed>";
  std::string state = StateOf(db);
  PLRNetCfgUnload(&db, false);
  return state;
}

// A writable private cache of the database holding `records` (Open unloads
// the previous one), unloaded without compaction at the end of the test.
class CacheTest : public ::testing::Test {
 protected:
  void Open(const std::string& records = "") {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
    WriteDatabase(records);
    ASSERT_NE(db_ = LoadCache(), nullptr);
  }
  void TearDown() override {
    if (db_ != nullptr) PLRNetCfgUnload(&db_, false);
  }
  // The journal after the version line.
  static std::string Tail() { return ReadFile(kDatabasePath).substr(sizeof "VERSION=1,0"); }

  PLRNetworkConfigurationDB* db_ = nullptr;
};

}  // namespace plr::test
