// Loading, unloading (with compaction) and locking of database caches.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/config-file.h"
#include "base/fs-util.h"
#include "base/sys-util.h"
#include "netcfg/reader.h"
#include "netcfg/tables.h"
#include "pelorus/files.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// errno of a failed FileLock call as text; a lock that gave up waiting
// reports no error number.
const char* LockErrorText(int err) {
  return err != 0 ? strerror(err) : "timed out";
}

// Adds BINDIR from the product configuration; only a failed insert fails.
bool LoadBinDir(PLRNetworkConfigurationDB* db, const char* function) {
  ConfigDictionary dict;
  std::string error;
  if (!LoadConfigFile(kProductConfigPath, &dict, &error)) {
    PLOG_AS(function, LOG_WRN, "Failed to load product config file: %s, error: %s",
            kProductConfigPath, error.c_str());
    return true;
  }
  auto it = dict.find("bindir");
  if (it == dict.end()) {
    PLOG_AS(function, LOG_WRN, "Value not found for bindir");
    return true;
  }
  if (!NetCfgHashAddAnswer(db, kNetCfgBinDirKey, it->second)) {
    PLOG_AS(function, LOG_ERR, "Failed to insert value of bindir");
    return false;
  }
  return true;
}

// Removes what a compaction killed mid-way left beside the database: files
// named like its temporaries (".<name>.XXXXXX"). Called only when the lock
// file is marked, that is when a holder of the lock, held now by the
// caller, died with a temporary; so no temporary in use is touched, and a
// merge's restore point of that name is left alone while no writer died.
// The mark is cleared once the directory was read to its end.
void RemoveStaleTemporaries(const char* path, FileLock& lock, const char* function) {
  std::string dir = DirName(path);
  std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
  if (!d) return;
  if (dir.back() != '/') dir += '/';
  while (const struct dirent* entry = readdir(d.get())) {
    if (!IsPendingFileName(path, entry->d_name)) continue;
    const std::string stale = dir + entry->d_name;
    if (sys::unlink(stale.c_str()) == 0)
      PLOG_AS(function, LOG_INFO, "Removed stale temporary file: %s", stale.c_str());
  }
  lock.SetMarked(false);  // should this fail, the next holder looks again
}

// Reads the file at the cache's path again from the start and puts its
// tables in place of the cache's; the cache is untouched on failure.
bool Reload(PLRNetworkConfigurationDB* db, const char* function) {
  PLRNetworkConfigurationDB fresh;
  fresh.backup = db->backup;
  fresh.fileName = db->fileName;
  fresh.stream.reset(sys::fopen(db->fileName.c_str(), "r+e"));
  if (!fresh.stream) {
    PLOG_AS(function, LOG_ERR, "Unable to open network configuration database file, error: %s",
            strerror(errno));
    return false;
  }
  if (!NetCfgReadDatabase(&fresh, fresh.stream.get(), function)) return false;
  if (!LoadBinDir(&fresh, function)) return false;
  std::swap(db->stream, fresh.stream);
  std::swap(db->answers, fresh.answers);
  std::swap(db->bridges, fresh.bridges);
  std::swap(db->portFwds, fresh.portFwds);
  std::swap(db->dhcp, fresh.dhcp);
  std::swap(db->prefixes, fresh.prefixes);
  db->majorVersion = fresh.majorVersion;
  db->minorVersion = fresh.minorVersion;
  db->lineCount = fresh.lineCount;
  db->journalEnd = fresh.journalEnd;
  if (db == netCfgDefaultCache) plrDefaultBridgeVnet = PLR_VNET_ALL;  // mappings may differ
  PLOG_AS(function, LOG_INFO, "Database cache reloaded, file was replaced: %s",
          db->fileName.c_str());
  return true;
}

// Opens a backup file (what import and merge read, often from a directory
// anyone can write) for reading, without following a link or blocking on a
// FIFO, and only when it is a regular file that no one but its owner, root
// or the caller, can have written. Null with errno set otherwise; a refusal
// has its own log line.
UniqueFile OpenBackupFile(const char* path, const char* function) {
  UniqueFd fd(sys::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0) {
    if (errno == ELOOP)
      PLOG_AS(function, LOG_ERR, "Refusing to read %s: it is a symbolic link", path);
    return UniqueFile();
  }
  if (!S_ISREG(st.st_mode)) {
    PLOG_AS(function, LOG_ERR, "Refusing to read %s: not a regular file", path);
    errno = EINVAL;
    return UniqueFile();
  }
  if (st.st_uid != 0 && st.st_uid != geteuid()) {
    PLOG_AS(function, LOG_ERR, "Refusing to read %s: owned by uid %u, not by root or the caller",
            path, static_cast<unsigned>(st.st_uid));
    errno = EPERM;
    return UniqueFile();
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    PLOG_AS(function, LOG_ERR, "Refusing to read %s: writable by others than its owner (mode %04o)",
            path, static_cast<unsigned>(st.st_mode & 07777));
    errno = EPERM;
    return UniqueFile();
  }
  UniqueFile stream(fdopen(fd.get(), "re"));
  if (stream) fd.release();
  return stream;
}

