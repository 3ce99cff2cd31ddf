// The nat.conf generator and its template texts. Unlike dhcpd.conf the file
// keeps no user text: it is regenerated whole on every update, after the old
// file was copied to nat.conf.bak. The text goes to a temporary file through
// one spill buffer as it is generated and replaces the file atomically.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "base/fd-util.h"
#include "base/fs-util.h"
#include "base/str-util.h"
#include "core/log.h"
#include "netcfg/tables.h"
#include "pelorus/api.h"
#include "pelorus/core.h"
#include "pelorus/files.h"
#include "pelorus/netcfg.h"
#include "pelorus/svcfiles.h"
#include "pelorus/vnet.h"
#include "svcfiles/svcfiles-internal.h"

extern "C" {

const char PLRNATConfigFileHeader[] =
    "# Tarsis NAT configuration file\n"
    "# Manual editing of this file is not recommended. Using UI is preferred.\n";
const char PLRNATConfigFileHostSectionHeader[] = "\n[host]\n";
const char PLRNATConfigFileIPDesc[] = "\n# NAT gateway address\n";
const char PLRNATConfigFileIPParam[] = "ip = %s\n";
const char PLRNATConfigFileNetmaskParam[] = "netmask = %s\n";
const char PLRNATConfigFileDeviceDesc[] = "\n# Kavix device if not specified on command line\n";
const char PLRNATConfigFileDeviceParam[] = "device = %s\n";
const char PLRNATConfigFileActiveFTPDesc[] =
    "\n# Allow PORT/EPRT FTP commands (they need incoming TCP stream ...)\n";
const char PLRNATConfigFileActiveFTPParam[] = "activeFTP = %s\n";
const char PLRNATConfigFileAllowAnyOUIDesc[] =
    "\n# Allows the source to have any OUI.  Turn this on if you change the OUI\n"
    "# in the MAC address of your virtual machines.\n";
const char PLRNATConfigFileAllowAnyOUIParam[] = "allowAnyOUI = %s\n";
const char PLRNATConfigHostDefaultOptions[] =
    "\n# Controls if (TCP) connections should be reset when the adapter they are\n"
    "# bound to goes down\n"
    "resetConnectionOnLinkDown = 1\n"
    "\n# Controls if (TCP) connection should be reset when guest packet's destination\n"
    "# is NAT's IP address\n"
    "resetConnectionOnDestLocalHost = 1\n";
const char PLRNATConfigHostNat6DefaultOptions[] =
    "\n# Controls if enable nat ipv6\n"
    "#natIp6Enable = 0\n"
    "\n# Controls if set nat ipv6 prefix\n"
    "#natIp6Prefix = 2001:db8:130f:ffa0::/64\n";
const char PLRNATConfigFileNat6Desc[] = "\n# Controls if enable nat ipv6\n";
const char PLRNATConfigFileNat6Param[] = "natIp6Enable = %s\n";
const char PLRNATConfigFileNat6PrefixDesc[] = "\n# Controls if enable nat ipv6\n";
const char PLRNATConfigFileNat6PrefixParam[] = "natIp6Prefix = %s\n";
const char PLRNATConfigFileTCPSectionHeader[] = "\n[tcp]\n";
const char PLRNATConfigFileTCPDefaultOptions[] =
    "\n# Value of timeout in TCP TIME_WAIT state, in seconds\n"
    "timeWaitTimeout = 30\n";
const char PLRNATConfigFileUDPSectionHeader[] = "\n[udp]\n";
const char PLRNATConfigFileUDPTimeoutDesc[] =
    "\n# Timeout in seconds. Dynamically-created UDP mappings will purged if\n"
    "# idle for this duration of time 0 = no timeout, default = 60; real\n"
    "# value might be up to 100% longer\n";
const char PLRNATConfigFileUDPTimeoutParam[] = "timeout = %s\n";
const char PLRNATConfigFileNetbiosSectionHeader[] = "\n[netbios]\n";
const char PLRNATConfigNetbiosDefaultOptions[] =
    "# Timeout for NBNS queries.\n"
    "nbnsTimeout = 2\n"
    "\n# Number of retries for each NBNS query.\n"
    "nbnsRetries = 3\n"
    "\n# Timeout for NBDS queries.\n"
    "nbdsTimeout = 3\n";
const char PLRNATConfigFileIncomingTCPSectionHeader[] = "\n[incomingtcp]\n";
const char PLRNATConfigFileIncomingTCPDesc[] =
    "\n# Use these with care - anyone can enter into your VM through these...\n"
    "# The format and example are as follows:\n"
    "#<external port number> = <VM's IP address>:<VM's port number>\n"
    "#8080 = 172.16.3.128:80\n";
const char PLRNATConfigFileIncomingUDPSectionHeader[] = "\n[incomingudp]\n";
const char PLRNATConfigFileIncomingUDPDesc[] =
    "\n# UDP port forwarding example\n"
    "#6000 = 172.16.3.0:6001\n";
const char PLRNATConfigFilePortForwardParam[] = "%u = %s:%u%s%s\n";

}  // extern "C"

