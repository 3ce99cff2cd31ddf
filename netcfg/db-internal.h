// The networking database cache as the netcfg and import/export code sees it:
// the record behind the opaque PLRNetworkConfigurationDB, the record types of
// the journal, their formatting, and the writers of whole database files.
//
// Ownership: a cache owns every table, entry and string in it; the stream is
// the database file, kept open from load to unload. Changes to the tables
// made directly through this header write no journal record; the PLRNetCfg...
// functions are the write-through path.
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/chain-table.h"
#include "base/fd-util.h"
#include "base/file-lock.h"
#include "base/fs-util.h"
#include "base/short-text.h"
#include "base/text-table.h"
#include "pelorus/netcfg.h"

namespace plr {

inline constexpr uint32_t kNetCfgMajorVersion = 1;
inline constexpr uint32_t kNetCfgMinorVersion = 0;
inline constexpr unsigned kNetCfgLockWaitMs = 3500;
// A line holds at most 1023 characters; longer lines are refused, and no
// record longer than that (newline not counted) is ever written.
inline constexpr size_t kNetCfgMaxLine = 1024;
inline constexpr size_t kNetCfgAdapterNameSize = 128;  // names are shorter
inline constexpr size_t kNetCfgMaxDescription = 127;
inline constexpr const char* kNetCfgBinDirKey = "BINDIR";
inline constexpr const char* kProductConfigPath = "/etc/tarsis/config";

// Record types in the order of the keyword table; the numbers are the codes
// the writers switch on.
enum NetCfgRecordType : uint32_t {
  kRecAnswer = 1,
  kRecRemoveAnswer = 2,
  kRecAddNatPortFwd = 3,
  kRecRemoveNatPortFwd = 4,
  kRecAddDhcpMacToIp = 5,
  kRecRemoveDhcpMacToIp = 6,
  kRecAddBridgeMapping = 7,
  kRecRemoveBridgeMapping = 8,
  kRecAddNatPrefix = 9,
  kRecRemoveNatPrefix = 10,
};

// Hash and equality that let string-keyed tables be searched with a
// string_view, so replaying a record needs no temporary key string.
struct NetCfgStringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
using NetCfgStringSet = std::unordered_set<std::string, NetCfgStringHash, std::equal_to<>>;

// What an answer's key says: for keys of the form VNET_<n>_<FIELD>, n and the
// offset of FIELD within the key, so the import can work field by field.
// Four bytes, so that an answer's table entry is 32.
struct NetCfgAnswerField {
  int16_t vnet = -1;         // n, or -1 for a global key
  uint16_t fieldOffset = 0;  // offset of FIELD (at most 10), 0 for a global key
};
// Answers: key and value texts stay where they are until the cache goes, so
// a value handed out by PLRNetCfgGetAnswerString stays readable.
using NetCfgAnswerTable = TextTable<NetCfgAnswerField>;
static_assert(sizeof(NetCfgAnswerTable::Entry) == 32);

// One NAT port forward; an empty description means none. The small fields
// share one word and the texts are short ones, so that a table node with
// its key takes 56 bytes.
struct NATPortFwdEntry {
  uint16_t vnet = 0;  // below PLR_MAX_VNETS
  uint16_t hostPort = 0;
  uint16_t vmPort = 0;
  uint8_t isTCP = 0;
  ShortText vmIP;
  ShortText description;
};
static_assert(sizeof(NATPortFwdEntry) == 8 + 2 * sizeof(ShortText));

// The forwards of one protocol of one vnet, keyed by host port.
using NATPortFwdTable = ChainTable<uint16_t, NATPortFwdEntry, std::hash<uint16_t>>;

// One protocol of one vnet: the table keyed by host port, and the array that
// enumeration walks. The array is built on demand and discarded by every add
// or remove on this protocol, so the order stays stable between changes.
struct NATPortFwdGroup {
  std::optional<NATPortFwdTable> table;  // in place: a group costs no allocation of its own
  std::vector<const NATPortFwdEntry*> array;
  bool arrayValid = false;
};

// The port forwards of one vnet: TCP group first, UDP second. Freed when
// both tables are gone.
struct NATVnetPortFwdConfig {
  NATPortFwdGroup groups[2];
  NATPortFwdGroup& group(bool isTCP) { return groups[isTCP ? 0 : 1]; }
  const NATPortFwdGroup& group(bool isTCP) const { return groups[isTCP ? 0 : 1]; }
};

// A MAC address in standard form ("xx:xx:xx:xx:xx:xx"), held in the node
// itself with its hash. It hashes as its text does, so a table of these keys
// keeps the order a table of text keys has; the hash is worked out once, not
// again at every rehash (the node still fits the heap block it took before).
class NetCfgMacKey {
 public:
  static constexpr size_t kSize = 17;
  // `text` must be kSize bytes (the caller has standardised it).
  explicit NetCfgMacKey(std::string_view text) : hash_(NetCfgStringHash{}(text)) {
    memcpy(text_, text.data(), kSize);
  }
  std::string_view view() const { return {text_, kSize}; }
  const char* c_str() const { return text_; }
  size_t hash() const { return hash_; }
  friend bool operator==(const NetCfgMacKey& a, std::string_view b) {
    return b.size() == kSize && memcmp(a.text_, b.data(), kSize) == 0;
  }
  // Two keys differ by their hashes, nearly always.
  friend bool operator==(const NetCfgMacKey& a, const NetCfgMacKey& b) {
    return a.hash_ == b.hash_ && memcmp(a.text_, b.text_, kSize) == 0;
  }

 private:
  char text_[kSize + 1] = {};
  size_t hash_;
};
struct NetCfgMacHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return NetCfgStringHash{}(s); }
  size_t operator()(const NetCfgMacKey& k) const noexcept { return k.hash(); }
};