// Steps of a load after the record exists; false leaves the record to the
// caller's cleanup.
bool FillCache(PLRNetworkConfigurationDB* db, const char* path, bool backup, bool readOnly,
               const char* function) {
  if (!readOnly && !db->lock.Lock(path, kNetCfgLockWaitMs)) {
    PLOG_AS(function, LOG_ERR, "Failed to lock config database file, error: %s",
            LockErrorText(errno));
    return false;
  }
  db->backup = backup;
  // Records are written with write(2) on the descriptor, never through the
  // stream, so the stream keeps its buffer for the read below.
  if (backup)
    db->stream = OpenBackupFile(path, function);
  else
    db->stream.reset(sys::fopen(path, readOnly ? "re" : "r+e"));
  if (!db->stream) {
    PLOG_AS(function, LOG_ERR, "Unable to open network configuration database file, error: %s",
            strerror(errno));
    return false;
  }
  db->readOnly = readOnly;
  db->fileName = path;
  if (!NetCfgReadDatabase(db, db->stream.get(), function)) return false;
  if (db->lock.held() && db->lock.foundMarked()) RemoveStaleTemporaries(path, db->lock, function);
  if (db->lock.held() && !db->lock.Unlock()) {
    PLOG_AS(function, LOG_ERR, "Failed to unlock database file: %s, error: %s", path,
            strerror(errno));
    return false;
  }
  return LoadBinDir(db, function);
}

// Rewrites the database file from the cache: temporary file beside it with
// the database's permissions, complete and on disk, then renamed over the
// database, then the directory made durable. Any failure leaves the journal
// as it was. `lock` is the database lock, held: it is marked while the
// temporary file exists, so that a load after a crash removes it.
void Compact(PLRNetworkConfigurationDB* db, FileLock& lock, const char* function) {
  // What other writers added since this cache last looked is part of the new
  // file too; when it cannot be read the journal stays as it is.
  if (!NetCfgCatchUp(db, function)) return;
  const char* path = db->fileName.c_str();
  struct stat st;
  const mode_t mode = stat(path, &st) == 0 ? st.st_mode & 07777 : 0600;
  // An unmarked lock file only costs a crash its cleanup, so the
  // compaction goes on without the mark; the mark goes once the file below
  // is gone (renamed or removed), as it is declared first.
  lock.SetMarked(true);
  ScopeExit unmark([&lock] { lock.SetMarked(false); });
  PendingFile file;
  if (!NetCfgWriteDatabaseFile(db, &file, path, mode, false)) {
    PLOG_AS(function, LOG_ERR, "Failed to write to temp database file: %s",
            file.tempPath().c_str());
    return;
  }
  const bool durable = file.Commit();
  const int err = errno;
  if (!file.committed()) {
    PLOG_AS(function, LOG_ERR, "Failed to reame: %s to %s, error: %s", file.tempPath().c_str(),
            path, strerror(err));
    return;
  }
  PLOG_AS(function, LOG_INFO2, "Renamed temp file: %s to %s", file.tempPath().c_str(), path);
  if (!durable) {
    const std::string dir = db->fileName.substr(0, db->fileName.rfind('/') + 1);
    PLOG_AS(function, LOG_ERR, "Failed to flush database file: %s, error: %s", dir.c_str(),
            strerror(err));
  }
}

// Compaction runs under the database lock, so no other writer's append can
// fall between the rewrite and the rename. Without the lock the journal is
// left as it is: it is complete, only longer.
void CompactLocked(PLRNetworkConfigurationDB* db, const char* function) {
  FileLock ownLock;
  if (!db->lock.held() && !ownLock.Lock(db->fileName.c_str(), kNetCfgLockWaitMs)) {
    PLOG_AS(function, LOG_ERR, "Failed to lock config database file, error: %s",
            LockErrorText(errno));
    return;
  }
  Compact(db, db->lock.held() ? db->lock : ownLock, function);
}

}  // namespace

bool NetCfgCatchUp(PLRNetworkConfigurationDB* db, const char* function) {
  if (!db->stream) return true;
  struct stat st;
  if (fstat(fileno(db->stream.get()), &st) != 0) {
    PLOG_AS(function, LOG_ERR, "Failed to stat database file: %s, error: %s", db->fileName.c_str(),
            strerror(errno));
    return false;
  }
  if (st.st_size == db->journalEnd && st.st_nlink > 0) return true;
  if (st.st_nlink == 0 || st.st_size < db->journalEnd || db->journalEnd < 0)
    return Reload(db, function);
  if (!NetCfgReadTail(db, db->stream.get(), db->journalEnd, function)) return false;
  db->journalEnd = st.st_size;
  return true;
}

}  // namespace plr