namespace plr {
namespace {

constexpr size_t kAddrSize = 16;
constexpr size_t kFlagSize = 10;
constexpr size_t kPrefixSize = 46;
constexpr size_t kDeviceSize = 256;

// The values nat.conf is written from, all with their defaults applied.
struct NatValues {
  char gateway[kAddrSize] = "";
  char nat6[kFlagSize] = "";
  char nat6Prefix[kPrefixSize] = "";
  char netmask[kAddrSize] = "";
  char device[kDeviceSize] = "";
  char activeFtp[kFlagSize] = "";
  char allowAnyOui[kFlagSize] = "";
  char udpTimeout[kFlagSize] = "";
};

// Reads every value first, so that a missing one fails before any file is
// touched.
bool ReadNatValues(const char* function, uint32_t vnet, NatValues* v) {
  constexpr const char* kGatewayFailure = "Failure in looking up NAT gateway address";
  const ParamLookup lookups[] = {
      {PLR_NAT_PARAM_GATEWAY_IP, v->gateway, sizeof v->gateway, kGatewayFailure},
      {PLR_NAT_PARAM_NAT6, v->nat6, sizeof v->nat6, kGatewayFailure},
      {PLR_NAT_PARAM_NAT6_PREFIX, v->nat6Prefix, sizeof v->nat6Prefix, kGatewayFailure},
      {PLR_NAT_PARAM_GATEWAY_NETMASK, v->netmask, sizeof v->netmask,
       "Failure in looking up NAT netmask"},
      {PLR_NAT_PARAM_DEVICE, v->device, sizeof v->device, "Failure in looking up NAT device"},
      {PLR_NAT_PARAM_ACTIVE_FTP, v->activeFtp, sizeof v->activeFtp,
       "Failure in looking up value of Active FTP"},
      {PLR_NAT_PARAM_ALLOW_ANY_OUI, v->allowAnyOui, sizeof v->allowAnyOui,
       "Failure in looking up value of allow any oui"},
      {PLR_NAT_PARAM_UDP_TIMEOUT, v->udpTimeout, sizeof v->udpTimeout,
       "Failure in looking up value of timeout"},
  };
  return GetParams(function, vnet, lookups, PLRNATGetParameter);
}

// Appends an exported "<key> = %s\n" template with `value` in place of its
// one conversion (the templates hold no other).
void AppendTemplate(std::string& out, std::string_view format, const char* value) {
  size_t at = format.find("%s");
  out.append(format.substr(0, at));
  out += value;
  out.append(format.substr(at + 2));
}

// The forwards of one protocol, one line each. Descriptions stay in the
// database: a line carries none. An address too long for the generator's
// buffer ends the section, as it always has.
void AppendPortForwards(SpillBuffer& out, uint32_t vnet, bool isTCP) {
  NetCfgForEachPortFwd(nullptr, vnet, isTCP, [&](const NATPortFwdEntry& forward) {
    const std::string_view ip = forward.vmIP.view();
    if (ip.size() >= kAddrSize) {
      PLOG_AS(kPortFwdEnumName, LOG_ERR, "Insufficient buffer length: %zu for IP address: %s",
              kAddrSize, forward.vmIP.c_str());
      return false;
    }
    // "<host port> = <ip>:<vm port>", formatted by hand into one line buffer.
    char line[8 + 3 + kAddrSize + 8];
    char* end = FormatDecimal(line, forward.hostPort);
    memcpy(end, " = ", 3);
    end += 3;
    end = std::copy(ip.begin(), ip.end(), end);
    *end++ = ':';
    end = FormatDecimal(end, forward.vmPort);
    *end++ = '\n';
    out.text().append(line, static_cast<size_t>(end - line));
    out.MaybeSpill();
    return true;
  });
}

// The whole file, written through `spill`.
void AppendNatConf(SpillBuffer& spill, uint32_t vnet, const NatValues& v) {
  std::string& out = spill.text();
  out += PLRNATConfigFileHeader;
  out += PLRNATConfigFileHostSectionHeader;
  out += PLRNATConfigFileIPDesc;
  AppendTemplate(out, PLRNATConfigFileIPParam, v.gateway);
  AppendTemplate(out, PLRNATConfigFileNetmaskParam, v.netmask);
  out += PLRNATConfigFileDeviceDesc;
  AppendTemplate(out, PLRNATConfigFileDeviceParam, v.device);
  out += PLRNATConfigFileActiveFTPDesc;
  AppendTemplate(out, PLRNATConfigFileActiveFTPParam, v.activeFtp);
  out += PLRNATConfigFileAllowAnyOUIDesc;
  AppendTemplate(out, PLRNATConfigFileAllowAnyOUIParam, v.allowAnyOui);
  out += PLRNATConfigHostDefaultOptions;
  out += PLRNATConfigFileNat6Desc;
  AppendTemplate(out, PLRNATConfigFileNat6Param, v.nat6);
  out += PLRNATConfigFileNat6PrefixDesc;
  AppendTemplate(out, PLRNATConfigFileNat6PrefixParam, v.nat6Prefix);
  out += PLRNATConfigFileTCPSectionHeader;
  out += PLRNATConfigFileTCPDefaultOptions;
  out += PLRNATConfigFileUDPSectionHeader;
  out += PLRNATConfigFileUDPTimeoutDesc;
  AppendTemplate(out, PLRNATConfigFileUDPTimeoutParam, v.udpTimeout);
  out += PLRNATConfigFileNetbiosSectionHeader;
  out += PLRNATConfigNetbiosDefaultOptions;
  // The two port-forward sections, TCP first.
  out += PLRNATConfigFileIncomingTCPSectionHeader;
  out += PLRNATConfigFileIncomingTCPDesc;
  AppendPortForwards(spill, vnet, true);
  out += PLRNATConfigFileIncomingUDPSectionHeader;
  out += PLRNATConfigFileIncomingUDPDesc;
  AppendPortForwards(spill, vnet, false);
  out += "\n";
}

// Copies the existing nat.conf to nat.conf.bak.
bool BackUpNatConfig(const char* function, uint32_t vnet, const char* path) {
  char backup[PLR_PATH_SIZE];
  if (!PLRGetFileName(vnet, PLR_FILE_NAT_CONF_BAK, backup, sizeof backup)) {
    PLOG_AS(function, LOG_ERR, "Cannot get the NAT config backup file name");
    return false;
  }
  if (!PLRCopyFile(path, backup)) {
    PLOG_AS(function, LOG_ERR, "Failed to backup NAT file");
    return false;
  }
  return true;
}

// Removes every NAT file of a vnet that does not use NAT.
bool RemoveNatFiles(const char* function, uint32_t vnet) {
  PLRRemoveFile(vnet, PLR_FILE_NAT_CONF, nullptr);
  bool macRemoved = PLRRemoveFile(vnet, PLR_FILE_NAT_MAC, nullptr);
  bool backupRemoved = PLRRemoveFile(vnet, PLR_FILE_NAT_CONF_BAK, nullptr);
  PLRRemoveFile(vnet, PLR_FILE_NAT_DIR, nullptr);
  PLRRemoveFile(vnet, PLR_FILE_VNET_DIR, nullptr);
  if (macRemoved && backupRemoved) return true;
  PLOG_AS(function, LOG_ERR, "Removing NAT configuration files failed");
  return false;
}

}  // namespace
}  // namespace plr

