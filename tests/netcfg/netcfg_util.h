// Shared helpers of the netcfg tests: private caches, and a canonical text of
// a cache's whole state for comparisons.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "netcfg/db-internal.h"
#include "tests/support/sandbox.h"

namespace plr::test {

// Loads `path` into a private cache; null on failure.
inline PLRNetworkConfigurationDB* LoadCache(const char* path = kDatabasePath, bool backup = false,
                                            bool readOnly = false) {
  PLRNetworkConfigurationDB* db = nullptr;
  return PLRNetCfgLoad(path, &db, backup, readOnly) ? db : nullptr;
}

// Every entry of a cache as sorted lines; equal texts mean equal answers and
// records. BINDIR is left out (it comes from the product configuration).
inline std::string StateOf(const PLRNetworkConfigurationDB* db) {
  std::vector<std::string> lines;
  if (db->answers)
    for (const auto& [key, entry] : *db->answers)
      if (key != "BINDIR") lines.push_back("A " + key + "=" + entry.value);
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    const std::string v = std::to_string(vnet);
    if (db->portFwds[vnet])
      for (bool tcp : {true, false})
        if (const auto& table = db->portFwds[vnet]->group(tcp).table)
          for (const auto& [port, e] : *table)
            lines.push_back("P " + v + (tcp ? " tcp " : " udp ") + std::to_string(port) + " " +
                            e.vmIP + " " + std::to_string(e.vmPort) + " [" + e.description + "]");
    if (db->dhcp[vnet])
      for (const auto& [mac, ip] : db->dhcp[vnet]->table)
        lines.push_back("D " + v + " " + mac + " " + ip);
    if (db->prefixes[vnet])
      for (const auto& prefix : *db->prefixes[vnet]) lines.push_back("X " + v + " " + prefix);
  }
  if (db->bridges)
    for (const auto& [adapter, vnet] : *db->bridges)
      lines.push_back("B " + adapter + " " + std::to_string(vnet));
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
