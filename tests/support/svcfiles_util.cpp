#include "tests/support/svcfiles_util.h"

#include "base/sha1.h"
#include "base/str-util.h"
#include "tests/support/sandbox.h"

namespace plr::test {

namespace {
std::string VnetPath(unsigned vnet, const char* rest) {
  return "/etc/tarsis/kavix" + std::to_string(vnet) + rest;
}
}  // namespace

std::string DhcpConfPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf");
}
std::string DhcpBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.conf.bak");
}
std::string DhcpLeasesPath(unsigned vnet) {
  return VnetPath(vnet, "/dhcpd/dhcpd.leases");
}
std::string NatConfPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf");
}
std::string NatBackupPath(unsigned vnet) {
  return VnetPath(vnet, "/nat/nat.conf.bak");
}

std::string VnetRecords(unsigned vnet, const std::string& subnet, const std::string& mask,
                        bool nat) {
  const std::string a = "answer VNET_" + std::to_string(vnet);
  return a + "_HOSTONLY_SUBNET " + subnet + "\n" + a + "_HOSTONLY_NETMASK " + mask + "\n" + a +
         "_DHCP yes\n" + a + "_NAT " + (nat ? "yes" : "no") + "\n";
}

std::string MaskWrittenAt(const std::string& text) {
  static const std::string kPrefix = "# Written at: ";
  std::string out = text;
  for (size_t at = out.find(kPrefix); at != std::string::npos;
       at = out.find(kPrefix, at + kPrefix.size())) {
    size_t end = out.find('\n', at);
    if (end == std::string::npos) break;
    out.replace(at + kPrefix.size(), end - at - kPrefix.size(), "<TIME>");
  }
  return out;
}

std::string Sha1Upper(const std::string& data) {
  std::string hex = Sha1Hex(data);
  for (char& c : hex) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return hex;
}

bool DhcpdAccepts(const std::string& path, std::string* output) {
  std::string out = Capture("dhcpd -4 -t -cf '" + path + "' 2>&1; echo \"rc=$?\"");
  if (output != nullptr) *output = out;
  return out.size() >= 5 && out.compare(out.size() - 5, 5, "rc=0\n") == 0;
}

}  // namespace plr::test
