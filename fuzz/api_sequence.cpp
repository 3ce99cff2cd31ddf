// Drives a random sequence of exported per-vnet calls with random arguments
// against a database in the sandbox. After every call the database file is
// loaded into a second, private cache, which must give exactly the answers
// and records of the default cache: whatever a call did or refused, the file
// and the cache never disagree.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr uint32_t kVnets = 4;
// The VNET_<n>_ answer fields compared after every call.
constexpr const char* kKeys =
    "DISPLAY_NAME HOSTONLY_SUBNET HOSTONLY_NETMASK DHCP NAT VIRTUAL_ADAPTER VIRTUAL_ADAPTER_ADDR "
    "MTU DHCP_CFG_HASH DHCP_PARAM_LEASE_START_IP DHCP_PARAM_LEASE_END_IP DHCP_PARAM_DNS_ADDR "
    "DHCP_PARAM_ROUTERS DHCP_PARAM_NETBIOS DHCP_PARAM_SUB_DEFAULT_LEASE_TIME "
    "DHCP_PARAM_SUB_MAX_LEASE_TIME NAT_PARAM_GATEWAY_IP NAT_PARAM_CONFIG_PORT NAT_PARAM_ACTIVE_FTP "
    "NAT_PARAM_ALLOW_ANY_OUI NAT_PARAM_UDP_TIMEOUT NAT_PARAM_NAT6 NAT_PARAM_NAT6_PREFIX";
const char* const kNames[] = {"kavix0",   "kavix1", "KAVIX2", "kavix3",
                              "kavix256", "kavix",  "",       nullptr};
const char* const kPrefixes[] = {"fd00::/64", "fd15:4ba5:5a2b:1001::/64", "2001:db8::/48", "zz"};
const char* const kMacs[] = {"00:50:56:00:00:01", "0:50:56:0:0:2", "00:50:56:AA:BB:CC", "bad"};
const char* const kIPs[] = {"192.168.5.0",   "192.168.5.10", "10.0.0.1",
                            "255.255.255.0", "1.2.3",        nullptr};
const uint32_t kDhcpIds[] = {13350, 13351, 13354, 13355, 13356, 13357, 13358, 13362, 1};
const uint32_t kNatIds[] = {9027, 9030, 9031, 9032, 9033, 9050, 9051, 9028};

