// What the DHCP and NAT parameter families share: table lookups, storing a
// value, removing a whole family and reading the values a writer needs.
#include "core/log.h"
#include "pelorus/vnet.h"
#include "svcfiles/svcfiles-internal.h"

namespace plr {

const char* ParamName(const ParamTable& table, uint32_t id) {
  uint32_t index = id - table.base;
  return id >= table.base && index < table.size ? table.names[index] : table.unknownName;
}

const char* ParamKey(const ParamTable& table, uint32_t id) {
  uint32_t index = id - table.base;
  return id >= table.base && index < table.size ? table.keys[index] : "";
}

bool StoreParam(const char* function, const ParamTable& table, uint32_t vnet, uint32_t id,
                const char* value) {
  const char* name = ParamName(table, id);
  if (!PLRSetVnetCfg(vnet, ParamKey(table, id), value)) {
    PLOG_AS(function, LOG_ERR, "Setting value of %s parameter: %s failed for vnet: %d", table.kind,
            name, static_cast<int>(vnet));
    return false;
  }
  PLOG_AS(function, LOG_INFO2,
          "Successfully set value of %s parameter: %s to value: %s for vnet: %d", table.kind, name,
          value, static_cast<int>(vnet));
  return true;
}

bool RemoveParams(const char* function, uint32_t vnet, std::span<const ParamRemoval> steps,
                  bool (*remove)(uint32_t vnet, uint32_t id)) {
  bool ok = true;
  for (const ParamRemoval& step : steps) {
    if (!remove(vnet, step.id)) {
      PLOG_AS(function, LOG_ERR, "%s", step.failure);
      ok = false;
    }
  }
  return ok;
}

bool GetParams(const char* function, uint32_t vnet, std::span<const ParamLookup> lookups,
               ParamGetter get) {
  for (const ParamLookup& lookup : lookups) {
    if (!get(vnet, lookup.id, true, lookup.buffer, lookup.size)) {
      PLOG_AS(function, LOG_ERR, "%s", lookup.failure);
      return false;
    }
  }
  return true;
}

}  // namespace plr
