// Export: a cache written as a backup file or into a memory buffer, both
// through the one database formatter.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "base/fs-util.h"
#include "core/log.h"
#include "netcfg/db-internal.h"
#include "pelorus/dbapi.h"

extern "C" {

// Writes the cache to `path` as a backup file, replacing it whole; nothing
// else is touched.
bool PLRNetCfgExportConfig(PLRNetworkConfigurationDB* db, const char* path, uint32_t flags) {
  using namespace plr;
  if (flags != 0) {
    PLOG(LOG_ERR, "Unsupported export flags: %u", flags);
    return false;
  }
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr) {
    PLOG(LOG_ERR, "Database cache is not loaded");
    return false;
  }
  // A new file of our own, owner-only, renamed over the name: whatever was
  // there (a link, a FIFO, someone else's file) is replaced, never opened.
  PendingFile file;
  // After the rename the export is complete even when the directory sync fails.
  if (path == nullptr || !NetCfgWriteDatabaseFile(cache, &file, path, 0600, true) ||
      (!file.Commit() && !file.committed())) {
    PLOG(LOG_ERR, "Failed to write records to database file: %s", PLR_STR(path));
    return false;
  }
  return true;
}

// Writes the cache into a new malloc'ed buffer (see pelorus/dbapi.h).
bool PLRNetCfgExportConfigToBuffer(PLRNetworkConfigurationDB* db, char** buffer, bool backup,
                                   bool terminate) {
  using namespace plr;
  if (buffer == nullptr) return false;
  *buffer = nullptr;
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr) {
    PLOG(LOG_ERR, "Database cache is not loaded");
    return false;
  }
  try {
    // BINDIR never leaves the library; the buffer form reports leaving it out.
    if (cache->answers && cache->answers->Find(kNetCfgBinDirKey) != nullptr)
      PLOG(LOG_ERR, "Memory allocation failure, error: %s", strerror(EINVAL));
    std::string text;
    NetCfgFormatDatabase(cache, backup, &text, [](std::string*, uint32_t, size_t, bool) {
      return true;  // everything stays in `text`
    });
    if (terminate) text.push_back('\0');
    char* out = static_cast<char*>(malloc(text.empty() ? 1 : text.size()));
    if (out == nullptr) throw std::bad_alloc();
    memcpy(out, text.data(), text.size());
    *buffer = out;
    return true;
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Memory allocation failure, error: %s", strerror(ENOMEM));
    return false;
  }
}

}  // extern "C"
