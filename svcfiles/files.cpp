// File names by file-type code, and the create, remove and exists operations
// on the files, directories and kavix device nodes the library touches. The
// code decides the path and the kind; see the PLR_FILE_* codes in types.h.
#include "pelorus/files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "base/fd-util.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "netcfg/global-answer.h"
#include "pelorus/core.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

constexpr const char* kDefaultConfigDir = "/etc/tarsis";
constexpr const char* kDefaultRunDir = "/var/run";
constexpr mode_t kCreateUmask = 022;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirMode = 0755;
constexpr mode_t kDeviceMode = S_IFCHR | 0600;
// The kind bits that tell a device node from everything else (S_IFCHR and
// S_IFBLK both leave 0x2000 set; directories and regular files do not).
constexpr mode_t kDeviceKindMask = 0xB000;
constexpr mode_t kDeviceKind = 0x2000;

enum class Kind { kNone, kDirectory, kRegular, kAny, kDevice };

// What each operation does with a code; kNone refuses the code.
struct TypeRule {
  const char* pathFormat;  // under CONFIGDIR and the vnet number; null when not built so
  Kind create;
  bool remove;
  Kind exists;
};

constexpr TypeRule kRules[] = {
    /* 0 networking     */ {"%s/networking", Kind::kNone, false, Kind::kNone},
    /* 1 vnet dir       */ {"%s/kavix%d", Kind::kDirectory, true, Kind::kDirectory},
    /* 2 dhcpd dir      */ {"%s/kavix%d/dhcpd", Kind::kDirectory, true, Kind::kDirectory},
    /* 3 nat dir        */ {"%s/kavix%d/nat", Kind::kDirectory, true, Kind::kDirectory},
    /* 4 custom         */ {nullptr, Kind::kRegular, true, Kind::kAny},
    /* 5 dhcpd.conf     */ {"%s/kavix%d/dhcpd/dhcpd.conf", Kind::kRegular, true, Kind::kRegular},
    /* 6 dhcpd.conf.bak */
    {"%s/kavix%d/dhcpd/dhcpd.conf.bak", Kind::kRegular, true, Kind::kRegular},
    /* 7 leases         */ {"%s/kavix%d/dhcpd/dhcpd.leases", Kind::kRegular, true, Kind::kRegular},
    /* 8 old leases     */ {"%s/kavix%d/dhcpd/dhcpd.leases~", Kind::kRegular, true, Kind::kRegular},
    /* 9 nat.mac        */ {"%s/kavix%d/nat.mac", Kind::kNone, true, Kind::kNone},
    /* 10 nat.conf      */ {"%s/kavix%d/nat/nat.conf", Kind::kRegular, true, Kind::kRegular},
    /* 11 nat.conf.bak  */ {"%s/kavix%d/nat/nat.conf.bak", Kind::kRegular, true, Kind::kRegular},
    /* 12 config        */ {"%s/config", Kind::kNone, false, Kind::kNone},
    /* 13 kavix device  */ {nullptr, Kind::kDevice, true, Kind::kDevice},
};
constexpr uint32_t kTypeCount = sizeof kRules / sizeof kRules[0];

const TypeRule* RuleFor(uint32_t type) {
  return type < kTypeCount ? &kRules[type] : nullptr;
}

// True when snprintf's result shows the whole text fitted.
bool Fits(int written, size_t size) {
  return written >= 0 && static_cast<size_t>(written) < size;
}

// "/dev/kavix<n>" for a vnet number 0..255.
bool FormatDevicePath(uint32_t vnet, char* buf, size_t size) {
  char name[PLR_VNET_NAME_SIZE];
  if (!PLRConvVnetNumToName(vnet, name)) return false;
  return Fits(snprintf(buf, size, "/dev/%s", name), size);
}

// The path an operation works on: the caller's own name for the custom code,
// the built name for every other code. Logs why it cannot be had.
bool BuildPath(const char* function, uint32_t vnet, uint32_t type, const char* customName,
               char* path, size_t size) {
  bool custom = type == PLR_FILE_CUSTOM;
  if (custom != (customName != nullptr)) {
    PLOG_AS(function, LOG_ERR, "Invalid arguments");
    return false;
  }
  if (!custom) {
    if (PLRGetFileName(vnet, type, path, size)) return true;
    PLOG_AS(function, LOG_ERR, "Cannot construct file name");
    return false;
  }
  size_t length = strlen(customName);
  if (length >= size) {
    PLOG_AS(function, LOG_ERR, "Custom file name %s is longer than allowed %zu characters",
            customName, size);
    return false;
  }
  memcpy(path, customName, length + 1);
  return true;
}

