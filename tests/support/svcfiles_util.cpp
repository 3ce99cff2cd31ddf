#include "tests/support/svcfiles_util.h"

#include <regex>

#include "base/sha1.h"
#include "base/str-util.h"
#include "tests/support/sandbox.h"

namespace plr::test {

std::string VnetRecords(unsigned vnet, const std::string& subnet, const std::string& mask,
                        bool nat) {
  const std::string a = "answer VNET_" + std::to_string(vnet);
  return a + "_HOSTONLY_SUBNET " + subnet + "\n" + a + "_HOSTONLY_NETMASK " + mask + "\n" + a +
         "_DHCP yes\n" + a + "_NAT " + (nat ? "yes" : "no") + "\n";
}

std::string MaskWrittenAt(const std::string& text) {
  return std::regex_replace(text, std::regex("# Written at: [^\n]*"), "# Written at: <TIME>");
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
