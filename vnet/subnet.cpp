// Automatic assignment of a host-only subnet: a private /24 that no vnet had
// configured and on which nothing answers the ping tool. Candidates are tried
// in a random order fixed once per process; a probe tries at most 10 new
// candidates, and a tried candidate stays taken unless it is given back.
#include "vnet/subnet.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/random-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/frame.h"
#include "pelorus/netcfg.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr const char kAssignedMask[] = "255.255.255.0";
constexpr int kProbeAttempts = 10;
constexpr size_t kAddrSize = 16;
constexpr size_t kMaxBinDirLength = 255;
constexpr const char kDefaultBinDir[] = "/usr/bin";
constexpr const char kPingTool[] = "tarsis-ping";

constexpr uint32_t Net24(uint32_t a, uint32_t b, uint32_t c) {
  return (a << 24) | (b << 16) | (c << 8);
}

// Appends one candidate unless it is in use. The last slot stays zero: the
// probe's search reaches one position past the filled entries.
void AddCandidate(CandidateTable& table, uint32_t subnet) {
  if (table.count + 1 >= CandidateTable::kCapacity || PLRSubnetUsed(subnet)) return;
  table.entries[table.count++] = SubnetCandidate{subnet, 0};
}

// The position of the next untried candidate after the cursor, searching
// through position `count` inclusive (one past the filled entries: a zero
// entry). When there is none the cursor moves past the searched range.
bool NextUntried(CandidateTable& table, int32_t* position) {
  int64_t last = table.count;
  for (int64_t i = static_cast<int64_t>(table.cursor) + 1; i <= last; ++i) {
    if (table.entries[i].taken == 0) {
      *position = static_cast<int32_t>(i);
      return true;
    }
  }
  table.cursor = static_cast<int32_t>(std::max<int64_t>(last + 1, table.cursor + 1LL));
  return false;
}

// The exit code of one run of the ping tool against `address`, taken from
// bits 8..15 of the wait status; its output is discarded.
int RunPingTool(const char* binDir, const char* address, uint32_t timeout, uint32_t interval) {
  std::string path = StrPrintf("%s/%s", binDir, kPingTool);
  std::string timeoutText = StrPrintf("%u", timeout);
  std::string intervalText = StrPrintf("%u", interval);
  const char* argv[] = {
      path.c_str(),         "-q",   "-b", address, "-t", timeoutText.c_str(), "-i",
      intervalText.c_str(), nullptr};
  return (RunQuietly(argv) >> 8) & 0xFF;
}

// Exit codes of the ping tool that mean "no reply": 1 (nothing answered)
// and 2 (could not ping, e.g. no route), both judged free.
bool PingSaysFree(int code) {
  return code == 1 || code == 2;
}

}  // namespace

UsedSubnets& UsedSubnetList() {
  static UsedSubnets list;
  return list;
}

CandidateTable& AvailSubnetTable() {
  static CandidateTable table;
  return table;
}

void AddSubnetCandidates(CandidateTable& table) {
  AddCandidate(table, Net24(172, 16, 0));
  AddCandidate(table, Net24(172, 16, 1));
  for (uint32_t k = 2; k <= 255; ++k) {
    AddCandidate(table, Net24(192, 168, k));
    AddCandidate(table, Net24(172, 16, k));
  }
}

bool ShuffleSubnetCandidates(const char* function, CandidateTable& table, RandomSource random) {
  uint32_t n = table.count;
  for (uint64_t swap = 0; n != 0 && swap < 2ull * n; ++swap) {
    uint32_t first = 0;
    uint32_t second = 0;
    if (!random(&first, sizeof first) || !random(&second, sizeof second)) {
      PLOG_AS(function, LOG_ERR, "Failed to read random data, error: %s", strerror(errno));
      return false;
    }
    std::swap(table.entries[first % n], table.entries[second % n]);
  }
  return true;
}

int RunQuietly(const char* const argv[]) {
  // Like system(): SIGCHLD stays blocked while we wait, so a caller's
  // handler cannot reap our child first.
  sigset_t block, saved;
  sigemptyset(&block);
  sigaddset(&block, SIGCHLD);
  sigprocmask(SIG_BLOCK, &block, &saved);
  pid_t pid = sys::fork();
  if (pid == 0) {
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      dup2(null, 2);
      if (null > 2) close(null);
    }
    execv(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }
  int status = -1;
  if (pid > 0) {
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) {
        status = -1;
        break;
      }
    }
  }
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  return status;
}

}  // namespace plr

extern "C" {

// The vnet's configured subnet as an integer; false when it has none or the
// stored text is not an address.
bool PLRGetHostOnlySubnet(uint32_t vnet, uint32_t* subnet) {
  char text[plr::kAddrSize];
  if (!PLRGetVnetSubnetAddr(vnet, text, sizeof text)) return false;
  PLOG(LOG_INFO2, "Got existing subnet for vnet %d.", static_cast<int>(vnet));
  return PLRIPStr2Int(text, subnet);
}

// Records, once per process, the subnets that vnets 0..255 have now.
bool PLRPopulateUsedSubnets(void) {
  plr::UsedSubnets& used = plr::UsedSubnetList();
  if (used.filled) return true;
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    uint32_t subnet = 0;
    if (PLRGetHostOnlySubnet(vnet, &subnet) && used.count < plr::UsedSubnets::kCapacity)
      used.subnets[used.count++] = subnet;
  }
  used.filled = true;
  return true;
}

// Whether `subnet` was configured on some vnet when the list was filled.
bool PLRSubnetUsed(uint32_t subnet) {
  PLRPopulateUsedSubnets();
  const plr::UsedSubnets& used = plr::UsedSubnetList();
  return std::find(used.subnets, used.subnets + used.count, subnet) != used.subnets + used.count;
}