// Reads the fuzz input as a stream of small choices.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return pos_ >= size_; }
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint32_t Word() { return Byte() | (Byte() << 8) | (uint32_t{Byte()} << 16); }
  template <class T, size_t N>
  T Pick(T (&table)[N]) {
    return table[Byte() % N];
  }
  // Up to `max` raw bytes (not terminated), as an owned exact-size block.
  std::vector<char> Bytes(size_t max) {
    size_t n = Byte() % (max + 1);
    std::vector<char> out;
    while (n-- > 0 && !empty()) out.push_back(static_cast<char>(Byte()));
    return out;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

using Forward = std::tuple<uint16_t, std::string, uint16_t, std::string>;

std::set<Forward> Forwards(PLRNetworkConfigurationDB* db, uint32_t vnet, bool tcp) {
  std::set<Forward> out;
  uint32_t cursor = 0;
  for (;;) {
    uint16_t hostPort = 0, vmPort = 0;
    char ip[16] = {}, desc[256] = {};
    uint32_t descLen = sizeof desc;
    if (!PLRNetCfgEnumNATPortFwd(db, vnet, tcp, &cursor, &hostPort, ip, sizeof ip, &vmPort, desc,
                                 &descLen))
      return out;
    out.emplace(hostPort, ip, vmPort, descLen != 0 ? desc : "");
  }
}

std::set<std::string> Mappings(PLRNetworkConfigurationDB* db, uint32_t vnet) {
  std::set<std::string> out;
  uint32_t cursor = 0;
  char mac[18], ip[16];
  while (PLRNetCfgEnumDHCPMACToIP(db, vnet, &cursor, mac, sizeof mac, ip, sizeof ip))
    out.insert(std::string(mac) + "=" + ip);
  return out;
}

std::string AnswerOf(PLRNetworkConfigurationDB* db, const std::string& key) {
  const char* value = nullptr;
  return PLRNetCfgGetAnswerString(db, key.c_str(), &value) ? std::string("=") + value : "<absent>";
}

[[noreturn]] void Mismatch(const std::string& what) {
  fprintf(stderr, "api_sequence: file and cache disagree on %s\n", what.c_str());
  abort();
}

// Loads the database file into a private cache and compares it with the default one.
void CheckFileMatchesCache() {
  PLRNetworkConfigurationDB* priv = nullptr;
  if (!PLRNetCfgLoad(plr::test::kDatabasePath, &priv, false, true)) Mismatch("loading the file");
  for (uint32_t v = 0; v < kVnets; ++v) {
    std::istringstream keys(kKeys);
    for (std::string key; keys >> key;) {
      const std::string full = "VNET_" + std::to_string(v) + "_" + key;
      if (AnswerOf(nullptr, full) != AnswerOf(priv, full)) Mismatch(full);
    }
    for (bool tcp : {true, false})
      if (Forwards(nullptr, v, tcp) != Forwards(priv, v, tcp)) Mismatch("port forwards");
    if (Mappings(nullptr, v) != Mappings(priv, v)) Mismatch("DHCP mappings");
    for (const char* prefix : kPrefixes)
      if (PLRNetCfgLookupNATPrefix(nullptr, v, prefix) != PLRNetCfgLookupNATPrefix(priv, v, prefix))
        Mismatch(std::string("prefix ") + prefix);
  }
  PLRNetCfgUnload(&priv, false);
}

// One exported call chosen and filled from the input.
void OneCall(Input& in) {
  const char* vnet = in.Pick(kNames);
  char out[64];
  uint32_t len = in.Byte() % 40;
  switch (in.Byte() % 16) {
    case 0: {
      std::vector<char> name = in.Bytes(20);
      name.push_back('\0');
      PLR_SetVnetDisplayName(vnet, in.Byte() & 1 ? name.data() : nullptr);
      break;
    }
    case 1:
      PLR_SetVnetSubnetAddr(vnet, in.Pick(kIPs));
      break;
    case 2:
      PLR_SetVnetSubnetMask(vnet, in.Pick(kIPs));
      break;
    case 3:
      PLR_SetVnetMTU(vnet, in.Word());
      break;
    case 4:
      PLR_RemoveMTU(vnet);
      break;
    case 5: {
      std::vector<char> exact = in.Bytes(140);
      PLR_SetNATPrefix(vnet, in.Pick(kPrefixes), exact.empty() ? nullptr : exact.data(),
                       static_cast<uint32_t>(exact.size()));
      break;
    }
    case 6: {
      std::vector<char> exact = in.Bytes(20);
      PLR_SetDHCPParam(vnet, in.Pick(kDhcpIds), in.Byte() & 1 ? exact.data() : nullptr,
                       static_cast<uint32_t>(exact.size()));
      break;
    }
    case 7: {
      std::vector<char> value = in.Bytes(12);
      value.push_back('\0');  // NAT values must be terminated
      PLR_SetNATParam(vnet, in.Pick(kNatIds), in.Byte() & 1 ? value.data() : nullptr,
                      static_cast<uint32_t>(value.size() - 1));
      break;
    }
    case 8:
      PLR_SetDHCPIPToMAC(vnet, in.Pick(kIPs), in.Pick(kMacs));
      break;
    case 9: {
      std::vector<char> exact = in.Bytes(140);
      PLR_SetNATPortForward(vnet, in.Byte() & 1, static_cast<uint16_t>(in.Byte() % 8),
                            in.Pick(kIPs), static_cast<uint16_t>(in.Byte()),
                            exact.empty() ? nullptr : exact.data(),
                            static_cast<uint32_t>(exact.size()));
      break;
    }
    case 10:
      PLR_SetVnetUseDHCP(vnet, in.Byte() & 1, in.Byte() & 1);
      break;
    case 11:
      PLR_SetVnetUseNAT(vnet, in.Byte() & 1, in.Byte() & 1);
      break;
    case 12:
      PLR_SetVnetUseAdapter(vnet, in.Byte() & 1, in.Byte() & 1);
      break;
    case 13:
      PLR_SetVnetAdapterAddr(vnet, in.Pick(kIPs));
      break;
    case 14:
      PLR_GetDHCPParam(vnet, in.Pick(kDhcpIds), in.Byte() & 1, out, &len);
      break;
    default: {
      uint32_t offset = in.Byte() % 4;
      uint16_t hostPort, vmPort;
      PLR_EnumNATPortForward(vnet, in.Byte() & 1, &offset, &hostPort, out, &len, &vmPort, nullptr,
                             nullptr);
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!plr::test::EnterSandbox()) abort();
  plr::test::WriteProductConfig();
  plr::test::WriteFile("/tmp/tarsis-ping.rules", "* 1\n");  // every candidate free
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  plr::test::WriteDatabase(
      "answer VNET_1_HOSTONLY_SUBNET 192.168.5.0\n"
      "answer VNET_1_HOSTONLY_NETMASK 255.255.255.0\n");
  if (!PLR_Load(false)) abort();
  PLR_SetCurrentLogLevel(0);
  Input in(data, size);
  for (int calls = 0; calls < 32 && !in.empty(); ++calls) {
    OneCall(in);
    CheckFileMatchesCache();
  }
  PLR_Unload2(0);
  return 0;
}
