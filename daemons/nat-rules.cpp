#include "daemons/nat-rules.h"

#include <arpa/inet.h>
#include <pelorus.h>
#include <stdlib.h>

#include <memory>
#include <sstream>

#include "daemons/daemon.h"

namespace kavix {
namespace {

// A reader result as a string (the reader allocates); "" when absent.
std::string Owned(char* text) {
  std::unique_ptr<char, decltype(&free)> owner(text, free);
  return text != nullptr ? text : "";
}

bool IsIPv4(const std::string& text) {
  struct in_addr addr;
  return inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

// The forwards of one [incomingtcp] or [incomingudp] section.
bool ReadForwards(const char* section, bool tcp, NatConfig* out, std::string* error) {
  NatCfgIterator* iter = NatCfgListItemsInit(section);
  if (iter == nullptr) return true;  // no such section: no forwards
  bool ok = true;
  char *value = nullptr, *comment = nullptr;
  while (char* rawKey = NatCfgListItems(iter, &value, &comment)) {
    const std::string key = Owned(rawKey), target = Owned(value);
    Owned(comment);
    const size_t colon = target.rfind(':');
    long host = 0, guest = 0;
    Forward f;
    f.tcp = tcp;
    f.guestIp = target.substr(0, colon == std::string::npos ? 0 : colon);
    if (colon == std::string::npos || !ParseNumber(key.c_str(), 1, 65535, &host) ||
        !ParseNumber(target.c_str() + colon + 1, 1, 65535, &guest) || !IsIPv4(f.guestIp)) {
      *error = std::string("bad forward in [") + section + "]: " + key + " = " + target;
      ok = false;
      break;
    }
    f.hostPort = static_cast<uint16_t>(host);
    f.guestPort = static_cast<uint16_t>(guest);
    out->forwards.push_back(f);
  }
  NatCfgListItemsDestroy(iter);
  return ok;
}

}  // namespace

bool ReadNatConfig(const std::string& path, NatConfig* out, std::string* error) {
  globalConfig = path.c_str();
  const std::string device = Owned(NatCfgGetItem("host", "device"));
  out->gateway = Owned(NatCfgGetItem("host", "ip"));
  const std::string mask = Owned(NatCfgGetItem("host", "netmask"));
  out->ipv6 = Owned(NatCfgGetItem("host", "natIp6Enable")) == "1";
  const size_t slash = device.rfind('/');
  out->iface = device.substr(slash == std::string::npos ? 0 : slash + 1);
  struct in_addr gw, nm;
  if (out->iface.rfind("kavix", 0) != 0 || out->iface.size() > 15) {
    *error = "no kavix device in [host] of " + path;
  } else if (inet_pton(AF_INET, out->gateway.c_str(), &gw) != 1) {
    *error = "no gateway ip in [host] of " + path;
  } else if (inet_pton(AF_INET, mask.c_str(), &nm) != 1) {
    *error = "no netmask in [host] of " + path;
  } else {
    const uint32_t bits = ntohl(nm.s_addr);
    out->prefixLength = __builtin_popcount(bits);
    if (out->prefixLength == 0 || out->prefixLength > 30 || (bits << out->prefixLength) != 0) {
      *error = "bad netmask " + mask + " in " + path;
    } else {
      struct in_addr net = {htonl(ntohl(gw.s_addr) & bits)};
      char text[INET_ADDRSTRLEN];
      inet_ntop(AF_INET, &net, text, sizeof text);
      out->subnet = std::string(text) + "/" + std::to_string(out->prefixLength);
    }
  }
  if (!error->empty()) return false;
  return ReadForwards("incomingtcp", true, out, error) &&
         ReadForwards("incomingudp", false, out, error);
}

std::string TableName(const NatConfig& config) {
  return config.iface;
}

std::string RuleSet(const NatConfig& c, const std::string& resolver) {
  const std::string table = "ip " + TableName(c), ifname = "\"" + c.iface + "\"";
  std::ostringstream r;
  // Adding first makes the delete valid whether the table exists or not.
  r << "add table " << table << "\ndelete table " << table << "\n";
  r << "table " << table << " {\n";
  r << "  chain prerouting {\n    type nat hook prerouting priority dstnat; policy accept;\n";
  for (const Forward& f : c.forwards)
    r << "    fib daddr type local " << (f.tcp ? "tcp" : "udp") << " dport " << f.hostPort
      << " dnat to " << f.guestIp << ":" << f.guestPort << "\n";
  if (!resolver.empty())
    for (const char* proto : {"udp", "tcp"})
      r << "    iifname " << ifname << " ip daddr " << c.gateway << " " << proto
        << " dport 53 dnat to " << resolver << ":53\n";
  r << "  }\n";
  r << "  chain output {\n    type nat hook output priority -100; policy accept;\n";
  for (const Forward& f : c.forwards)
    r << "    fib daddr type local " << (f.tcp ? "tcp" : "udp") << " dport " << f.hostPort
      << " dnat to " << f.guestIp << ":" << f.guestPort << "\n";
  r << "  }\n";
  r << "  chain postrouting {\n    type nat hook postrouting priority srcnat; policy accept;\n";
  r << "    ip saddr " << c.subnet << " oifname != " << ifname << " masquerade\n";
  r << "  }\n";
  r << "  chain forward {\n    type filter hook forward priority filter; policy accept;\n";
  r << "    iifname " << ifname << " ip saddr " << c.subnet << " accept\n";
  r << "    oifname " << ifname << " ct state established,related accept\n";
  r << "    oifname " << ifname << " ct status dnat accept\n";
  r << "  }\n}\n";
  return r.str();
}

std::string FirstNameserver(const std::string& resolvConf) {
  std::istringstream in(resolvConf);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string keyword, address;
    if (words >> keyword >> address && keyword == "nameserver" && IsIPv4(address)) return address;
  }
  return "";
}

}  // namespace kavix
