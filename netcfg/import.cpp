// Import: a cleaned and upgraded backup file takes the database's place. The
// old database is kept as a backup copy, and every step that changes files
// or the default cache has its undo in one rollback routine.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <new>
#include <string>

#include "base/fs-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "core/log.h"
#include "netcfg/whole-db.h"
#include "pelorus/dbapi.h"
#include "pelorus/files.h"

namespace plr {

bool NetCfgMoveToBackupCopy(const char* function, const char* path, NetCfgBackupName naming,
                            std::string* copy) {
  for (unsigned n = 0;; ++n) {
    *copy = StrPrintf("%s.bak.%u", path, n);
    if (naming == NetCfgBackupName::kReplaceOld
            ? PLRRemoveFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, copy->c_str())
            : !PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, copy->c_str()))
      break;
  }
  if (!PLRCreateFile(PLR_VNET_NONE, PLR_FILE_CUSTOM, copy->c_str())) {
    PLOG_AS(function, LOG_ERR, "Failed to create backup file: %s", copy->c_str());
    return false;
  }
  if (sys::rename(path, copy->c_str()) != 0) {
    PLOG_AS(function, LOG_ERR, "Failed to backup existing database file, error: %s",
            strerror(errno));
    sys::unlink(copy->c_str());
    return false;
  }
  PLOG_AS(function, LOG_INFO, "Renamed database file: %s to: %s", path, copy->c_str());
  return true;
}

bool NetCfgRestoreBackupCopy(const char* function, const std::string& copy, const char* path) {
  if (sys::rename(copy.c_str(), path) != 0) {
    PLOG_AS(function, LOG_ERR,
            "Failed to restore database file during error handling from: %s to %s", copy.c_str(),
            path);
    return false;
  }
  PLOG_AS(function, LOG_INFO, "Restored database file during error handling");
  FsyncParentDir(path);
  return true;
}

namespace {

// Turns the private cache into the default cache of `databasePath`: its
// stream is the database file opened for appending, and it may write.
bool PublishAsDefault(PLRNetworkConfigurationDB* db, const char* databasePath,
                      const char* function) {
  db->stream.reset();
  db->fileName = databasePath;
  db->stream.reset(sys::fopen(databasePath, "ab+e"));
  if (!db->stream) {
    PLOG_AS(function, LOG_ERR, "Failed to open database file after import, error: %s",
            strerror(errno));
    return false;
  }
  db->readOnly = false;
  db->backup = false;
  db->majorVersion = kNetCfgMajorVersion;
  db->minorVersion = kNetCfgMinorVersion;
  // The cache is what the new file holds.
  struct stat st;
  db->journalEnd = fstat(fileno(db->stream.get()), &st) == 0 ? st.st_size : -1;
  PLOG_AS(function, LOG_ERR, "Reopened database file: %s", databasePath);
  netCfgDefaultCache = db;
  return true;
}

// What an import changed on disk and in memory, for its rollback.
struct ImportState {
  const char* function = nullptr;
  const char* databasePath = nullptr;
  bool defaultWasLoaded = false;
  bool defaultWasReadOnly = false;
  bool defaultUnloaded = false;
  PendingFile file;        // the new contents, before they take the database's place
  std::string backupCopy;  // where the old database went
  bool databaseReplaced = false;
};

// Undoes an import in reverse order: the new file goes, the old database
// comes back from its backup copy, and the default cache is loaded again.
void RollBackImport(ImportState& s) {
  s.file.Discard();
  if (s.databaseReplaced && s.backupCopy.empty()) sys::unlink(s.databasePath);
  if (!s.backupCopy.empty()) NetCfgRestoreBackupCopy(s.function, s.backupCopy, s.databasePath);
  if (s.defaultUnloaded && !PLRNetCfgLoad(s.databasePath, nullptr, false, s.defaultWasReadOnly))
    PLOG_AS(s.function, LOG_ERR, "Failed to unload default database cache");
}

// The file steps of an import once the private cache is ready: release the
// default cache, write the new contents beside the database, move the old
// database to its backup copy, put the new file in its place.
bool ReplaceDatabase(PLRNetworkConfigurationDB* db, ImportState& s) {
  if (s.defaultWasLoaded) {
    if (!PLRNetCfgUnload(nullptr, false)) {
      PLOG_AS(s.function, LOG_ERR, "Failed to unload default database cache");
      return false;
    }
    s.defaultUnloaded = true;
  }
  if (!NetCfgWriteDatabaseFile(db, &s.file, s.databasePath, 0600, false)) {
    PLOG_AS(s.function, LOG_ERR, "Failed to write to database file: %s", s.databasePath);
    return false;
  }
  if (PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, s.databasePath) &&
      !NetCfgMoveToBackupCopy(s.function, s.databasePath, NetCfgBackupName::kReplaceOld,
                              &s.backupCopy)) {
    s.backupCopy.clear();
    return false;
  }
  // A failed directory sync after the rename is not undone: the new file
  // is complete, only its name may not be durable yet.
  if (!s.file.Commit() && !s.file.committed()) {
    PLOG_AS(s.function, LOG_ERR, "Failed to write to database file: %s", s.databasePath);
    return false;
  }
  s.databaseReplaced = true;
  return true;
}

}  // namespace
}  // namespace plr

using plr::netCfgDefaultCache;

extern "C" {

// Replaces the database by a cleaned and upgraded backup file; the old
// database is kept as a backup copy and put back if anything fails.
bool PLRNetCfgImportConfig(const char* backupPath, const char* databasePath) {
  using namespace plr;
  NetCfgPrivateCache imported;
  if (backupPath == nullptr || databasePath == nullptr ||
      !PLRNetCfgLoad(backupPath, imported.out(), true, true)) {
    PLOG(LOG_ERR, "Failed to parse and load configuration data from backup file: %s",
         PLR_STR(backupPath));
    return false;
  }
  PLRNetworkConfigurationDB* db = imported.get();
  if (!db->backup) {
    PLOG(LOG_ERR, "Specified backup file is not actually a backup file");
    return false;
  }
  PLOG(LOG_INFO2, "Source version - %u,%u, Destination version - %u,%u", db->majorVersion,
       db->minorVersion, kNetCfgMajorVersion, kNetCfgMinorVersion);
  if (db->majorVersion > kNetCfgMajorVersion && db->minorVersion != 0) {
    PLOG(LOG_ERR, "Source database version is higher than destination of version");
    return false;
  }
  bool prepared = false;
  try {
    prepared = NetCfgPrepareImportedCache(db, __func__);
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Failed to cleanup database fields");
  }
  if (!prepared) return false;

  ImportState state;
  state.function = __func__;
  state.databasePath = databasePath;
  state.defaultWasLoaded = netCfgDefaultCache != nullptr;
  state.defaultWasReadOnly = state.defaultWasLoaded && netCfgDefaultCache->readOnly;
  bool ok = false;
  try {
    ok = ReplaceDatabase(db, state) &&
         (!state.defaultWasLoaded || PublishAsDefault(db, databasePath, __func__));
  } catch (const std::bad_alloc&) {
    PLOG(LOG_ERR, "Failed to copy DB file name");
  }
  if (!ok) {
    RollBackImport(state);
    return false;
  }
  if (state.defaultWasLoaded) imported.release();  // now the default cache
  return true;
}

}  // extern "C"
