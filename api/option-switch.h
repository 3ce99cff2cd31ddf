// Switching one vnet option (DHCP, NAT or the host-only adapter) on or off,
// with the subnet assignment that switching on may need and its undo.
#pragma once

#include <stdint.h>

namespace plr::api {

// The log texts of one option. Each text receives the vnet name as its only
// argument (texts without a placeholder ignore it), except `changing`, which
// receives the current and the requested status (%u, %u).
struct SwitchTexts {
  const char* same;       // LOG_INFO: current status equals the request
  const char* cleanedUp;  // LOG_INFO / LOG_ERR: clean-up of the current configuration
  const char* cleanupFailed;
  const char* changing;        // LOG_INFO2
  const char* beforeOn;        // LOG_INFO2 on the way to switching on, or nullptr
  const char* subnetAttempt;   // LOG_INFO2
  const char* subnetFailed;    // LOG_ERR
  const char* subnetAssigned;  // at `subnetAssignedLevel`
  unsigned subnetAssignedLevel;
  const char* on;  // LOG_OK / LOG_ERR
  const char* onFailed;
  const char* off;  // LOG_OK / LOG_ERR
  const char* offFailed;
  const char* rollback;  // LOG_ERR before an assigned subnet is removed, or nullptr
};

struct OptionSwitch {
  bool (*current)(uint32_t vnet);
  bool (*set)(uint32_t vnet, bool use, bool removeConfig);
  SwitchTexts texts;
};

// Switches `option` to `use`; the caller holds the write bracket. An equal
// status changes nothing unless `removeConfig` asks for a clean-up. Switching
// on a vnet without a subnet assigns one first; when the assignment or the
// setter fails, the subnet this call assigned is removed again. A subnet the
// vnet had before the call is never removed.
bool SwitchOption(const char* function, const OptionSwitch& option, uint32_t vnet,
                  const char* vnetName, bool use, bool removeConfig);

}  // namespace plr::api
