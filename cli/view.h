// What the read commands show, gathered once as JSON: the same document is
// printed with --json and rendered as tables for people.
#pragma once

#include <stdint.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli/session.h"

namespace pelorus_cli {

using nlohmann::json;

// One DHCP or NAT parameter by the name users type.
struct Param {
  const char* name;
  uint32_t id;  // the internal identifier of the svcfiles family
};
extern const std::vector<Param> kDhcpParams;
extern const std::vector<Param> kNatParams;
// The parameter called `name` in `params`; a usage error for an unknown one.
const Param& FindParam(const std::vector<Param>& params, const std::string& name);

// Whether the vnet has any configuration (subnet, feature or display name).
bool IsConfigured(const Vnet& vnet);
// Every configured vnet in number order.
std::vector<Vnet> ConfiguredVnets();

// The summary of `list` for one vnet; `adapters` is HostAdapters(), read
// once for all vnets.
json VnetSummary(const Vnet& vnet, const json& adapters);
// Everything `show` prints: the summary plus parameters (defaults marked),
// static mappings, port forwards, generated files.
json VnetDetails(const Vnet& vnet);

// Parameter lists: [{name, value, default}].
json DhcpParams(const Vnet& vnet);
json NatParams(const Vnet& vnet);
// [{mac, ip}] and [{protocol, hostPort, guestIp, guestPort, description}].
json StaticMappings(const Vnet& vnet);
json PortForwards(const Vnet& vnet);
// Host adapters: [{name, displayName, running, vnet}] (vnet null when none).
json HostAdapters();

// "running", "stopped" or "unknown" for a PLR_SERVICE_TYPE_*.
std::string ServiceStatus(const Vnet& vnet, uint32_t type);

}  // namespace pelorus_cli
