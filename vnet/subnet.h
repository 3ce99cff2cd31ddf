// Process-wide tables of automatic subnet assignment. They are filled on
// first use and live until the process ends (a database unload keeps them):
// the subnets configured at first use, and the shuffled candidate /24s with
// the flag that keeps a tried or handed-out candidate from being tried again.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace plr {

// The subnets that vnets 0..255 had when the list was first needed.
struct UsedSubnets {
  static constexpr size_t kCapacity = 256;
  uint32_t subnets[kCapacity] = {};
  uint32_t count = 0;
  bool filled = false;
};

struct SubnetCandidate {
  uint32_t subnet;  // host order, first octet most significant
  uint8_t taken;    // 0 = free to try; non-zero = tried or in use
};

// Candidate /24 networks in trial order. The probe walks positions
// cursor + 1 .. count; `cursor` is the last position handed out.
struct CandidateTable {
  static constexpr size_t kCapacity = 512;
  SubnetCandidate entries[kCapacity] = {};
  uint32_t count = 0;
  bool filled = false;
  int32_t cursor = 0;
};

UsedSubnets& UsedSubnetList();
CandidateTable& AvailSubnetTable();

// Appends the candidates in their fixed order (172.16.0.0, 172.16.1.0, then
// 192.168.k.0 and 172.16.k.0 for k = 2..255), leaving out used subnets.
void AddSubnetCandidates(CandidateTable& table);

// A source of random bytes; false when it cannot deliver.
using RandomSource = bool (*)(void* buf, size_t size);

// Exactly 2n swaps of entries (value and flag together) at positions drawn
// as two 4-byte random values modulo n. False when the source fails, logged
// under `function`.
bool ShuffleSubnetCandidates(const char* function, CandidateTable& table, RandomSource random);

// Runs the program argv[0] with the NULL-terminated `argv`, its standard
// output and error going to /dev/null, and returns its wait status as
// system() does: -1 when no child could be started, exit code 127 when the
// program could not be executed.
int RunQuietly(const char* const argv[]);

}  // namespace plr