using plr::LOG_ERR;

extern "C" {

// Rewrites the vnet's nat.conf from the database (or removes the NAT files
// when the vnet does not use NAT). The old file is kept as nat.conf.bak.
PLR_EXPORT bool PLRNATUpdateFromConfig(uint32_t vnet) {
  plr::FunctionTrace trace(__func__);
  if (!PLRGetVnetUseNAT(vnet)) return trace.Exit(plr::RemoveNatFiles(__func__, vnet));

  plr::NatValues values;
  if (!plr::ReadNatValues(__func__, vnet, &values)) return trace.Exit(false);

  char path[PLR_PATH_SIZE];
  if (!PLRGetFileName(vnet, PLR_FILE_NAT_CONF, path, sizeof path)) {
    PLOG(LOG_ERR, "Cannot get the NAT config file name");
    return trace.Exit(false);
  }
  bool created = false;
  if (PLRFileExists(vnet, PLR_FILE_NAT_CONF, nullptr)) {
    if (!plr::BackUpNatConfig(__func__, vnet, path)) return trace.Exit(false);
  } else {
    created = true;
    if (!PLRCreateFile(vnet, PLR_FILE_VNET_DIR, nullptr) ||
        !PLRCreateFile(vnet, PLR_FILE_NAT_DIR, nullptr) ||
        !PLRCreateFile(vnet, PLR_FILE_NAT_CONF, nullptr)) {
      // The write below decides whether the file can be had at all.
      PLOG(LOG_ERR, "Failed to create kavix directory, or NAT directory or NAT config file");
    }
  }

  plr::PendingFile file;
  bool written = file.Create(path, 0644);
  if (written) {
    plr::SpillBuffer out(file.fd());
    plr::AppendNatConf(out, vnet, values);
    written = out.Flush() && file.Sync() && file.Commit();
  }
  if (!written) {
    PLOG(LOG_ERR, "fopen: failed to open NAT config file, error: %s", strerror(errno));
    if (created) {
      // Undo: what this call created goes again, file before directory.
      PLOG(LOG_ERR, "Removing newly created NAT directory and config file");
      PLRRemoveFile(vnet, PLR_FILE_NAT_CONF, nullptr);
      PLRRemoveFile(vnet, PLR_FILE_NAT_DIR, nullptr);
    }
    return trace.Exit(false);
  }
  return trace.Exit(true);
}

}  // extern "C"
