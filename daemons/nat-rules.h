// The NAT daemon's view of nat.conf and the nftables rule set made from it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace kavix {

struct Forward {
  bool tcp = true;
  uint16_t hostPort = 0;
  std::string guestIp;
  uint16_t guestPort = 0;
};

struct NatConfig {
  std::string iface;     // "kavix8", from the device "/dev/kavix8"
  std::string gateway;   // the [host] ip
  int prefixLength = 0;  // from the [host] netmask
  std::string subnet;    // "192.168.8.0/24"
  bool ipv6 = false;     // natIp6Enable
  std::vector<Forward> forwards;
};

// Reads `path` with the library's nat.conf reader; false with `error` set
// when a value the daemon needs is missing or malformed.
bool ReadNatConfig(const std::string& path, NatConfig* out, std::string* error);

// The nftables table of the vnet ("kavix8").
std::string TableName(const NatConfig& config);

// One nftables transaction that replaces the vnet's table (whether it
// exists or not) with: masquerade of the subnet leaving through any other
// interface, forwarding allowed for it, one DNAT per forward from the host's
// own addresses (incoming and from the host itself), and name service at the
// gateway address forwarded to `resolver` (none when empty).
std::string RuleSet(const NatConfig& config, const std::string& resolver);

// The first IPv4 nameserver of a resolv.conf text, "" when none.
std::string FirstNameserver(const std::string& resolvConf);

}  // namespace kavix
