// The vnet feature queries: what a vnet has configured and what runs for it,
// and the search for the first vnet with a wanted combination of features.
#include <string.h>

#include "core/frame.h"
#include "core/log.h"
#include "pelorus/dbapi.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// One vnet's features as present (true) or absent.
struct VnetFeatureValues {
  bool subnet = false;
  bool config[4] = {};   // indexed like the config-time block
  bool runtime[4] = {};  // indexed like the runtime block
};

// The configured features, read from the database.
void ReadConfigFeatures(uint32_t vnet, VnetFeatureValues* v) {
  v->subnet = PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_SUBNET);
  v->config[PLR_FEATURE_CFG_BRIDGE] = PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_BRIDGE);
  v->config[PLR_FEATURE_CFG_DHCP] = PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_DHCP);
  v->config[PLR_FEATURE_CFG_NAT] = PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_NAT);
  v->config[PLR_FEATURE_CFG_HOSTONLY] =
      PLRVnetIsOptionConfigured(vnet, PLR_VNET_OPTION_VIRTUAL_ADAPTER);
}

bool Running(uint32_t vnet, uint32_t service) {
  return PLRServiceStatus(vnet, service) == PLR_SERVICE_RUNNING;
}

// The running services, asked of the host.
void ReadServiceFeatures(uint32_t vnet, VnetFeatureValues* v) {
  v->runtime[PLR_FEATURE_RT_BRIDGE] = Running(vnet, PLR_SERVICE_BRIDGE);
  v->runtime[PLR_FEATURE_RT_DHCP] = Running(vnet, PLR_SERVICE_DHCP);
  v->runtime[PLR_FEATURE_RT_NAT] = Running(vnet, PLR_SERVICE_NAT);
}

// Whether the host-only adapter is up; false (logged under `fn`) when its
// name or status cannot be read.
bool ReadAdapterFeature(const char* fn, uint32_t vnet, VnetFeatureValues* v) {
  char name[16];
  if (!PLRGetVnetVirtAdapter(vnet, name, sizeof name)) {
    PLOG_AS(fn, LOG_ERR, "Getting virtual adapter name failed");
    return false;
  }
  const uint32_t status = PLRAdapterStatus(name);
  if (status == PLR_ADAPTER_STATUS_ERROR) {
    PLOG_AS(fn, LOG_ERR, "Error getting status for virtual adapter: %s", name);
    return false;
  }
  v->runtime[PLR_FEATURE_RT_HOSTONLY] = status == PLR_ADAPTER_UP;
  return true;
}

// The checks both calls make on the record; logs under `fn`.
bool RecordUsable(const char* fn, const PLR_VnetFeatures* ft) {
  if (ft == nullptr) {
    PLOG_AS(fn, LOG_ERR, "Invalid argument - ft: %p", static_cast<const void*>(ft));
    return false;
  }
  if (ft->version != PLR_FEATURES_VERSION) {
    PLOG_AS(fn, LOG_ERR, "Unsupported feature struct version: %u", ft->version);
    return false;
  }
  if (ft->netId.netType != PLR_NETID_TYPE_VNET) {
    PLOG_AS(fn, LOG_ERR, "Query unsupported for non-vnets");
    return false;
  }
  return true;
}

// A criterion byte against a present/absent value: 0 matches anything, 1
// wants present, 2 wants absent, anything else matches nothing.
bool Matches(uint8_t criterion, bool present) {
  return criterion == PLR_FEATURE_ANY ||
         criterion == (present ? PLR_FEATURE_PRESENT : PLR_FEATURE_ABSENT);
}

// The features a vnet search compares, with their names in the mismatch lines.
struct Criterion {
  uint32_t index;
  const char* name;
};
constexpr Criterion kConfigCriteria[] = {
    {PLR_FEATURE_CFG_BRIDGE, "Bridge"},
    {PLR_FEATURE_CFG_DHCP, "DHCP"},
    {PLR_FEATURE_CFG_NAT, "NAT"},
    {PLR_FEATURE_CFG_HOSTONLY, "Host only adapter"},
};
constexpr Criterion kRuntimeCriteria[] = {
    {PLR_FEATURE_RT_BRIDGE, "Bridge"},
    {PLR_FEATURE_RT_DHCP, "DHCP"},
    {PLR_FEATURE_RT_NAT, "NAT"},
    {PLR_FEATURE_RT_HOSTONLY, "Host only adapter"},
};

