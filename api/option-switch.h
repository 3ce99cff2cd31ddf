// Switching one vnet option (DHCP, NAT or the host-only adapter) on or off,
// with the subnet assignment that switching on may need and its undo.
#pragma once

#include <stdint.h>

namespace plr::api {

// One switch request, as the option's log lines see it.
struct SwitchCall {
  const char* function;  // the exported function the lines are logged under
  uint32_t vnet;
  const char* vnetName;
  bool current;  // the status before the call
  bool use;      // the requested status
  bool removeConfig;
};

// The points of a switch where the option writes its own log line. The
// steps marked "outcome" are told whether the step succeeded.
enum class SwitchStep {
  kSame,     // current status equals the request
  kCleanup,  // outcome: clean-up of the current configuration
  kChanging,
  kBeforeOn,
  kSubnetAttempt,
  kSubnetFailed,
  kSubnetAssigned,
  kOn,        // outcome
  kOff,       // outcome
  kRollback,  // before a subnet this call assigned is removed again
};

struct OptionSwitch {
  bool (*current)(uint32_t vnet);
  bool (*set)(uint32_t vnet, bool use, bool removeConfig);
  // Writes the option's line for `step` (nothing for steps it has no line for).
  void (*say)(const SwitchCall& call, SwitchStep step, bool ok);
};

// Switches `option` to `use`; the caller holds the write bracket. An equal
// status changes nothing unless `removeConfig` asks for a clean-up. Switching
// on a vnet without a subnet assigns one first; when the assignment or the
// setter fails, the subnet this call assigned is removed again. A subnet the
// vnet had before the call is never removed.
bool SwitchOption(const char* function, const OptionSwitch& option, uint32_t vnet,
                  const char* vnetName, bool use, bool removeConfig);

}  // namespace plr::api