// Creates a regular file (mode 0644) unless it exists, leaving its contents
// alone: no O_EXCL and no truncation.
bool CreateRegularFile(const char* function, const char* path) {
  UniqueFd fd(sys::open(path, O_RDONLY | O_CREAT | O_CLOEXEC, kFileMode));
  if (fd) {
    PLOG_AS(function, LOG_INFO2, "File: %s created", path);
  } else if (errno == EEXIST) {
    PLOG_AS(function, LOG_WRN, "File: %s already exists", path);
  } else {
    PLOG_AS(function, LOG_ERR, "Cannot create File: %s because of: %s", path, strerror(errno));
    return false;
  }
  return true;
}

// Creates the kavix character device of a vnet (major 119, minor = vnet); an
// existing node is fine and not worth a line.
bool CreateDeviceNode(const char* function, const char* path, uint32_t vnet) {
  if (sys::mknod(path, kDeviceMode, makedev(PLR_KAVIX_DEVICE_MAJOR, vnet)) != 0 &&
      errno != EEXIST) {
    PLOG_AS(function, LOG_ERR, "Creating kavix device failed, error: %s", strerror(errno));
    return false;
  }
  return true;
}

// Creates a directory (mode 0755); an existing one is only a warning.
bool CreateDirectory(const char* function, const char* path) {
  if (sys::mkdir(path, kDirMode) == 0) {
    PLOG_AS(function, LOG_INFO2, "Directory: %s created", path);
  } else if (errno == EEXIST) {
    PLOG_AS(function, LOG_WRN, "Directory: %s already exists", path);
  } else {
    PLOG_AS(function, LOG_ERR, "Cannot create Directory: %s because of: %s", path, strerror(errno));
    return false;
  }
  return true;
}

// Creates what `kind` names at `path`; logs its own failure.
bool CreateKind(const char* function, Kind kind, const char* path, uint32_t vnet) {
  switch (kind) {
    case Kind::kRegular:
      return CreateRegularFile(function, path);
    case Kind::kDevice:
      return CreateDeviceNode(function, path, vnet);
    case Kind::kDirectory:
      return CreateDirectory(function, path);
    default:
      return false;
  }
}

// Tells the bookkeeping hooks about a creation; a regular file goes with its
// modification time when it can be read.
bool RecordCreation(Kind kind, const char* path) {
  if (kind == Kind::kDirectory) return PLRRecordDirectoryCreation(path);
  struct stat st;
  if (kind != Kind::kRegular || stat(path, &st) != 0) return PLRRecordFileCreation(path, nullptr);
  char mtime[24];
  snprintf(mtime, sizeof mtime, "%ld", static_cast<long>(st.st_mtime));
  return PLRRecordFileCreation(path, mtime);
}

// Unlinks a file or device node; a missing one counts as removed.
bool RemovePlainFile(const char* function, const char* path) {
  if (sys::unlink(path) == 0) {
    PLOG_AS(function, LOG_INFO2, "File: %s deleted", path);
  } else if (errno == ENOENT) {
    PLOG_AS(function, LOG_INFO, "File %s does not exist", path);
  } else {
    PLOG_AS(function, LOG_ERR, "Cannot delete File: %s because of: %s", path, strerror(errno));
    return false;
  }
  return PLRRecordFileDeletion(path);
}

// Removes an empty directory; a missing one counts as removed, one that
// still holds files is an error.
bool RemoveDirectory(const char* function, const char* path) {
  if (sys::rmdir(path) == 0) {
    PLOG_AS(function, LOG_INFO2, "Directory: %s deleted", path);
  } else if (errno == ENOENT) {
    PLOG_AS(function, LOG_INFO, "Directory %s does not exist", path);
  } else {
    PLOG_AS(function, LOG_ERR, "Cannot delete Directory: %s because of: %s", path, strerror(errno));
    return false;
  }
  return PLRRecordDirectoryDeletion(path);
}

