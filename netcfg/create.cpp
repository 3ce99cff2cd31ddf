// A new, empty database file, and the version check of an existing one.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "base/fd-util.h"
#include "base/line-reader.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "netcfg/db-internal.h"
#include "pelorus/dbapi.h"
#include "pelorus/files.h"

extern "C" {

// Creates `path` holding only its version line.
bool PLRNetCfgCreateDB(const char* path, bool backup) {
  using namespace plr;
  if (!PLRCreateFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path)) {
    PLOG(LOG_ERR, "Failed to create file: %s", path);
    return false;
  }
  UniqueFile file(sys::fopen(path, "we"));
  if (!file) {
    PLOG(LOG_ERR, "Failed to open file: %s, error: %s", path, strerror(errno));
    PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
    return false;
  }
  const bool written = fprintf(file.get(), "%s=%u,%u\n", backup ? "BACKUP_VERSION" : "VERSION",
                               kNetCfgMajorVersion, kNetCfgMinorVersion) > 0 &&
                       fflush(file.get()) == 0 && sys::fsync(fileno(file.get())) == 0;
  const int err = errno;
  if (file.reset() != 0 || !written) {
    PLOG(LOG_ERR, "Failed to write initialization data into file: %serror: %s", path,
         strerror(written ? errno : err));
    PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, path);
    return false;
  }
  PLOG(LOG_INFO2, "Created and initialized database %sfile: %s", backup ? "backup " : "", path);
  return true;
}

// True when `path` is a database file whose version this library reads.
bool PLRNetCfgCheckVersion(const char* path) {
  using namespace plr;
  UniqueFile file(path != nullptr ? sys::fopen(path, "re") : nullptr);
  if (!file) {
    PLOG(LOG_ERR, "Unable to open network configuration database file, error: %s",
         strerror(path != nullptr ? errno : EINVAL));
    return false;
  }
  std::string_view view;
  LineReader reader(file.get(), kNetCfgMaxLine);
  errno = 0;
  if (reader.Next(&view) != LineReader::Status::kLine) {
    PLOG(LOG_ERR, "Failed to read version number, error: %s", strerror(errno));
    return false;
  }
  const std::string line(view);
  const size_t equals = line.find('=');
  if (equals == std::string::npos || line.compare(0, equals, "VERSION") != 0) {
    PLOG(LOG_ERR, "Cannot find version in database file");
    return false;
  }
  uint32_t major = 0, minor = 0;
  return ParseVersionString(line.c_str() + equals + 1, &major, &minor);
}

}  // extern "C"
