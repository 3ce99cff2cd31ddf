// Test support for the service-file generators: vnet records, the generated files' paths and
// the real DHCP server's syntax check.
#pragma once

#include <string>
#include <vector>

#include "tests/support/vnet_util.h"

namespace plr::test {

// Paths of vnet `vnet`'s generated files under the default CONFIGDIR.
inline std::string VnetPath(unsigned vnet, const char* rest) {
  return "/etc/tarsis/kavix" + std::to_string(vnet) + rest;
}
inline std::string DhcpConfPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf");
}
inline std::string DhcpBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf.bak");
}
inline std::string DhcpLeasesPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.leases");
}
inline std::string NatConfPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf");
}
inline std::string NatBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf.bak");
}

// The database records of a vnet with a subnet, DHCP on and NAT as given.
std::string VnetRecords(unsigned vnet, const std::string& subnet, const std::string& mask,
                        bool nat);

// The text with its "# Written at: ..." line's time replaced by "<TIME>".
std::string MaskWrittenAt(const std::string& text);

// Upper-case hex SHA-1 of `data`.
std::string Sha1Upper(const std::string& data);

// Runs the real DHCP server's configuration check on `path`; false with its
// output in `output` when the server rejects the file.
bool DhcpdAccepts(const std::string& path, std::string* output);

}  // namespace plr::test
