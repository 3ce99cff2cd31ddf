#include "cli/view.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include <memory>

namespace pelorus_cli {

const std::vector<Param> kDhcpParams = {
    {"lease-begin", PLR_DHCP_PARAM_LEASE_BEGIN_IP},
    {"lease-end", PLR_DHCP_PARAM_LEASE_END_IP},
    {"default-lease-time", PLR_DHCP_PARAM_DEFAULT_LEASE_DURATION_SEC},
    {"max-lease-time", PLR_DHCP_PARAM_MAX_LEASE_DURATION_SEC},
    {"subnet-default-lease-time", PLR_DHCP_PARAM_SUB_DEFAULT_LEASE_DURATION_SEC},
    {"subnet-max-lease-time", PLR_DHCP_PARAM_SUB_MAX_LEASE_DURATION_SEC},
    {"broadcast-address", PLR_DHCP_PARAM_BROADCAST_ADDR},
    {"dns-server", PLR_DHCP_PARAM_DNS_ADDR},
    {"routers", PLR_DHCP_PARAM_ROUTERS},
    {"domain-name", PLR_DHCP_PARAM_DOMAIN_NAME},
    {"netbios-server", PLR_DHCP_PARAM_NETBIOS},
};

const std::vector<Param> kNatParams = {
    {"gateway", PLR_NAT_PARAM_GATEWAY_IP},      {"config-port", PLR_NAT_PARAM_CONFIG_PORT},
    {"active-ftp", PLR_NAT_PARAM_ACTIVE_FTP},   {"allow-any-oui", PLR_NAT_PARAM_ALLOW_ANY_OUI},
    {"udp-timeout", PLR_NAT_PARAM_UDP_TIMEOUT}, {"ipv6", PLR_NAT_PARAM_NAT6},
    {"ipv6-prefix", PLR_NAT_PARAM_NAT6_PREFIX},
};

const Param& FindParam(const std::vector<Param>& params, const std::string& name) {
  for (const Param& param : params)
    if (name == param.name) return param;
  std::string known;
  for (const Param& param : params) known += std::string(known.empty() ? "" : ", ") + param.name;
  UsageError("unknown parameter: " + name + " (one of: " + known + ")");
}

namespace {

constexpr size_t kText = 256;

// A string getter of the API (buffer plus in/out length) as a string; ""
// when the value is absent.
template <class Get>
std::string Text(Get&& get) {
  char buf[kText] = "";
  uint32_t len = sizeof buf;
  return get(buf, &len) ? std::string(buf) : std::string();
}

// The prefix length of a dotted netmask, -1 for a non-contiguous one.
int PrefixLength(const std::string& mask) {
  struct in_addr addr;
  if (inet_pton(AF_INET, mask.c_str(), &addr) != 1) return -1;
  const uint32_t bits = ntohl(addr.s_addr);
  const int length = __builtin_popcount(bits);
  return length == 0 || (bits << length) == 0 ? length : -1;
}

bool HasDisplayName(const Vnet& vnet) {
  return PLRGetVnetCfg(vnet.number, "DISPLAY_NAME") != nullptr;
}

// One parameter's value, and whether it is the default.
json ParamValue(const Vnet& vnet, const Param& param, bool dhcp) {
  const uint32_t base = dhcp ? PLR_DHCP_PARAM_BASE : PLR_NAT_PARAM_BASE;
  const char* key =
      (dhcp ? PLRDHCPParamIDToConfigOption : PLRNATParamIDToConfigOption)[param.id - base];
  const char* stored = PLRGetVnetCfg(vnet.number, key);
  char buf[kText] = "";
  const bool known = stored != nullptr ||
                     (dhcp ? PLRDHCPGetParameterDefault(vnet.number, param.id, buf, sizeof buf)
                           : PLRNATGetParamDefault(vnet.number, param.id, buf, sizeof buf));
  return json{{"name", param.name},
              {"value", stored != nullptr ? json(stored)
                        : known           ? json(buf)
                                          : json(nullptr)},
              {"default", stored == nullptr}};
}

}  // namespace

bool IsConfigured(const Vnet& vnet) {
  PLR_VnetFeatures ft = {};
  ft.version = PLR_FEATURES_VERSION;
  ft.netId = {PLR_NETID_VERSION, PLR_NETID_TYPE_VNET, vnet.number};
  if (!PLR_GetVnetFeatures(&ft)) return false;
  bool any = ft.subnet != 0 || HasDisplayName(vnet);
  for (uint8_t feature : ft.configFeatures) any = any || feature == PLR_FEATURE_PRESENT;
  return any;
}

std::vector<Vnet> ConfiguredVnets() {
  std::vector<Vnet> out;
  for (uint32_t n = 0; n < PLR_MAX_VNETS; ++n) {
    Vnet vnet{n, "kavix" + std::to_string(n)};
    if (IsConfigured(vnet)) out.push_back(vnet);
  }
  return out;
}

std::string ServiceStatus(const Vnet& vnet, uint32_t type) {
  switch (PLR_GetServiceStatus(vnet.name.c_str(), type)) {
    case PLR_SERVICE_RUNNING:
      return "running";
    case PLR_SERVICE_STOPPED:
      return "stopped";
    default:
      return "unknown";
  }
}

json StaticMappings(const Vnet& vnet) {
  json out = json::array();
  uint32_t offset = 0;
  for (;;) {
    char ip[PLR_IP_ADDR_MIN_LEN], mac[PLR_MAC_ADDR_MIN_LEN];
    uint32_t ipLen = sizeof ip, macLen = sizeof mac;
    if (!PLR_EnumDHCPIPToMAC(vnet.name.c_str(), &offset, ip, &ipLen, mac, &macLen)) break;
    out.push_back({{"mac", mac}, {"ip", ip}});
  }
  return out;
}

json PortForwards(const Vnet& vnet) {
  json out = json::array();
  for (bool tcp : {true, false}) {
    uint32_t offset = 0;
    for (;;) {
      char ip[PLR_IP_ADDR_MIN_LEN], desc[PLR_DESCRIPTION_MAX_LEN + 2] = "";
      uint32_t ipLen = sizeof ip, descLen = sizeof desc;
      uint16_t hostPort = 0, guestPort = 0;
      if (!PLR_EnumNATPortForward(vnet.name.c_str(), tcp, &offset, &hostPort, ip, &ipLen,
                                  &guestPort, desc, &descLen))
        break;
      out.push_back({{"protocol", tcp ? "tcp" : "udp"},
                     {"hostPort", hostPort},
                     {"guestIp", ip},
                     {"guestPort", guestPort},
                     {"description", descLen == 0 ? "" : desc}});
    }
  }
  return out;
}

json HostAdapters() {
  PLR_HostAdapterList* raw = nullptr;
  json out = json::array();
  if (!PLR_GetHostAdapterList(1, &raw)) return out;
  std::unique_ptr<PLR_HostAdapterList, void (*)(PLR_HostAdapterList*)> list(
      raw, PLR_FreeHostAdapterList);
  for (const PLR_HostAdapter* a = list->first; a != nullptr; a = a->next) {
    const bool bridged = a->netId.vnet < PLR_MAX_VNETS;
    out.push_back({{"name", a->name},
                   {"displayName", a->displayName},
                   {"running", a->status == PLR_ADAPTER_RUNNING},
                   {"vnet", bridged ? json("kavix" + std::to_string(a->netId.vnet)) : json()}});
  }
  return out;
}

json DhcpParams(const Vnet& vnet) {
  json out = json::array();
  for (const Param& param : kDhcpParams) out.push_back(ParamValue(vnet, param, true));
  return out;
}

json NatParams(const Vnet& vnet) {
  json out = json::array();
  for (const Param& param : kNatParams) out.push_back(ParamValue(vnet, param, false));
  return out;
}

json VnetSummary(const Vnet& vnet, const json& adapters) {
  const char* name = vnet.name.c_str();
  const std::string subnet =
      Text([&](char* b, uint32_t* l) { return PLR_GetVnetSubnetAddr(name, b, l); });
  const std::string mask =
      Text([&](char* b, uint32_t* l) { return PLR_GetVnetSubnetMask(name, b, l); });
  bool installed = false, up = false;
  PLR_GetVnetAdapterStatus(name, &installed, &up);
  const bool adapter = PLRVnetIsOptionConfigured(vnet.number, PLR_VNET_OPTION_VIRTUAL_ADAPTER);
  json bridged = json::array();
  for (const json& a : adapters)
    if (a["vnet"] == vnet.name) bridged.push_back(a["name"]);
  const int length = PrefixLength(mask);
  return json{
      {"name", vnet.name},
      {"displayName",
       Text([&](char* b, uint32_t* l) { return PLR_GetVnetDisplayName(name, b, l); })},
      {"subnet", subnet.empty() ? json() : json(subnet)},
      {"netmask", mask.empty() ? json() : json(mask)},
      {"prefixLength", length < 0 ? json() : json(length)},
      {"adapter",
       {{"configured", adapter},
        {"address", adapter ? json(Text([&](char* b, uint32_t* l) {
           return PLR_GetVnetAdapterAddr(name, b, l, true);
         }))
                            : json()},
        {"present", installed},
        {"up", up}}},
      {"dhcp", PLR_GetVnetUseDHCP(name)},
      {"nat", PLR_GetVnetUseNAT(name)},
      {"bridgedAdapters", bridged},
      {"services",
       {{"netifup", ServiceStatus(vnet, PLR_SERVICE_TYPE_NETIFUP)},
        {"bridge", ServiceStatus(vnet, PLR_SERVICE_TYPE_BRIDGE)},
        {"nat", ServiceStatus(vnet, PLR_SERVICE_TYPE_NAT)},
        {"dhcp", ServiceStatus(vnet, PLR_SERVICE_TYPE_DHCP)}}},
      {"staticMappings", StaticMappings(vnet).size()},
      {"portForwards", PortForwards(vnet).size()},
  };
}

json VnetDetails(const Vnet& vnet) {
  json out = VnetSummary(vnet, HostAdapters());
  uint32_t mtu = 0;
  out["mtu"] = PLR_GetVnetMTU(vnet.name.c_str(), &mtu) ? json(mtu) : json();
  out["dhcpParams"] = DhcpParams(vnet);
  out["natParams"] = NatParams(vnet);
  out["mappings"] = StaticMappings(vnet);
  out["forwards"] = PortForwards(vnet);
  json files = json::object();
  for (auto [key, type] :
       {std::pair{"dhcpdConf", PLR_FILE_DHCP_CONF}, std::pair{"dhcpdLeases", PLR_FILE_DHCP_LEASES},
        std::pair{"natConf", PLR_FILE_NAT_CONF}}) {
    char path[PLR_PATH_SIZE];
    files[key] = PLRGetFileName(vnet.number, type, path, sizeof path) ? json(path) : json();
  }
  out["files"] = files;
  return out;
}

}  // namespace pelorus_cli
