#include "api/option-switch.h"

#include "base/fd-util.h"
#include "core/log.h"
#include "pelorus/vnet.h"

namespace plr::api {
namespace {

// Same status: nothing to switch; with `removeConfig` the setter cleans up
// the existing configuration and its result is the call's result.
bool KeepCurrent(const char* function, const OptionSwitch& option, uint32_t vnet,
                 const char* vnetName, bool current, bool removeConfig) {
  const SwitchTexts& t = option.texts;
  PLOG_AS(function, LOG_INFO, t.same, vnetName);
  if (!removeConfig) return true;
  bool ok = option.set(vnet, current, removeConfig);
  if (ok) {
    PLOG_AS(function, LOG_INFO, t.cleanedUp, vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, t.cleanupFailed, vnetName);
  }
  return ok;
}

bool SwitchOff(const char* function, const OptionSwitch& option, uint32_t vnet,
               const char* vnetName, bool removeConfig) {
  const SwitchTexts& t = option.texts;
  bool ok = option.set(vnet, false, removeConfig);
  if (ok) {
    PLOG_AS(function, LOG_OK, t.off, vnetName);
  } else {
    PLOG_AS(function, LOG_ERR, t.offFailed, vnetName);
  }
  return ok;
}

// Switching on. The one undo step, removing the subnet this call assigned,
// is armed before the assignment is tried and dismissed only when the
// setter succeeded or the vnet had its subnet before.
bool SwitchOn(const char* function, const OptionSwitch& option, uint32_t vnet, const char* vnetName,
              bool removeConfig) {
  const SwitchTexts& t = option.texts;
  if (t.beforeOn != nullptr) PLOG_AS(function, LOG_INFO2, t.beforeOn, vnetName);
  const bool hadSubnet = PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET);
  ScopeExit removeAssignedSubnet([&] {
    if (t.rollback != nullptr) PLOG_AS(function, LOG_ERR, t.rollback, vnetName);
    PLRRemoveSubnetAssignment(vnet);
  });
  if (hadSubnet) {
    removeAssignedSubnet.dismiss();
  } else {
    PLOG_AS(function, LOG_INFO2, t.subnetAttempt, vnetName);
    if (!PLRAssignUnusedSubnetAddressToVNet(vnet)) {
      PLOG_AS(function, LOG_ERR, t.subnetFailed, vnetName);
      return false;
    }
    PLRLog(t.subnetAssignedLevel, function, t.subnetAssigned, vnetName);
  }
  bool ok = option.set(vnet, true, removeConfig);
  if (ok) {
    PLOG_AS(function, LOG_OK, t.on, vnetName);
    removeAssignedSubnet.dismiss();
  } else {
    PLOG_AS(function, LOG_ERR, t.onFailed, vnetName);
  }
  return ok;
}

}  // namespace

bool SwitchOption(const char* function, const OptionSwitch& option, uint32_t vnet,
                  const char* vnetName, bool use, bool removeConfig) {
  const bool current = option.current(vnet);
  if (current == use) return KeepCurrent(function, option, vnet, vnetName, current, removeConfig);
  PLOG_AS(function, LOG_INFO2, option.texts.changing, current, use);
  if (!use) return SwitchOff(function, option, vnet, vnetName, removeConfig);
  return SwitchOn(function, option, vnet, vnetName, removeConfig);
}

}  // namespace plr::api