// Whether the configured features match; logs the first mismatch under `fn`.
bool ConfigMatches(const char* fn, const PLR_VnetFeatures& want, const VnetFeatureValues& v) {
  if (!Matches(want.subnet, v.subnet)) {
    PLOG_AS(fn, LOG_INFO2, "Subnet config-time feature does not match");
    return false;
  }
  for (const Criterion& c : kConfigCriteria) {
    if (Matches(want.configFeatures[c.index], v.config[c.index])) continue;
    PLOG_AS(fn, LOG_INFO2, "%s config-time feature does not match", c.name);
    return false;
  }
  return true;
}

// Whether the runtime features match; logs the first mismatch under `fn`.
bool RuntimeMatches(const char* fn, const PLR_VnetFeatures& want, const VnetFeatureValues& v) {
  for (const Criterion& c : kRuntimeCriteria) {
    if (Matches(want.runtimeFeatures[c.index], v.runtime[c.index])) continue;
    PLOG_AS(fn, LOG_INFO2, "%s runtime feature does not match", c.name);
    return false;
  }
  return true;
}

// Writes the values in answer form (1 or 0); the reserved bytes stay.
void WriteAnswer(uint32_t vnet, const VnetFeatureValues& v, PLR_VnetFeatures* ft) {
  ft->version = PLR_FEATURES_VERSION;
  ft->netId = PLR_NetworkID{PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, vnet};
  ft->subnet = v.subnet;
  for (uint32_t i = 0; i < 4; ++i) {
    ft->configFeatures[i] = v.config[i];
    ft->runtimeFeatures[i] = v.runtime[i];
  }
}

}  // namespace
}  // namespace plr

using namespace plr;

extern "C" {

uint32_t PLR_GetNumberOfVnets(void) {
  return PLR_MAX_VNETS;
}

// Describes the record's vnet: configured features and what runs for it.
bool PLR_GetVnetFeatures(PLR_VnetFeatures* ft) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - ft: %p", static_cast<void*>(ft));
    VnetFeatureValues values;
    bool ok = RecordUsable(c.function(), ft);
    if (ok && ft->netId.vnet >= PLR_MAX_VNETS) {
      c.Log(LOG_ERR, "Invalid vnet number: %d", static_cast<int>(ft->netId.vnet));
      ok = false;
    }
    if (ok) {
      const uint32_t vnet = ft->netId.vnet;
      ReadConfigFeatures(vnet, &values);
      memset(ft->configFeatures, 0, sizeof ft->configFeatures);
      ft->subnet = values.subnet;
      for (uint32_t i = 0; i < 4; ++i) ft->configFeatures[i] = values.config[i];
      ReadServiceFeatures(vnet, &values);
      memset(ft->runtimeFeatures, 0, sizeof ft->runtimeFeatures);
      for (uint32_t i = 0; i < 3; ++i) ft->runtimeFeatures[i] = values.runtime[i];
      ok = ReadAdapterFeature(c.function(), vnet, &values);
      if (ok)
        ft->runtimeFeatures[PLR_FEATURE_RT_HOSTONLY] = values.runtime[PLR_FEATURE_RT_HOSTONLY];
    }
    if (!ok) return c.Fail("Failed to return vnet features");
    c.Log(LOG_INFO2, "Returning features of vnet");
    return true;
  });
}

// Finds the first vnet from the record's vnet upwards that matches its
// criteria and rewrites the record to describe it.
bool PLR_FindVnetWithFeatures(PLR_VnetFeatures* ft) {
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - ft: %p", static_cast<void*>(ft));
    if (!RecordUsable(c.function(), ft)) return false;
    if (ft->netId.vnet >= PLR_MAX_VNETS)
      return c.Fail("Invalid index of starting vnet: %d", static_cast<int>(ft->netId.vnet));
    for (uint32_t vnet = ft->netId.vnet; vnet < PLR_MAX_VNETS; ++vnet) {
      c.Log(LOG_INFO2, "Looking at vnet: %u to see if it matches", vnet);
      VnetFeatureValues values;
      ReadConfigFeatures(vnet, &values);
      if (!ConfigMatches(c.function(), *ft, values)) continue;
      ReadServiceFeatures(vnet, &values);
      if (!ReadAdapterFeature(c.function(), vnet, &values)) return false;
      if (!RuntimeMatches(c.function(), *ft, values)) continue;
      WriteAnswer(vnet, values, ft);
      c.Log(LOG_INFO, "Found matching vnet: %d", static_cast<int>(vnet));
      c.Log(LOG_OK, "Returning matching vnet: %d", static_cast<int>(vnet));
      return true;
    }
    return c.Fail("Could not find any matching vnet");
  });
}

}  // extern "C"
