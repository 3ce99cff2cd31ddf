// Refused calls of every exported per-vnet function: each missing pointer in
// turn, lengths at and around each minimum, invalid vnet names, bad values.
// Every refused call returns its failure value, logs its own refusal line,
// leaves the database file byte for byte as it was and never takes the lock.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/frame.h"
#include "pelorus.h"
#include "tests/support/api_util.h"
#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

// Fixed out-buffers, so that the pointers in the expected lines are known.
char gOut[512];
char gMac[64];
uint32_t gLen;
uint32_t gLen2;
uint32_t gOffset;
uint16_t gPort;
uint16_t gPort2;
bool gFlag1;
bool gFlag2;

std::string F(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string F(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

struct BadCall {
  std::string label;
  std::function<uint32_t()> call;  // the result as a number (bools are 0/1)
  std::string line;                // the refusal line, "Function - message"
  uint32_t expected = 0;           // the failure value
};

// Keeps gtest from dumping the case's bytes into test names.
[[maybe_unused]] void PrintTo(const BadCall& bad, std::ostream* os) {
  *os << bad.label;
}

constexpr const char* V = "kavix1";
const std::string kLongName = "kavix" + std::string(295, '1');

#define CASE(label, expr, line)                             \
  BadCall {                                                 \
    label, [] { return static_cast<uint32_t>(expr); }, line \
  }

std::vector<BadCall> PointerAndLengthCases() {
  const void* o = gOut;
  const void* l = &gLen;
  std::vector<BadCall> c = {
      // Vnet properties: setters and the rest.
      CASE("SetDisplayName_NullVnet", PLR_SetVnetDisplayName(nullptr, "x"),
           F("PLR_SetVnetDisplayName - Invalid argument - vnet: %p", nullptr)),
      CASE("SetSubnetAddr_NullVnet", PLR_SetVnetSubnetAddr(nullptr, "10.0.0.0"),
           F("PLR_SetVnetSubnetAddr - Invalid argument - vnet: %p", nullptr)),
      CASE("SetSubnetAddr_BadAddress", PLR_SetVnetSubnetAddr(V, "300.1.1.0"),
           "PLR_SetVnetSubnetAddr - Subnet address is not valid: 300.1.1.0"),
      CASE("SetSubnetMask_NullVnet", PLR_SetVnetSubnetMask(nullptr, "255.255.255.0"),
           F("PLR_SetVnetSubnetMask - Invalid argument - vnet: %p", nullptr)),
      CASE("SetSubnetMask_BadMask", PLR_SetVnetSubnetMask(V, "255.0.255.0"),
           "PLR_SetVnetSubnetMask - Specified mask is not valid"),
      CASE("SetMTU_NullVnet", PLR_SetVnetMTU(nullptr, 1500),
           F("PLR_SetVnetMTU - Invalid argument - vnet: %p", nullptr)),
      CASE("GetMTU_NullVnet", PLR_GetVnetMTU(nullptr, &gLen),
           F("PLR_GetVnetMTU - Invalid argument - vnet: %p, mtu: %p", nullptr, l)),
      CASE("GetMTU_NullOut", PLR_GetVnetMTU(V, nullptr),
           F("PLR_GetVnetMTU - Invalid argument - vnet: %p, mtu: %p", V, nullptr)),
      CASE("RemoveMTU_NullVnet", PLR_RemoveMTU(nullptr),
           F("PLR_RemoveMTU - Invalid argument - vnet: %p", nullptr)),
      CASE("Assign_NullVnet", PLR_AssignSubnetAddressToVnet(nullptr, true),
           F("PLR_AssignSubnetAddressToVnet - Invalid argument - vnet: %p", nullptr)),
      CASE("SetPrefix_NullVnet", PLR_SetNATPrefix(nullptr, "fd00::/64", nullptr, 0),
           F("PLR_SetNATPrefix - Invalid argument - kavix: %p", nullptr)),
      CASE("SetPrefix_NullPrefix", PLR_SetNATPrefix(V, nullptr, nullptr, 0),
           F("PLR_SetNATPrefix - Invalid argument - kavix: %p", V)),
      CASE("SetPrefix_BadPrefix", PLR_SetNATPrefix(V, "zz", nullptr, 0),
           "PLR_SetNATPrefix - Invalid prefix: zz"),
      CASE("SetPrefix_Description128", PLR_SetNATPrefix(V, "fd00::/64", gOut, 128),
           "PLR_SetNATPrefix - Description is too long, allowed is: 128 bytes"),
      CASE("SetPrefix_DescriptionNegative", PLR_SetNATPrefix(V, "fd00::/64", gOut, 0xFFFFFFFFu),
           "PLR_SetNATPrefix - Description is too long, allowed is: 128 bytes"),
      CASE("GetPrefix_NullVnet", PLR_GetNATPrefix(nullptr, "fd00::/64", nullptr, nullptr),
           F("PLR_GetNATPrefix - Invalid argument - kavix: %p", nullptr)),
      CASE("GetPrefix_NullPrefix", PLR_GetNATPrefix(V, nullptr, nullptr, nullptr),
           F("PLR_GetNATPrefix - Invalid argument - kavix: %p", V)),
      CASE("GetPrefix_BufferWithoutLength", PLR_GetNATPrefix(V, "fd00::/64", gOut, nullptr),
           F("PLR_GetNATPrefix - Invalid argument - kavix: %p", V)),
      CASE("UnusedSubnet_NullSubnet", PLR_GetUnusedSubnet(nullptr, 16, gMac, 16),
           "PLR_GetUnusedSubnet - Invalid arguments"),
      CASE("UnusedSubnet_NullMask", PLR_GetUnusedSubnet(gOut, 16, nullptr, 16),
           "PLR_GetUnusedSubnet - Invalid arguments"),
      CASE("UnusedSubnet_SubnetLength15", PLR_GetUnusedSubnet(gOut, 15, gMac, 16),
           "PLR_GetUnusedSubnet - Invalid arguments"),
      CASE("UnusedSubnet_MaskLength15", PLR_GetUnusedSubnet(gOut, 16, gMac, 15),
           "PLR_GetUnusedSubnet - Invalid arguments"),
      CASE("UnusedSubnet_Length0", PLR_GetUnusedSubnet(gOut, 0, gMac, 0),
           "PLR_GetUnusedSubnet - Invalid arguments"),
      CASE("CheckSubnet_NullVnet", PLR_CheckSubnetAvailability(nullptr, true, 1, 1, &gFlag1),
           F("PLR_CheckSubnetAvailability - Invalid argument - vnet: %p, available: %p", nullptr,
             static_cast<const void*>(&gFlag1))),
      CASE("CheckSubnet_NullOut", PLR_CheckSubnetAvailability(V, true, 1, 1, nullptr),
           F("PLR_CheckSubnetAvailability - Invalid argument - vnet: %p, available: %p", V,
             nullptr)),
      // DHCP and NAT.
      CASE("GetUseDHCP_NullVnet", PLR_GetVnetUseDHCP(nullptr),
           F("PLR_GetVnetUseDHCP - Invalid argument - vnet: %p", nullptr)),
      CASE("GetUseNAT_NullVnet", PLR_GetVnetUseNAT(nullptr),
           F("PLR_GetVnetUseNAT - Invalid argument - kavix: %p", nullptr)),
      CASE("SetUseDHCP_NullVnet", PLR_SetVnetUseDHCP(nullptr, true, false),
           F("PLR_SetVnetUseDHCP - Invalid argument - %p", nullptr)),
      CASE("SetUseNAT_NullVnet", PLR_SetVnetUseNAT(nullptr, true, false),
           F("PLR_SetVnetUseNAT - Invalid argument - vnet: %p", nullptr)),
      CASE("GetDHCPParam_Unmapped", (gLen = 16, PLR_GetDHCPParam(V, 13352, true, gOut, &gLen)),
           "PLR_GetDHCPParam - Unsupported DHCP Parameter"),
      CASE("SetDHCPParam_NullVnet", PLR_SetDHCPParam(nullptr, PLR_DHCP_EXT_PARAM_ROUTERS, gOut, 3),
           F("PLR_SetDHCPParam - Invalid argument - vnet: %p, param: %p", nullptr, o)),
      CASE("SetDHCPParam_Unmapped", PLR_SetDHCPParam(V, 1, "1800", 4),
           "PLR_SetDHCPParam - Unsupported DHCP Parameter"),
      CASE("GetNATParam_Unmapped", (gLen = 16, PLR_GetNATParam(V, 9029, true, gOut, &gLen)),
           "PLR_GetNATParam - Unsupported NAT parameter ID: 9029"),
      CASE("SetNATParam_NullVnet", PLR_SetNATParam(nullptr, PLR_NAT_EXT_PARAM_ACTIVE_FTP, "1", 1),
           F("PLR_SetNATParam - Invalid argument - kavix: %p", nullptr)),
      CASE("SetNATParam_Unmapped", PLR_SetNATParam(V, 9028, "1", 1),
           "PLR_SetNATParam - Unsupported NAT parameter: 9028"),
      CASE("SetIPToMAC_NullVnet", PLR_SetDHCPIPToMAC(nullptr, "192.168.1.9", "00:50:56:01:02:03"),
           F("PLR_SetDHCPIPToMAC - Invalid argument - vnet: %p, mac: %p", nullptr,
             static_cast<const void*>("00:50:56:01:02:03"))),
      CASE("SetIPToMAC_NullMac", PLR_SetDHCPIPToMAC(V, "192.168.1.9", nullptr),
           F("PLR_SetDHCPIPToMAC - Invalid argument - vnet: %p, mac: %p", V, nullptr)),
      CASE("SetIPToMAC_BadIP", PLR_SetDHCPIPToMAC(V, "192.168.1.999", "00:50:56:01:02:03"),
           "PLR_SetDHCPIPToMAC - IP address is not valid: 192.168.1.999"),
      CASE("SetIPToMAC_BadMac", PLR_SetDHCPIPToMAC(V, "192.168.1.9", "00:50:56:01:02"),
           "PLR_SetDHCPIPToMAC - MAC address is not valid: 00:50:56:01:02"),
      CASE("GetIPToMAC_NullVnet", (gLen = 16, PLR_GetDHCPIPToMAC(nullptr, gOut, &gLen, gMac)),
           F("PLR_GetDHCPIPToMAC - Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p",
             nullptr, o, l, 16, static_cast<const void*>(gMac))),
      CASE("GetIPToMAC_NullIP", (gLen = 16, PLR_GetDHCPIPToMAC(V, nullptr, &gLen, gMac)),
           F("PLR_GetDHCPIPToMAC - Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", V,
             nullptr, l, 16, static_cast<const void*>(gMac))),
      CASE("GetIPToMAC_NullLength", PLR_GetDHCPIPToMAC(V, gOut, nullptr, gMac),
           F("PLR_GetDHCPIPToMAC - Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", V,
             o, nullptr, 0, static_cast<const void*>(gMac))),
      CASE("GetIPToMAC_NullMac", (gLen = 16, PLR_GetDHCPIPToMAC(V, gOut, &gLen, nullptr)),
           F("PLR_GetDHCPIPToMAC - Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", V,
             o, l, 16, nullptr)),
      CASE("GetIPToMAC_Length15", (gLen = 15, PLR_GetDHCPIPToMAC(V, gOut, &gLen, gMac)),
           F("PLR_GetDHCPIPToMAC - Invalid argument - kavix: %p, ip: %p, ipLen: %p,%u, mac: %p", V,
             o, l, 15, static_cast<const void*>(gMac))),
      // The refusal of a bad MAC shows the IP output buffer (here empty).
      CASE("GetIPToMAC_BadMac",
           (gLen = 16, gOut[0] = '\0', PLR_GetDHCPIPToMAC(V, gOut, &gLen, "zz:50:56:01:02:03")),
           "PLR_GetDHCPIPToMAC - MAC address is not valid: "),
      CASE("SetPortFwd_NullVnet",
           PLR_SetNATPortForward(nullptr, true, 8080, "192.168.1.9", 80, nullptr, 0),
           F("PLR_SetNATPortForward - Invalid argument - kavix: %p, hostPort: %u", nullptr, 8080)),
      CASE("SetPortFwd_HostPort0", PLR_SetNATPortForward(V, true, 0, "192.168.1.9", 80, nullptr, 0),
           F("PLR_SetNATPortForward - Invalid argument - kavix: %p, hostPort: %u", V, 0)),
      CASE("SetPortFwd_BadVmIP", PLR_SetNATPortForward(V, true, 8080, "192.168.1", 80, nullptr, 0),
           "PLR_SetNATPortForward - Invalid VM IP: 192.168.1 or port: 80"),
      CASE("SetPortFwd_VmPort0",
           PLR_SetNATPortForward(V, false, 8080, "192.168.1.9", 0, nullptr, 0),
           "PLR_SetNATPortForward - Invalid VM IP: 192.168.1.9 or port: 0"),
      CASE("SetPortFwd_Description128",
           PLR_SetNATPortForward(V, true, 8080, "192.168.1.9", 80, gOut, 128),
           "PLR_SetNATPortForward - Description is too long, allowed is: 128 bytes"),
      CASE("UpdateDHCP_NullVnet", PLR_UpdateDHCPFromConfig(nullptr),
           F("PLR_UpdateDHCPFromConfig - Invalid argument - kavix: %p", nullptr)),
      CASE("UpdateNAT_NullVnet", PLR_UpdateNATFromConfig(nullptr),
           F("PLR_UpdateNATFromConfig - Invalid argument - kavix: %p", nullptr)),
      // Adapters and services.
      CASE("SetUseAdapter_NullVnet", PLR_SetVnetUseAdapter(nullptr, true, false),
           F("PLR_SetVnetUseAdapter - Invalid argument - vnet: %p", nullptr)),
      CASE("SetAdapterAddr_NullVnet", PLR_SetVnetAdapterAddr(nullptr, "192.168.1.1"),
           F("PLR_SetVnetAdapterAddr - Invalid argument - vnet: %p", nullptr)),
      CASE("SetAdapterAddr_BadIP", PLR_SetVnetAdapterAddr(V, "1.2.3"),
           "PLR_SetVnetAdapterAddr - Invalid adapter IP address: 1.2.3"),
      CASE("AdapterStatus_NullVnet", PLR_GetVnetAdapterStatus(nullptr, &gFlag1, &gFlag2),
           F("PLR_GetVnetAdapterStatus - Invalid argument - vnet: %p, installed: %p, e: %p",
             nullptr, static_cast<const void*>(&gFlag1), static_cast<const void*>(&gFlag2))),
      CASE("AdapterStatus_NullInstalled", PLR_GetVnetAdapterStatus(V, nullptr, &gFlag2),
           F("PLR_GetVnetAdapterStatus - Invalid argument - vnet: %p, installed: %p, e: %p", V,
             nullptr, static_cast<const void*>(&gFlag2))),
      CASE("AdapterStatus_NullEnabled", PLR_GetVnetAdapterStatus(V, &gFlag1, nullptr),
           F("PLR_GetVnetAdapterStatus - Invalid argument - vnet: %p, installed: %p, e: %p", V,
             static_cast<const void*>(&gFlag1), nullptr)),
      CASE("UpdateAdapter_NullVnet", PLR_UpdateAdapterFromConfig(nullptr),
           F("PLR_UpdateAdapterFromConfig - Invalid argument - kavix: %p", nullptr)),
      CASE("DisableAdapter_NullVnet", PLR_DisableNetworkAdapter(nullptr),
           F("PLR_DisableNetworkAdapter - Invalid argument - vnet: %p", nullptr)),
      CASE("EnableAdapter_NullVnet", PLR_EnableNetworkAdapter(nullptr),
           F("PLR_EnableNetworkAdapter - Invalid argument - vnet: %p", nullptr)),
      CASE("CreateDevice_NullVnet", PLR_CreateKavixDevice(nullptr),
           F("PLRCreateDeleteKavixDevice - Invalid argument - vnet: %p", nullptr)),
      CASE("DeleteDevice_NullVnet", PLR_DeleteKavixDevice(nullptr),
           F("PLRCreateDeleteKavixDevice - Invalid argument - vnet: %p", nullptr)),
  };

  // Getters (vnet, buffer, length): each pointer missing in turn, length 0 and
  // the largest refused length.
  using Getter = bool (*)(const char*, char*, uint32_t*);
  auto getter = [&c](const std::string& name, Getter get, const char* format, uint32_t minLen,
                     uint32_t shortLen) {
    struct Row {
      const char* label;
      const char* vnet;
      char* buf;
      uint32_t* len;
      uint32_t size;
    };
    for (const Row& r :
         {Row{"NullVnet", nullptr, gOut, &gLen, minLen},
          Row{"NullBuffer", V, nullptr, &gLen, minLen}, Row{"NullLength", V, gOut, nullptr, 0},
          Row{"Length0", V, gOut, &gLen, 0}, Row{"TooShort", V, gOut, &gLen, shortLen}}) {
      if (shortLen == 0 && std::string(r.label) == "TooShort") continue;
      c.push_back(BadCall{name + "_" + r.label,
                          [=] {
                            gLen = r.size;
                            return static_cast<uint32_t>(get(r.vnet, r.buf, r.len));
                          },
                          F(format, static_cast<const void*>(r.vnet), static_cast<void*>(r.buf),
                            static_cast<void*>(r.len), r.size)});
    }
  };
  getter("DisplayName", PLR_GetVnetDisplayName,
         "PLR_GetVnetDisplayName - Invalid argument - vnet: %p, name: %p, nameLen:%p,%u", 128, 127);
  getter("SubnetAddr", PLR_GetVnetSubnetAddr,
         "PLR_GetVnetSubnetAddr - Invalid argument - vnet: %p, addr: %p, addrLen:%p,%u", 16, 15);
  getter("SubnetMask", PLR_GetVnetSubnetMask,
         "PLR_GetVnetSubnetMask - Invalid argument - vnet: %p, mask: %p, maskLen:%p,%u", 16, 15);
  getter(
      "AdapterAddr",
      [](const char* v, char* b, uint32_t* l) { return PLR_GetVnetAdapterAddr(v, b, l, true); },
      "PLR_GetVnetAdapterAddr - Invalid argument - vnet: %p, addr: %p, addrLen:%p,%u", 16, 15);
  // Parameter getters only refuse a zero length; a short buffer is the layer's to find.
  getter(
      "GetDHCPParam",
      [](const char* v, char* b, uint32_t* l) {
        return PLR_GetDHCPParam(v, PLR_DHCP_EXT_PARAM_ROUTERS, true, b, l);
      },
      "PLR_GetDHCPParam - Invalid argument - v: %p p: %p, pL: %p,%u", 16, 0);
  getter(
      "GetNATParam",
      [](const char* v, char* b, uint32_t* l) {
        return PLR_GetNATParam(v, PLR_NAT_EXT_PARAM_GATEWAY_IP, true, b, l);
      },
      "PLR_GetNATParam - Invalid argument", 16, 0);

  // Enumerations: each pointer missing in turn, lengths just below the minimum.
  auto enumDhcp = [](const char* label, const char* vnet, uint32_t* offset, char* ip,
                     uint32_t* ipLen, uint32_t ipSize, char* macBuf, uint32_t* macLen,
                     uint32_t macSize) {
    return BadCall{
        label,
        [=] {
          gLen = ipSize;
          gLen2 = macSize;
          gOffset = 0;
          return static_cast<uint32_t>(
              PLR_EnumDHCPIPToMAC(vnet, offset, ip, ipLen, macBuf, macLen));
        },
        F("PLR_EnumDHCPIPToMAC - Invalid argument: vnet: %p,%s enumOffset: %p,%u ip: %p, ipLen: "
          "%p,%u, mac: %p, macLen: %p,%u",
          vnet, PLR_STR(vnet), static_cast<const void*>(offset), 0u, ip, ipLen, ipLen ? ipSize : 0u,
          macBuf, macLen, macLen ? macSize : 0u)};
  };
  c.push_back(enumDhcp("EnumDHCP_NullVnet", nullptr, &gOffset, gOut, &gLen, 16, gMac, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_NullOffset", V, nullptr, gOut, &gLen, 16, gMac, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_NullIP", V, &gOffset, nullptr, &gLen, 16, gMac, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_NullIPLength", V, &gOffset, gOut, nullptr, 16, gMac, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_NullMac", V, &gOffset, gOut, &gLen, 16, nullptr, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_NullMacLength", V, &gOffset, gOut, &gLen, 16, gMac, nullptr, 18));
  c.push_back(enumDhcp("EnumDHCP_IPLength15", V, &gOffset, gOut, &gLen, 15, gMac, &gLen2, 18));
  c.push_back(enumDhcp("EnumDHCP_MacLength17", V, &gOffset, gOut, &gLen, 16, gMac, &gLen2, 17));
  c.push_back(enumDhcp("EnumDHCP_Lengths0", V, &gOffset, gOut, &gLen, 0, gMac, &gLen2, 0));

  auto getFwd = [](const char* label, const char* vnet, char* ip, uint32_t* ipLen, uint32_t ipSize,
                   uint16_t* port, char* desc, uint32_t* descLen) {
    return BadCall{
        label,
        [=] {
          gLen = ipSize;
          gLen2 = 128;
          return static_cast<uint32_t>(
              PLR_GetNATPortForward(vnet, true, 8080, ip, ipLen, port, desc, descLen));
        },
        F("PLR_GetNATPortForward - Invalid argument - vnet: %p, vmIP: %p, vmIPLen: %p, %u, "
          "vmPort: %p, description: %p, descLen: %p",
          vnet, ip, ipLen, ipLen ? ipSize : 0u, static_cast<const void*>(port), desc,
          static_cast<const void*>(descLen))};
  };
  c.push_back(getFwd("GetFwd_NullVnet", nullptr, gOut, &gLen, 16, &gPort, gMac, &gLen2));
  c.push_back(getFwd("GetFwd_NullIP", V, nullptr, &gLen, 16, &gPort, gMac, &gLen2));
  c.push_back(getFwd("GetFwd_NullIPLength", V, gOut, nullptr, 16, &gPort, gMac, &gLen2));
  c.push_back(getFwd("GetFwd_NullPort", V, gOut, &gLen, 16, nullptr, gMac, &gLen2));
  c.push_back(getFwd("GetFwd_DescWithoutLength", V, gOut, &gLen, 16, &gPort, gMac, nullptr));
  c.push_back(getFwd("GetFwd_IPLength15", V, gOut, &gLen, 15, &gPort, nullptr, nullptr));

  auto enumFwd = [](const char* label, const char* vnet, uint32_t* offset, char* ip,
                    uint32_t* ipLen, uint32_t ipSize, uint16_t* port, char* desc,
                    uint32_t* descLen) {
    return BadCall{
        label,
        [=] {
          gLen = ipSize;
          gLen2 = 128;
          gOffset = 0;
          return static_cast<uint32_t>(
              PLR_EnumNATPortForward(vnet, false, offset, &gPort2, ip, ipLen, port, desc, descLen));
        },
        F("PLR_EnumNATPortForward - Invalid argument, kavix: %p, enumOffset: %p, vmIP: %p "
          "vmIPLen: %p, %u, vmPort: %p, description: %p, descLen: %p",
          vnet, static_cast<const void*>(offset), ip, static_cast<const void*>(ipLen),
          ipLen ? ipSize : 0u, static_cast<const void*>(port), desc,
          static_cast<const void*>(descLen))};
  };
  c.push_back(
      enumFwd("EnumFwd_NullVnet", nullptr, &gOffset, gOut, &gLen, 16, &gPort, gMac, &gLen2));
  c.push_back(enumFwd("EnumFwd_NullOffset", V, nullptr, gOut, &gLen, 16, &gPort, gMac, &gLen2));
  c.push_back(enumFwd("EnumFwd_NullIP", V, &gOffset, nullptr, &gLen, 16, &gPort, gMac, &gLen2));
  c.push_back(
      enumFwd("EnumFwd_NullIPLength", V, &gOffset, gOut, nullptr, 16, &gPort, gMac, &gLen2));
  c.push_back(enumFwd("EnumFwd_NullPort", V, &gOffset, gOut, &gLen, 16, nullptr, gMac, &gLen2));
  c.push_back(
      enumFwd("EnumFwd_DescWithoutLength", V, &gOffset, gOut, &gLen, 16, &gPort, gMac, nullptr));
  c.push_back(
      enumFwd("EnumFwd_IPLength15", V, &gOffset, gOut, &gLen, 15, &gPort, nullptr, nullptr));

  // Service types outside 0x8801..0x8804, and a missing name.
  const std::pair<const char*, uint32_t> services[] = {
      {V, 0x8800u}, {V, 0x8805u}, {V, 0u}, {nullptr, PLR_SERVICE_TYPE_DHCP}};
  for (const auto& [vnet, type] : services) {
    const std::string t = vnet ? F("_Type%x", type) : "_NullVnet";
    const char* format = " - Invalid argument - vnet: %p, serviceType: %u";
    c.push_back(BadCall{"Start" + t, [=] { return uint32_t{PLR_StartService(vnet, type)}; },
                        "PLR_StartService" + F(format, vnet, type)});
    c.push_back(BadCall{"Stop" + t, [=] { return uint32_t{PLR_StopService(vnet, type)}; },
                        "PLR_StopService" + F(format, vnet, type)});
    c.push_back(BadCall{"Status" + t, [=] { return PLR_GetServiceStatus(vnet, type); },
                        "PLR_GetServiceStatus" + F(format, vnet, type),
                        PLR_SERVICE_STATUS_UNKNOWN});
  }
  return c;
}

// Every function that takes a vnet name, called with `name` and otherwise
// valid arguments, so that the name check is what refuses it.
struct NamedCall {
  const char* function;  // the name the refusal is logged under
  std::function<uint32_t(const char*)> call;
  uint32_t failure = 0;
};

// Out-lengths and offsets large enough for every call in NamedCalls().
void ResetOuts() {
  gLen = 128;
  gLen2 = 18;
  gOffset = 0;
}

#define NAMED(function, expr)                                           \
  NamedCall {                                                           \
    function, [](const char* n) { return static_cast<uint32_t>(expr); } \
  }

std::vector<NamedCall> NamedCalls() {
  return {
      NAMED("PLR_GetVnetDisplayName", PLR_GetVnetDisplayName(n, gOut, &gLen)),
      NAMED("PLR_SetVnetDisplayName", PLR_SetVnetDisplayName(n, "x")),
      NAMED("PLR_AssignSubnetAddressToVnet", PLR_AssignSubnetAddressToVnet(n, true)),
      NAMED("PLR_GetVnetSubnetAddr", PLR_GetVnetSubnetAddr(n, gOut, &gLen)),
      NAMED("PLR_SetVnetSubnetAddr", PLR_SetVnetSubnetAddr(n, "10.1.2.0")),
      NAMED("PLR_GetVnetSubnetMask", PLR_GetVnetSubnetMask(n, gOut, &gLen)),
      NAMED("PLR_SetVnetSubnetMask", PLR_SetVnetSubnetMask(n, "255.255.0.0")),
      NAMED("PLR_GetVnetAdapterAddr", PLR_GetVnetAdapterAddr(n, gOut, &gLen, true)),
      NAMED("PLR_SetVnetMTU", PLR_SetVnetMTU(n, 9000)),
      NAMED("PLR_GetVnetMTU", PLR_GetVnetMTU(n, &gLen)),
      NAMED("PLR_RemoveMTU", PLR_RemoveMTU(n)),
      NAMED("PLR_SetNATPrefix", PLR_SetNATPrefix(n, "fd00::/64", "d", 1)),
      NAMED("PLR_GetNATPrefix", PLR_GetNATPrefix(n, "fd00::/64", nullptr, nullptr)),
      NAMED("PLR_CheckSubnetAvailability", PLR_CheckSubnetAvailability(n, true, 1, 1, &gFlag1)),
      NAMED("PLR_GetVnetUseDHCP", PLR_GetVnetUseDHCP(n)),
      NAMED("PLR_SetVnetUseDHCP", PLR_SetVnetUseDHCP(n, false, true)),
      NAMED("PLR_GetVnetUseNAT", PLR_GetVnetUseNAT(n)),
      NAMED("PLR_SetVnetUseNAT", PLR_SetVnetUseNAT(n, false, true)),
      NAMED("PLR_GetDHCPParam", PLR_GetDHCPParam(n, PLR_DHCP_EXT_PARAM_ROUTERS, true, gOut, &gLen)),
      NAMED("PLR_SetDHCPParam", PLR_SetDHCPParam(n, PLR_DHCP_EXT_PARAM_ROUTERS, "10.0.0.2", 8)),
      NAMED("PLR_GetNATParam", PLR_GetNATParam(n, PLR_NAT_EXT_PARAM_GATEWAY_IP, true, gOut, &gLen)),
      NAMED("PLR_SetNATParam", PLR_SetNATParam(n, PLR_NAT_EXT_PARAM_ACTIVE_FTP, "0", 1)),
      NAMED("PLR_SetDHCPIPToMAC", PLR_SetDHCPIPToMAC(n, "192.168.1.9", "00:50:56:01:02:03")),
      NAMED("PLR_GetDHCPIPToMAC", PLR_GetDHCPIPToMAC(n, gOut, &gLen, "00:50:56:01:02:03")),
      NAMED("PLR_EnumDHCPIPToMAC", PLR_EnumDHCPIPToMAC(n, &gOffset, gOut, &gLen, gMac, &gLen2)),
      NAMED("PLR_SetNATPortForward",
            PLR_SetNATPortForward(n, true, 8080, "192.168.1.9", 80, "web", 3)),
      NAMED("PLR_GetNATPortForward",
            PLR_GetNATPortForward(n, true, 8080, gOut, &gLen, &gPort, nullptr, nullptr)),
      NAMED("PLR_EnumNATPortForward", PLR_EnumNATPortForward(n, true, &gOffset, &gPort2, gOut,
                                                             &gLen, &gPort, nullptr, nullptr)),
      NAMED("PLR_UpdateDHCPFromConfig", PLR_UpdateDHCPFromConfig(n)),
      NAMED("PLR_UpdateNATFromConfig", PLR_UpdateNATFromConfig(n)),
      NAMED("PLR_SetVnetUseAdapter", PLR_SetVnetUseAdapter(n, false, true)),
      NAMED("PLR_SetVnetAdapterAddr", PLR_SetVnetAdapterAddr(n, "192.168.1.1")),
      NAMED("PLR_GetVnetAdapterStatus", PLR_GetVnetAdapterStatus(n, &gFlag1, &gFlag2)),
      NAMED("PLR_UpdateAdapterFromConfig", PLR_UpdateAdapterFromConfig(n)),
      NAMED("PLR_DisableNetworkAdapter", PLR_DisableNetworkAdapter(n)),
      NAMED("PLR_EnableNetworkAdapter", PLR_EnableNetworkAdapter(n)),
      NAMED("PLR_StartService", PLR_StartService(n, PLR_SERVICE_TYPE_DHCP)),
      NAMED("PLR_StopService", PLR_StopService(n, PLR_SERVICE_TYPE_NAT)),
      {"PLR_GetServiceStatus",
       [](const char* n) { return PLR_GetServiceStatus(n, PLR_SERVICE_TYPE_NETIFUP); },
       PLR_SERVICE_STATUS_UNKNOWN},
      // The device call logs the bad name and still asks the file layer, which refuses it.
      NAMED("PLRCreateDeleteKavixDevice", PLR_CreateKavixDevice(n)),
      NAMED("PLRCreateDeleteKavixDevice", PLR_DeleteKavixDevice(n)),
  };
}

std::vector<BadCall> BadNameCases() {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"kavix256", "kavix256"}, {"kavix", "kavix"},  {"kavix1a", "kavix1a"},
      {"kavix_1", "kavix-1"},   {"long", kLongName}, {"empty", ""}};
  std::vector<BadCall> cases;
  int index = 0;
  for (const NamedCall& nc : NamedCalls()) {
    ++index;
    for (const auto& [label, name] : names) {
      // The case owns its name text; the call sees exactly these bytes.
      auto text = std::make_shared<const std::string>(name);
      auto call = nc.call;
      cases.push_back(BadCall{std::string(nc.function) + "_" + std::to_string(index) + "_" + label,
                              [call, text] {
                                ResetOuts();
                                return call(text->c_str());
                              },
                              std::string(nc.function) + " - Invalid vnet name: " + name,
                              nc.failure});
    }
  }
  return cases;
}

class BadInputTest : public ApiTest, public ::testing::WithParamInterface<BadCall> {};

TEST_P(BadInputTest, IsRefusedWithItsMessageWithoutLockOrChange) {
  Load(Vnet1Records() + "answer VNET_1_DHCP yes\n");
  gLen = 0xDEAD;
  Mark();
  const BadCall& bad = GetParam();
  EXPECT_EQ(bad.call(), bad.expected);
  EXPECT_TRUE(LogHas(bad.line)) << "expected: " << bad.line;
  EXPECT_FALSE(TookLockSinceMark());
  EXPECT_TRUE(DatabaseUnchangedSinceMark());
}

std::string CaseName(const ::testing::TestParamInfo<BadCall>& info) {
  return info.param.label;
}

INSTANTIATE_TEST_SUITE_P(Pointers, BadInputTest, ::testing::ValuesIn(PointerAndLengthCases()),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(VnetNames, BadInputTest, ::testing::ValuesIn(BadNameCases()), CaseName);

// Every function accepts the upper-case name: the prefix compares ignoring case.
TEST_F(ApiTest, UpperCaseVnetNameIsAcceptedByEveryFunction) {
  Load(Vnet1Records());
  for (const NamedCall& nc : NamedCalls()) {
    Mark();
    ResetOuts();
    nc.call("KAVIX1");
    EXPECT_FALSE(LogHas(std::string(nc.function) + " - Invalid vnet name: KAVIX1"))
        << nc.function;
  }
}

// Not loaded: the entry line and the un-initialized line, no exit line.
TEST_F(ApiTest, CallsBeforeLoadAbortWithoutExitLine) {
  WriteProductConfig();
  WriteDatabase(Vnet1Records());
  ASSERT_TRUE(PLR_Load(false));
  PLR_SetCurrentLogLevel(PLR_LOG_MAX_LEVEL);
  PLR_Unload();
  plrContext.logStream = fopen(kLogPath, "a");
  plrContext.currentLevel = PLR_LOG_MAX_LEVEL;
  Mark();
  EXPECT_FALSE(PLR_SetVnetMTU("kavix1", 1500));
  EXPECT_EQ(PLR_GetServiceStatus("kavix1", PLR_SERVICE_TYPE_DHCP), 0u);
  EXPECT_FALSE(PLR_CreateKavixDevice("kavix1"));
  fclose(plrContext.logStream);
  plrContext.logStream = nullptr;
  EXPECT_EQ(LogCount("Pelorus Un-Initialized. Aborting API Function: PLR_SetVnetMTU"), 1);
  EXPECT_EQ(LogCount("Pelorus Un-Initialized. Aborting API Function: PLR_GetServiceStatus"),
            1);
  EXPECT_EQ(LogCount("Exiting API Function, PLR_SetVnetMTU"), 0);
  EXPECT_EQ(LogCount("Exiting API Function, PLR_CreateKavixDevice"), 0);
}

}  // namespace
}  // namespace plr::test
