#include "api/option-switch.h"

#include "base/fd-util.h"
#include "core/log.h"
#include "pelorus/vnet.h"

namespace plr::api {
namespace {

// Same status: nothing to switch; with `removeConfig` the setter cleans up
// the existing configuration and its result is the call's result.
bool KeepCurrent(const OptionSwitch& option, const SwitchCall& s) {
  option.say(s, SwitchStep::kSame, true);
  if (!s.removeConfig) return true;
  bool ok = option.set(s.vnet, s.current, s.removeConfig);
  option.say(s, SwitchStep::kCleanup, ok);
  return ok;
}

bool SwitchOff(const OptionSwitch& option, const SwitchCall& s) {
  bool ok = option.set(s.vnet, false, s.removeConfig);
  option.say(s, SwitchStep::kOff, ok);
  return ok;
}

// Switching on. The one undo step, removing the subnet this call assigned,
// is armed before the assignment is tried and dismissed only when the
// setter succeeded or the vnet had its subnet before.
bool SwitchOn(const OptionSwitch& option, const SwitchCall& s) {
  option.say(s, SwitchStep::kBeforeOn, true);
  const bool hadSubnet = PLRVnetIsOptionConfigured(s.vnet, PLR_VNET_OPTION_SUBNET);
  ScopeExit removeAssignedSubnet([&] {
    option.say(s, SwitchStep::kRollback, true);
    PLRRemoveSubnetAssignment(s.vnet);
  });
  if (hadSubnet) {
    removeAssignedSubnet.dismiss();
  } else {
    option.say(s, SwitchStep::kSubnetAttempt, true);
    if (!PLRAssignUnusedSubnetAddressToVNet(s.vnet)) {
      option.say(s, SwitchStep::kSubnetFailed, false);
      return false;
    }
    option.say(s, SwitchStep::kSubnetAssigned, true);
  }
  bool ok = option.set(s.vnet, true, s.removeConfig);
  option.say(s, SwitchStep::kOn, ok);
  if (ok) removeAssignedSubnet.dismiss();
  return ok;
}

}  // namespace

bool SwitchOption(const char* function, const OptionSwitch& option, uint32_t vnet,
                  const char* vnetName, bool use, bool removeConfig) {
  const SwitchCall s{function, vnet, vnetName, option.current(vnet), use, removeConfig};
  if (s.current == use) return KeepCurrent(option, s);
  option.say(s, SwitchStep::kChanging, true);
  if (!use) return SwitchOff(option, s);
  return SwitchOn(option, s);
}

}  // namespace plr::api
