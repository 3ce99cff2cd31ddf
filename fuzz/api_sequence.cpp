// Drives random exported per-vnet calls against a database in the sandbox.
// After every call the file, loaded into a private cache, must export exactly
// the records of the default cache: file and cache never disagree.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr uint32_t kVnets = 4;
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

[[noreturn]] void Mismatch(const std::string& what) {
  fprintf(stderr, "api_sequence: file and cache disagree on %s\n", what.c_str());
  abort();
}

// The records a cache exports, sorted (DHCP mappings come in table order).
std::multiset<std::string> Records(PLRNetworkConfigurationDB* db) {
  char* text = nullptr;
  if (!PLRNetCfgExportConfigToBuffer(db, &text, false, true)) Mismatch("exporting");
  std::multiset<std::string> lines;
  std::istringstream in(text);
  free(text);
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return lines;
}

// Loads the database file into a private cache and compares it with the
// default one: every answer, forward and mapping, and the prefixes tried.
void CheckFileMatchesCache() {
  PLRNetworkConfigurationDB* priv = nullptr;
  if (!PLRNetCfgLoad(plr::test::kDatabasePath, &priv, false, true)) Mismatch("loading the file");
  if (Records(nullptr) != Records(priv)) Mismatch("the records");
  for (uint32_t v = 0; v < kVnets; ++v)
    for (const char* prefix : kPrefixes)
      if (PLRNetCfgLookupNATPrefix(nullptr, v, prefix) != PLRNetCfgLookupNATPrefix(priv, v, prefix))
        Mismatch(std::string("prefix ") + prefix);
  PLRNetCfgUnload(&priv, false);
}

// The exported calls, each filled from the input.
using Call = void (*)(const char* vnet, Input& in);
const Call kCalls[] = {
    [](const char* v, Input& in) {
      std::vector<char> name = in.Bytes(20);
      name.push_back('\0');
      PLR_SetVnetDisplayName(v, in.Byte() & 1 ? name.data() : nullptr);
    },
    [](const char* v, Input& in) { PLR_SetVnetSubnetAddr(v, in.Pick(kIPs)); },
    [](const char* v, Input& in) { PLR_SetVnetSubnetMask(v, in.Pick(kIPs)); },
    [](const char* v, Input& in) { PLR_SetVnetMTU(v, in.Word()); },
    [](const char* v, Input&) { PLR_RemoveMTU(v); },
    [](const char* v, Input& in) {
      std::vector<char> exact = in.Bytes(140);
      PLR_SetNATPrefix(v, in.Pick(kPrefixes), exact.empty() ? nullptr : exact.data(),
                       static_cast<uint32_t>(exact.size()));
    },
    [](const char* v, Input& in) {
      std::vector<char> exact = in.Bytes(20);
      PLR_SetDHCPParam(v, in.Pick(kDhcpIds), in.Byte() & 1 ? exact.data() : nullptr,
                       static_cast<uint32_t>(exact.size()));
    },
    [](const char* v, Input& in) {
      std::vector<char> value = in.Bytes(12);
      value.push_back('\0');  // NAT values must be terminated
      PLR_SetNATParam(v, in.Pick(kNatIds), in.Byte() & 1 ? value.data() : nullptr,
                      static_cast<uint32_t>(value.size() - 1));
    },
    [](const char* v, Input& in) { PLR_SetDHCPIPToMAC(v, in.Pick(kIPs), in.Pick(kMacs)); },
    [](const char* v, Input& in) {
      std::vector<char> exact = in.Bytes(140);
      PLR_SetNATPortForward(v, in.Byte() & 1, static_cast<uint16_t>(in.Byte() % 8), in.Pick(kIPs),
                            static_cast<uint16_t>(in.Byte()),
                            exact.empty() ? nullptr : exact.data(),
                            static_cast<uint32_t>(exact.size()));
    },
    [](const char* v, Input& in) { PLR_SetVnetUseDHCP(v, in.Byte() & 1, in.Byte() & 1); },
    [](const char* v, Input& in) { PLR_SetVnetUseNAT(v, in.Byte() & 1, in.Byte() & 1); },
    [](const char* v, Input& in) { PLR_SetVnetUseAdapter(v, in.Byte() & 1, in.Byte() & 1); },
    [](const char* v, Input& in) { PLR_SetVnetAdapterAddr(v, in.Pick(kIPs)); },
    [](const char* v, Input& in) {
      char out[64];
      uint32_t len = in.Byte() % 40;
      PLR_GetDHCPParam(v, in.Pick(kDhcpIds), in.Byte() & 1, out, &len);
    },
    [](const char* v, Input& in) {
      char out[64];
      uint32_t len = in.Byte() % 40, offset = in.Byte() % 4;
      uint16_t hostPort, vmPort;
      PLR_EnumNATPortForward(v, in.Byte() & 1, &offset, &hostPort, out, &len, &vmPort, nullptr,
                             nullptr);
    },
};

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
    const char* vnet = in.Pick(kNames);
    in.Pick(kCalls)(vnet, in);
    CheckFileMatchesCache();
  }
  PLR_Unload2(0);
  return 0;
}
