// Test support for the public per-vnet API: a loaded library whose log and
// database file are marked before a call, so the call's own lines and
// records can be told apart.
#pragma once

#include <stdint.h>

#include <string>

#include "tests/support/vnet_util.h"

namespace plr::test {

// The trace line the database lock writes when it is taken.
inline constexpr const char* kLockTakenLine = "PLRNetCfgLockConfig - Database file locking success";

// A records text for vnet 1 with a subnet, mask and a display name.
std::string Vnet1Records();

class ApiTest : public LoadedLibraryTest {
 protected:
  // Empties the log file, so the log probe sees only what follows, and
  // remembers what the database file holds.
  void Mark();
  bool TookLockSinceMark() const { return LogHas(kLockTakenLine); }
  // The database file is byte for byte what it was at Mark().
  bool DatabaseUnchangedSinceMark() const { return Database() == markedDatabase_; }
  const std::string& MarkedDatabase() const { return markedDatabase_; }

 private:
  std::string markedDatabase_;
};

// Value of VNET_<vnet>_<key> in the default cache, or "<absent>".
std::string Answer(uint32_t vnet, const std::string& key);

// Runs a shell command bounded by `seconds`; its exit status (124 on timeout).
int RunBounded(const std::string& command, unsigned seconds);

}  // namespace plr::test