// DHCP mappings of one vnet, keyed by the standardised MAC; the value is the
// IP address. The array caches the enumeration order like the port forwards.
struct DhcpVnetTable {
  using Table = ChainTable<NetCfgMacKey, ShortText, NetCfgMacHash>;
  Table table;
  std::vector<const Table::value_type*> array;
  bool arrayValid = false;
};

// Bridge mappings: adapter name -> vnet (0..255, or -1 for none), the vnet
// in the entry's `extra`; the value text is unused.
using NetCfgBridgeTable = TextTable<int32_t>;

}  // namespace plr

// The cache of one database file; fields in their documented order.
struct PLRNetworkConfigurationDB {
  plr::FileLock lock;      // held lock on the database file
  plr::UniqueFile stream;  // the file; every record is written on its descriptor
  std::string fileName;    // path of the file
  bool backup = false;     // a backup/export file ("BACKUP_VERSION")
  bool modified = false;   // a compacting unload rewrites only when set
  uint32_t majorVersion = 0;
  uint32_t minorVersion = 0;
  bool readOnly = false;  // no lock, no file writes
  std::unique_ptr<plr::NetCfgAnswerTable> answers;
  std::unique_ptr<plr::NetCfgBridgeTable> bridges;
  std::unique_ptr<plr::NATVnetPortFwdConfig> portFwds[PLR_MAX_VNETS];
  std::unique_ptr<plr::DhcpVnetTable> dhcp[PLR_MAX_VNETS];
  std::unique_ptr<plr::NetCfgStringSet> prefixes[PLR_MAX_VNETS];
  // Size of the file as this cache last read or wrote it: the end of its
  // last append, or of the last replay. A file of another size, or one that
  // is no longer linked (a new file was renamed in), was changed by another
  // writer. -1 when not known; the last byte is then checked for a newline
  // before appending.
  off_t journalEnd = -1;
  uint32_t lineCount = 0;  // lines read so far, for the reader's messages
};

namespace plr {

// The default cache, owned by the library from load to last unload.
extern PLRNetworkConfigurationDB* netCfgDefaultCache;

// `db`, or the default cache when `db` is null (may be null).
inline PLRNetworkConfigurationDB* NetCfgResolve(PLRNetworkConfigurationDB* db) {
  return db != nullptr ? db : netCfgDefaultCache;
}

// One record of the journal; only the fields of its type are used.
struct NetCfgRecord {
  uint32_t type = 0;
  std::string_view key;    // answer key
  std::string_view value;  // answer value
  uint32_t vnet = 0;       // port forwards, DHCP, prefixes
  int32_t bridgeVnet = 0;  // bridge mappings (-1 allowed)
  bool isTCP = false;
  uint16_t hostPort = 0;
  std::string_view vmIP;
  uint16_t vmPort = 0;
  std::string_view description;  // empty: none
  std::string_view mac;
  std::string_view ip;
  std::string_view adapter;
  std::string_view prefix;
};

// Appends the text of `record` (with its newline) to `out`. An unknown type
// logs "Invalid record type: %u" and fails.
bool NetCfgFormatRecord(const NetCfgRecord& record, std::string* out);

// The groups of a whole database file in file order.
inline constexpr uint32_t kNetCfgWrittenTypes[] = {kRecAnswer, kRecAddNatPortFwd,
                                                   kRecAddDhcpMacToIp, kRecAddBridgeMapping};

// Takes each piece of a formatted database away: `text` holds what was
// formatted since the last call (null after a record that failed to format),
// `type` the group (0 for the version line), `count` its records so far,
// `groupEnd` whether the group is complete. False stops the formatting.
using NetCfgDatabaseSink =
    std::function<bool(std::string* text, uint32_t type, size_t count, bool groupEnd)>;

// The one formatter of whole database files: the version line
// ("VERSION=1,0", or "BACKUP_VERSION=1,0" for a backup), then the groups
// above, BINDIR skipped. `sink` gets the text after the version line, after
// every group and whenever a large chunk is pending; false from it or from a
// record makes the whole call false.
bool NetCfgFormatDatabase(const PLRNetworkConfigurationDB* db, bool backup, std::string* text,
                          const NetCfgDatabaseSink& sink);

// Writes the whole cache into `file`, created beside `path` with exactly
// `mode`, and puts it on disk; the caller commits or keeps it. Each failure
// has its log line and removes the temporary file.
bool NetCfgWriteDatabaseFile(PLRNetworkConfigurationDB* db, PendingFile* file, const char* path,
                             mode_t mode, bool backup);

// "MAJOR,MINOR" with MAJOR 0 or 1 and any non-negative MINOR; logs the reason
// of a refusal under ParseVersionString.
bool ParseVersionString(const char* text, uint32_t* major, uint32_t* minor);

// Table operations without journal records (the replay and the import work
// through these). Adding replaces the value in place.
bool NetCfgHashAddAnswer(PLRNetworkConfigurationDB* db, std::string_view key,
                         std::string_view value);
bool NetCfgHashRemoveAnswer(PLRNetworkConfigurationDB* db, std::string_view key);

// Brings a writable cache up to date with its file before a change: under
// the database lock, a file another writer appended to has its new records
// replayed; a file replaced by rename (or cut shorter) is read again from the
// start. On an unchanged file this costs one fstat. False, with its log line
// under `function`, when the file cannot be read; the cache is then as it was.
bool NetCfgCatchUp(PLRNetworkConfigurationDB* db, const char* function);

// Fills vnet and field offset for a VNET_<n>_<FIELD> key (n up to 255).
NetCfgAnswerField NetCfgClassifyAnswerKey(std::string_view key);

}  // namespace plr