using plr::netCfgDefaultCache;

extern "C" {

// Loads `path` into a new cache: published in *cacheOut, or as the default
// cache when cacheOut is NULL. The file is locked only while it is read.
bool PLRNetCfgLoad(const char* path, PLRNetworkConfigurationDB** cacheOut, bool backup,
                   bool readOnly) {
  if (cacheOut == nullptr && netCfgDefaultCache != nullptr) {
    PLOG(LOG_WRN, "Network configuration database cache is already loaded");
    return true;
  }
  if (path == nullptr || !PLRFileExists(PLR_VNET_NONE, PLR_FILE_CUSTOM, path)) {
    PLOG(LOG_ERR, "Import file does not exist");
    return false;
  }
  PLRNetworkConfigurationDB* db = new (std::nothrow) PLRNetworkConfigurationDB;
  if (db == nullptr) {
    PLOG(LOG_ERR, "Failed to allocate memory for PLRNetworkConfigurationDB, error: %s",
         strerror(ENOMEM));
    return false;
  }
  bool ok = plr::NetCfgGuarded(__func__, [&, fnName = __func__] {
    return plr::FillCache(db, path, backup, readOnly, fnName);
  });
  if (!ok) {
    PLOG(LOG_ERR, "Failed to load database cache with contents of file: %s", path);
    PLRNetCfgUnload(&db, false);
    return false;
  }
  if (cacheOut != nullptr)
    *cacheOut = db;
  else
    netCfgDefaultCache = db;
  PLOG(LOG_INFO, "Database cache loaded with contents of file: %s", path);
  return true;
}

// Releases a cache (the default one when `cachePointer` is NULL), first
// rewriting its file when asked to, the cache changed and may write.
bool PLRNetCfgUnload(PLRNetworkConfigurationDB** cachePointer, bool compact) {
  PLRNetworkConfigurationDB** slot = cachePointer != nullptr ? cachePointer : &netCfgDefaultCache;
  PLRNetworkConfigurationDB* db = *slot;
  if (db == nullptr) {
    PLOG(LOG_ERR, "Requested cache is not loaded");
    return true;
  }
  if (compact && db->modified && !db->readOnly) {
    try {
      plr::CompactLocked(db, __func__);
    } catch (const std::bad_alloc&) {
      PLOG(LOG_ERR, "Failed to write to temp database file: %s", db->fileName.c_str());
    }
  }
  db->stream.reset();
  if (db->lock.held() && !db->lock.Unlock())
    PLOG(LOG_ERR, "Failed to unlock database file: %s, error: %s", db->fileName.c_str(),
         strerror(errno));
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    PLRNetCfgRemoveAllNATPortFwd(db, vnet, true, true, false);
    PLRNetCfgRemoveAllDHCPMACToIPMapping(db, vnet, false);
    PLRNetCfgRemoveAllNATPrefix(db, vnet, false);
  }
  if (db == netCfgDefaultCache) netCfgDefaultCache = nullptr;
  delete db;
  plrDefaultBridgeVnet = PLR_VNET_ALL;
  *slot = nullptr;
  return true;
}

bool PLRNetCfgIsReadOnly(PLRNetworkConfigurationDB* db) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgResolve(db);
  return cache != nullptr && cache->readOnly;
}

// Takes the database lock for a whole change; a cache locks at most once.
bool PLRNetCfgLockConfig(PLRNetworkConfigurationDB* db) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgCacheFor(db, __func__);
  if (cache == nullptr) return false;
  if (cache->lock.held()) {
    PLOG(LOG_INFO, "Database file is already locked");
    return false;
  }
  if (!cache->lock.Lock(cache->fileName.c_str(), plr::kNetCfgLockWaitMs)) {
    PLOG(LOG_ERR, "Failed to lock config file, file: %s, error: %s", cache->fileName.c_str(),
         plr::LockErrorText(errno));
    return false;
  }
  PLOG(LOG_INFO2, "Database file locking success");
  if (!cache->readOnly && !plr::NetCfgGuarded(__func__, [&, fnName = __func__] {
        return plr::NetCfgCatchUp(cache, fnName);
      })) {
    cache->lock.Unlock();
    return false;
  }
  return true;
}

// Releases the lock of PLRNetCfgLockConfig; unlocking an unlocked cache is
// not an error.
bool PLRNetCfgUnlockConfig(PLRNetworkConfigurationDB* db) {
  PLRNetworkConfigurationDB* cache = plr::NetCfgResolve(db);
  if (cache == nullptr || !cache->lock.held()) {
    PLOG(LOG_INFO2, "Config file is not currently locked");
    return true;
  }
  if (!cache->lock.Unlock()) {
    PLOG(LOG_ERR, "Failed to unlock database file: %s, error: %s", cache->fileName.c_str(),
         strerror(errno));
    return false;
  }
  PLOG(LOG_INFO2, "Config file unlocking success");
  return true;
}

}  // extern "C"
