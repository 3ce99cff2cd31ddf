// The table of the four per-vnet service daemons, their PID file names and
// the reading of a PID file. A service's state lives only in its PID file and
// the process it names; nothing here is cached.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "base/fd-util.h"
#include "base/line-reader.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/frame.h"
#include "core/log.h"
#include "netcfg/global-answer.h"
#include "pelorus/netcfg.h"
#include "pelorus/services.h"
#include "services/service-internal.h"

namespace plr {
namespace {

// One service: its texts, the answer naming its PID file, its fixed
// executable name and the option that says whether a vnet wants it.
struct ServiceRow {
  const char* desc;
  const char* programKey;
  const char* defaultProgram;
  uint32_t option;
  bool pidByVnetName;  // netifup and DHCP name their PID file by "kavix<n>"
};

// Indexed by service ID - 1.
constexpr ServiceRow kServices[] = {
    {"Bridge", "BRIDGE_PROGRAM", "kavix-bridge", 1, false},
    {"Netifup", "NETIFUP_PROGRAM", "kavix-netifup", 4, true},
    {"DHCP", "DHCP_PROGRAM", "kavix-dhcpd", 2, true},
    {"NAT", "NAT_PROGRAM", "kavix-natd", 3, false},
};

// The row of a service ID, or nullptr outside 1..4.
const ServiceRow* FindService(uint32_t service) {
  if (service < PLR_SERVICE_BRIDGE || service > PLR_SERVICE_NAT) return nullptr;
  return &kServices[service - 1];
}

// The program name that names the PID file: the program answer, or the
// daemon's fixed name when the database has none.
const char* PidProgramName(const char* function, const ServiceRow& row) {
  const char* value = nullptr;
  if (PLRNetCfgGetAnswerString(nullptr, row.programKey, &value) && value != nullptr) return value;
  PLOG_AS(function, LOG_INFO2, "Cannot find %s value in Vnet Config", row.programKey);
  return row.defaultProgram;
}

}  // namespace

// Declared in service-internal.h.
const char* DefaultProgramForService(uint32_t service) {
  const ServiceRow* row = FindService(service);
  return row != nullptr ? row->defaultProgram : nullptr;
}

// Declared in service-internal.h; formatted here rather than through the
// vnet name converter so that no vnet number can make it fail.
std::string VnetNameOf(uint32_t vnet) {
  return StrPrintf("kavix%d", static_cast<int>(vnet));
}

}  // namespace plr

extern "C" {

// Option code of PLRVnetIsOptionConfigured that says whether the vnet wants
// the service at all; 0 for an ID outside the table.
uint32_t PLRLookupConfigOptionForServiceID(uint32_t service) {
  const plr::ServiceRow* row = plr::FindService(service);
  return row != nullptr ? row->option : 0;
}

// The service's text for log lines; the empty string for an unknown ID.
const char* PLRLookupDescStringForServiceID(uint32_t service) {
  const plr::ServiceRow* row = plr::FindService(service);
  return row != nullptr ? row->desc : "";
}

// Builds "<RUNDIR>/<program>-<vnet>.pid" into a malloc'ed string the caller
// frees. Bridge and NAT use the vnet number, netifup and DHCP the vnet name:
// running daemons already write these names, so both forms stay.
bool PLRGetPidFilename(uint32_t vnet, uint32_t service, char** pidFile, const char** desc) {
  const plr::ServiceRow* row = plr::FindService(service);
  if (row == nullptr || pidFile == nullptr) {
    PLOG(LOG_ERR, "Invalid service name: %d", static_cast<int>(service));
    return false;
  }
  const char* runDir = plr::NetCfgGlobalAnswerOr("RUNDIR", "/var/run");
  const char* program = plr::PidProgramName(__func__, *row);

  std::string name;
  try {
    name = row->pidByVnetName
               ? plr::StrPrintf("%s/%s-%s.pid", runDir, program, plr::VnetNameOf(vnet).c_str())
               : plr::StrPrintf("%s/%s-%d.pid", runDir, program, static_cast<int>(vnet));
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Memory allocation error, n: %u, p: %p", 0u, static_cast<void*>(nullptr));
    return false;
  }
  unsigned size = static_cast<unsigned>(name.size() + 1);
  char* copy = static_cast<char*>(malloc(size));
  if (copy == nullptr) {
    PLOG(LOG_ERR, "Memory allocation error, n: %u, p: %p", size, static_cast<void*>(copy));
    return false;
  }
  memcpy(copy, name.c_str(), size);
  *pidFile = copy;
  if (desc != nullptr) *desc = row->desc;
  return true;
}

// The PID on the first line of `path`, or 0 when the file holds none. A value
// that is negative as a signed number, and 1 (init is never one of our
// daemons), read as 0 too, so that no caller can ever signal init, a process
// group or every process. *noFile tells "no PID file at all" (the service is
// stopped) apart from "a file without a usable PID".
int32_t PLRExtractPidFromFile(const char* path, bool* noFile) {
  if (noFile != nullptr) *noFile = false;
  plr::UniqueFile file(path != nullptr ? plr::sys::fopen(path, "re") : nullptr);
  if (!file) {
    int err = path != nullptr ? errno : EINVAL;
    PLOG(LOG_INFO, "Could not open the PID file: %s, error: %s", PLR_STR(path), strerror(err));
    if (noFile != nullptr) *noFile = true;
    return 0;
  }
  std::string_view line;
  plr::LineReader reader(file.get(), 256);
  if (reader.Next(&line) != plr::LineReader::Status::kLine) return 0;
  uint32_t value = 0;
  if (!plr::StrToUint32(std::string(line).c_str(), &value)) return 0;
  int32_t pid = static_cast<int32_t>(value);
  return pid <= 1 ? 0 : pid;
}

}  // extern "C"
