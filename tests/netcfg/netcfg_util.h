// Shared helpers of the netcfg tests: log capture, private caches, and a
// canonical text of a cache's whole state for comparisons.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "netcfg/db-internal.h"
#include "pelorus/core.h"
#include "tests/support/sandbox.h"

namespace plr::test {

inline constexpr const char* kNetLog = "/tmp/netcfg-test.log";

// Sends every log level to a file of the test's own for the scope.
class LogCapture {
 public:
  LogCapture() {
    stream_ = fopen(kNetLog, "w+");
    plrContext.logStream = stream_;
    plrContext.currentLevel = PLR_LOG_MAX_LEVEL;
  }
  ~LogCapture() {
    plrContext.logStream = nullptr;
    if (stream_ != nullptr) fclose(stream_);
  }
  std::string Text() const {
    fflush(stream_);
    return ReadFile(kNetLog);
  }
  // Occurrences of `message` (a line ends with it after "<function> - ").
  int Count(const std::string& message) const {
    std::string text = Text();
    int n = 0;
    for (size_t pos = 0; (pos = text.find(message, pos)) != std::string::npos;
         pos += message.size())
      ++n;
    return n;
  }
  bool Has(const std::string& message) const { return Count(message) > 0; }
  // True when a line reads "<function> - <message>" exactly at its end.
  bool HasLine(const std::string& function, const std::string& message) const {
    return Text().find(" " + function + " - " + message + "\n") != std::string::npos;
  }

 private:
  FILE* stream_ = nullptr;
};

// Loads `path` into a private cache; null on failure.
inline PLRNetworkConfigurationDB* LoadCache(const char* path = kDatabasePath, bool backup = false,
                                            bool readOnly = false) {
  PLRNetworkConfigurationDB* db = nullptr;
  if (!PLRNetCfgLoad(path, &db, backup, readOnly)) return nullptr;
  return db;
}

// Every entry of a cache as sorted lines; two caches with equal text hold
// the same answers and records. BINDIR is left out (it comes from the
// product configuration, not the file).
inline std::string StateOf(const PLRNetworkConfigurationDB* db) {
  std::vector<std::string> lines;
  if (db->answers)
    for (const auto& [key, entry] : *db->answers)
      if (key != "BINDIR") lines.push_back("A " + key + "=" + entry.value);
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    if (db->portFwds[vnet])
      for (bool tcp : {true, false}) {
        const auto& group = db->portFwds[vnet]->group(tcp);
        if (!group.table) continue;
        for (const auto& [port, e] : *group.table)
          lines.push_back("P " + std::to_string(vnet) + (tcp ? " tcp " : " udp ") +
                          std::to_string(port) + " " + e.vmIP + " " + std::to_string(e.vmPort) +
                          " [" + e.description + "]");
      }
    if (db->dhcp[vnet])
      for (const auto& [mac, ip] : db->dhcp[vnet]->table)
        lines.push_back("D " + std::to_string(vnet) + " " + mac + " " + ip);
    if (db->prefixes[vnet])
      for (const auto& prefix : *db->prefixes[vnet])
        lines.push_back("X " + std::to_string(vnet) + " " + prefix);
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

}  // namespace plr::test