// Fills and shuffles the candidate table once per process. The table is
// usable even when shuffling failed (its order is then the fixed one).
bool PLRPopulateAvailSubnets(void) {
  plr::CandidateTable& table = plr::AvailSubnetTable();
  if (table.filled) return true;
  plr::AddSubnetCandidates(table);
  table.filled = true;
  return PLRShuffleAvailSubnets();
}

// Randomises the trial order with the cryptographic random source.
bool PLRShuffleAvailSubnets(void) {
  return plr::ShuffleSubnetCandidates(__func__, plr::AvailSubnetTable(), plr::CryptoRandom);
}

// Sets the taken flag of every candidate equal to `subnet`; given back
// (`used` false), a subnet can be tried again if the cursor has not passed it.
bool PLRMarkSubnetUsed(const char* subnet, bool used) {
  PLRPopulateAvailSubnets();
  uint32_t value = 0;
  if (subnet != nullptr) PLRIPStr2Int(subnet, &value);
  plr::CandidateTable& table = plr::AvailSubnetTable();
  for (uint32_t i = 0; i < table.count; ++i)
    if (table.entries[i].subnet == value) table.entries[i].taken = used ? 1 : 0;
  return true;
}

// Finds a free candidate: at most 10 untried candidates after the cursor,
// each marked taken as it is tried. `subnet` and `mask` are 16-byte buffers,
// written only on success.
bool PLRSubnetProbe(char* subnet, char* mask) {
  if (subnet == nullptr || mask == nullptr) return false;
  PLRPopulateAvailSubnets();
  plr::CandidateTable& table = plr::AvailSubnetTable();
  for (int attempt = 1;; ++attempt) {
    int32_t position = 0;
    if (!plr::NextUntried(table, &position)) return false;
    plr::SubnetCandidate& candidate = table.entries[position];
    candidate.taken = 1;
    table.cursor = position;
    char trySubnet[plr::kAddrSize];
    PLRIPInt2Str(candidate.subnet, trySubnet);
    PLOG(LOG_INFO, "Pinging to see if subnet is used");
    if (PLRPingAndCheckSubnet(trySubnet, true, 1, 1)) {
      memcpy(subnet, trySubnet, plr::kAddrSize);
      memcpy(mask, plr::kAssignedMask, sizeof plr::kAssignedMask);
      return true;
    }
    if (attempt == plr::kProbeAttempts) {
      PLOG(LOG_ERR, "Could not automatically determine available subnet.");
      return false;
    }
  }
}

// Judges a subnet free when the ping tool gets no reply: with `broadcast`
// first at the network address (code 2 decides at once, code 1 goes on),
// then at the first host address, whose code decides.
bool PLRPingAndCheckSubnet(const char* subnet, bool broadcast, uint32_t timeout,
                           uint32_t interval) {
  PLOG(LOG_INFO2, "Ping arguments, subnet: %s, broadcast: %s, timeout: %u interval: %u",
       PLR_STR(subnet), broadcast ? "true" : "false", timeout, interval);
  const char* binDir = nullptr;
  if (!PLRNetCfgGetAnswerString(nullptr, "BINDIR", &binDir) || binDir == nullptr) {
    PLOG(LOG_WRN, "Unable to find BINDIR in host config database.");
    binDir = plr::kDefaultBinDir;
  } else if (strlen(binDir) > plr::kMaxBinDirLength) {
    PLOG(LOG_ERR, "Value of BINDIR is bigger than allowed %u chracters",
         static_cast<unsigned>(plr::kMaxBinDirLength + 1));
    return false;
  }

  uint32_t network = 0;
  if (subnet != nullptr) PLRIPStr2Int(subnet, &network);
  char address[plr::kAddrSize];
  int code = 1;
  if (broadcast) {
    PLRIPInt2Str(network, address);
    code = plr::RunPingTool(binDir, address, timeout, interval);
  }
  if (code == 1) {
    PLRIPInt2Str(network + 1, address);
    code = plr::RunPingTool(binDir, address, timeout, interval);
  }
  if (plr::PingSaysFree(code)) return true;
  PLOG(LOG_ERR, "Return value of tarsis-ping: %d", code);
  return false;
}

// Picks a free subnet for the vnet and stores it with the /24 mask. A
// failure after the subnet was stored leaves it for the caller to remove.
bool PLRAssignUnusedSubnetAddressToVNet(uint32_t vnet) {
  char subnet[plr::kAddrSize];
  char mask[plr::kAddrSize];
  if (!PLRSubnetProbe(subnet, mask)) {
    PLOG(LOG_ERR, "Failed to probe subnet for vnet %d.", static_cast<int>(vnet));
    return false;
  }
  uint32_t value = 0;
  if (!PLRIPStr2Int(subnet, &value)) {
    PLOG(LOG_ERR, "Error converting IP from string to integer");
    return false;
  }
  if (!PLRSetVnetSubnetAddr(vnet, subnet)) {
    PLOG(LOG_ERR, "Error setting subnet value: %s in vnet config", subnet);
    return false;
  }
  if (!PLRSetVnetSubnetMask(vnet, plr::kAssignedMask)) {
    // This message has always named the subnet, not the mask.
    PLOG(LOG_ERR, "Error setting subnet mask: %s in vnet config", subnet);
    return false;
  }
  PLOG(LOG_OK, "Success: vnet %d assigned subnet %s.", static_cast<int>(vnet), subnet);
  return true;
}

}  // extern "C"