// True when the stat'ed mode is of the kind the code requires.
bool IsKind(Kind kind, mode_t mode) {
  switch (kind) {
    case Kind::kAny:
      return true;
    case Kind::kDirectory:
      return S_ISDIR(mode);
    case Kind::kRegular:
      return S_ISREG(mode);
    case Kind::kDevice:
      return (mode & kDeviceKindMask) == kDeviceKind;
    default:
      return false;
  }
}

}  // namespace
}  // namespace plr

extern "C" {

// Builds the path of a file-type code for a vnet into `buf`. The custom code
// and unknown codes have no path of their own and fail without a log line.
bool PLRGetFileName(uint32_t vnet, uint32_t type, char* buf, size_t size) {
  const plr::TypeRule* rule = plr::RuleFor(type);
  if (rule == nullptr || type == PLR_FILE_CUSTOM || buf == nullptr) return false;
  const char* configDir = plr::NetCfgGlobalAnswerOr("CONFIGDIR", plr::kDefaultConfigDir);
  // RUNDIR names no path of this table; it is read so every lookup sees the
  // same answers in the same order as the daemons' code does.
  (void)plr::NetCfgGlobalAnswerOr("RUNDIR", plr::kDefaultRunDir);

  bool fits =
      type == PLR_FILE_KAVIX_DEVICE
          ? plr::FormatDevicePath(vnet, buf, size)
          : plr::Fits(snprintf(buf, size, rule->pathFormat, configDir, static_cast<int>(vnet)),
                      size);
  if (!fits) {
    PLOG(LOG_ERR, "Error formatting the file name for file type: %ufrom cD: %s, vnet: %d", type,
         configDir, static_cast<int>(vnet));
  }
  return fits;
}

// Creates the file, directory or device node of a code with a fixed umask of
// 022, restored on return. Every failure after the path is known removes
// whatever stands at the path, even a file that existed before the call.
bool PLRCreateFile(uint32_t vnet, uint32_t type, const char* customName) {
  const plr::TypeRule* rule = plr::RuleFor(type);
  if (rule == nullptr || rule->create == plr::Kind::kNone) {
    PLOG(LOG_ERR, "Invalid arguments");
    return false;
  }
  char path[PLR_PATH_SIZE];
  if (!plr::BuildPath(__func__, vnet, type, customName, path, sizeof path)) return false;

  mode_t oldMask = umask(plr::kCreateUmask);
  plr::ScopeExit restoreUmask([oldMask] { umask(oldMask); });
  if (plr::CreateKind(__func__, rule->create, path, vnet)) {
    if (plr::RecordCreation(rule->create, path)) return true;
    PLOG(LOG_ERR, "Error adding configuration record for creation of file: %s", path);
  }
  // Undo: clear the path whatever stands there; only one of the two applies.
  plr::sys::unlink(path);
  plr::sys::rmdir(path);
  return false;
}

// Removes the file, directory or device node of a code; absence is success.
bool PLRRemoveFile(uint32_t vnet, uint32_t type, const char* customName) {
  const plr::TypeRule* rule = plr::RuleFor(type);
  if (rule == nullptr || !rule->remove) {
    PLOG(LOG_ERR, "Invalid arguments");
    return false;
  }
  char path[PLR_PATH_SIZE];
  if (!plr::BuildPath(__func__, vnet, type, customName, path, sizeof path)) return false;
  return rule->exists == plr::Kind::kDirectory ? plr::RemoveDirectory(__func__, path)
                                               : plr::RemovePlainFile(__func__, path);
}

// True when the thing of a code exists and is of the code's kind; absence is
// logged as an error, so a caller that only probes leaves a line by design.
bool PLRFileExists(uint32_t vnet, uint32_t type, const char* customName) {
  const plr::TypeRule* rule = plr::RuleFor(type);
  if (rule == nullptr || rule->exists == plr::Kind::kNone) {
    PLOG(LOG_ERR, "Invalid arguments");
    return false;
  }
  char path[PLR_PATH_SIZE];
  if (!plr::BuildPath(__func__, vnet, type, customName, path, sizeof path)) return false;
  struct stat st;
  if (stat(path, &st) != 0) {
    PLOG(LOG_ERR, "Cannot check for file or directory: %s , error: %s", path, strerror(errno));
    return false;
  }
  PLOG(LOG_INFO2, "File/Directory/Device: %s exists", path);
  if (plr::IsKind(rule->exists, st.st_mode)) return true;
  PLOG(LOG_ERR, "File/Directory/device of type: %u and name: %s is found but is not of valid type",
       type, path);
  return false;
}

}  // extern "C"
