// Test support for the public per-vnet API: a loaded library over a written
// database, the log written since a mark, and the database file before and
// after a call.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "tests/support/vnet_util.h"

namespace plr::test {

// The trace line the database lock writes when it is taken.
inline constexpr const char* kLockTakenLine = "PLRNetCfgLockConfig - Database file locking success";

// A records text for vnet 1 with a subnet, mask, DHCP and a display name.
std::string Vnet1Records();

class ApiTest : public LoadedLibraryTest {
 protected:
  // Remembers where the log ends and what the database file holds.
  void Mark();
  // Lines written to the log since Mark(), time stamps removed.
  std::vector<std::string> LinesSinceMark() const;
  // True when `line` (e.g. "PLR_SetVnetMTU - Invalid vnet name: kavix") was
  // logged since Mark().
  bool LoggedSinceMark(const std::string& line) const;
  bool TookLockSinceMark() const { return LoggedSinceMark(kLockTakenLine); }
  // The database file is byte for byte what it was at Mark().
  bool DatabaseUnchangedSinceMark() const { return Database() == markedDatabase_; }
  const std::string& MarkedDatabase() const { return markedDatabase_; }

 private:
  size_t logOffset_ = 0;
  std::string markedDatabase_;
};

// Value of VNET_<vnet>_<key> in the default cache, or "<absent>".
std::string Answer(uint32_t vnet, const std::string& key);

// Runs a shell command bounded by `seconds`; its exit status (124 on timeout).
int RunBounded(const std::string& command, unsigned seconds);

// Steers a fixture daemon (kavix-dhcpd, kavix-netifup, ...): writes its mode file.
void SetDaemonMode(const std::string& daemon, const std::string& modeLines);

// Kills every fixture daemon (and real dhcpd) recorded as started.
void KillFixtureDaemons();

// True while a process with this PID exists (zombies excluded).
bool ProcessAlive(int pid);

}  // namespace plr::test
