// Table operations of the netcfg code itself: insert with replacement, find
// and erase for every record kind, field checks shared by the replay and the
// change functions, and the journal append with its "may have landed" report.
// Nothing here writes a record except NetCfgWriteRecordToConfig.
#pragma once

#include <errno.h>

#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/address.h"
#include "core/log.h"
#include "netcfg/db-internal.h"

namespace plr {

// Runs `body`; an allocation failure becomes one log line and false, so no
// exception leaves an exported function.
template <class F>
bool NetCfgGuarded(const char* function, F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    PLOG_AS(function, LOG_ERR, "Memory allocation failure");
    return false;
  }
}

// The cache a change or lookup works on; logs "Database cache is not loaded"
// under `function` when there is none.
PLRNetworkConfigurationDB* NetCfgCacheFor(PLRNetworkConfigurationDB* db, const char* function);

// Appends one record to the cache's journal: formatted, then written with
// one write() at the current end of the file; marks the cache modified. On
// failure it logs the record, errno tells why, and *mayHaveLanded says
// whether bytes of it could not be taken back out of the file (the record
// must then be compensated like a written one).
bool NetCfgWriteRecordToConfig(PLRNetworkConfigurationDB* db, const NetCfgRecord& record,
                               bool* mayHaveLanded);

// The failure points of an add, for the record kind's own log lines.
enum class NetCfgAddStep {
  kTable,       // the table insert failed
  kRemoveOld,   // the remove record of the replaced value was not written
  kWriteNew,    // the add record was not written
  kRestoreOld,  // undo: the replaced value's add record was not written
  kRemoveNew,   // undo: the new entry could not be taken out again
};

// Adds or replaces one entry and writes it through: the table changes first,
// then the remove record of a replaced value and the add record go to the
// journal. A failure undoes the table change; only records that reached the
// file get a compensating record, so the journal never removes what it does
// not hold. `restoring` marks a call that is itself an undo: it starts no
// undo of its own. `Kind` supplies, for one key:
//   Value                      what the table holds under the key
//   std::optional<Value> Find(db)
//   bool Put(db, const Value&) insert or replace
//   bool Erase(db)
//   NetCfgRecord Record(const Value&, bool add)
//   void Log(NetCfgAddStep, const Value* old)   one line per failure point
template <class Kind>
bool NetCfgAddWithRollback(PLRNetworkConfigurationDB* db, const Kind& kind,
                           const typename Kind::Value& value, bool restoring) {
  const std::optional<typename Kind::Value> old = kind.Find(db);
  const typename Kind::Value* oldPtr = old ? &*old : nullptr;
  bool landed = false;
  auto rollBack = [&] {
    db->modified = true;  // the cache may now differ from the file; compaction settles it
    if (restoring) return false;
    bool mayHaveLanded = false;
    if (old) {
      kind.Put(db, *old);
      if (landed && !NetCfgWriteRecordToConfig(db, kind.Record(*old, true), &mayHaveLanded))
        kind.Log(NetCfgAddStep::kRestoreOld, oldPtr);
    } else if (!kind.Erase(db) || (landed && !NetCfgWriteRecordToConfig(
                                                 db, kind.Record(value, false), &mayHaveLanded))) {
      kind.Log(NetCfgAddStep::kRemoveNew, oldPtr);
    }
    return false;
  };
  if (!kind.Put(db, value)) {
    kind.Log(NetCfgAddStep::kTable, oldPtr);
    return rollBack();
  }
  if (db->readOnly) {
    db->modified = true;
    return true;
  }
  if (old && !NetCfgWriteRecordToConfig(db, kind.Record(*old, false), &landed)) {
    kind.Log(NetCfgAddStep::kRemoveOld, oldPtr);
    return rollBack();
  }
  if (!NetCfgWriteRecordToConfig(db, kind.Record(value, true), &landed)) {
    kind.Log(NetCfgAddStep::kWriteNew, oldPtr);
    landed = landed || old.has_value();
    return rollBack();
  }
  return true;
}

// The failure points of a remove, for the record kind's own log lines.
enum class NetCfgRemoveStep {
  kTable,    // the table erase failed
  kWrite,    // the remove record was not written
  kRestore,  // undo: the removed value could not be put back in the table
};

// Removes the entry `old` (found by the caller) and writes it through: the
// table changes first, then the remove record goes to the journal. When that
// write fails the entry goes back into the table, and an add record
// compensates a remove record that may have reached the file. Each failure
// point is logged through `kind.Log(NetCfgRemoveStep, const Value& old)`
// with errno as the failed write left it. `Kind` is a record kind as for
// NetCfgAddWithRollback (Put, Erase and Record are used).
template <class Kind>
bool NetCfgRemoveWithRollback(PLRNetworkConfigurationDB* db, const Kind& kind,
                              const typename Kind::Value& old) {
  if (!kind.Erase(db)) {
    kind.Log(NetCfgRemoveStep::kTable, old);
    return false;
  }
  if (db->readOnly) {
    db->modified = true;
    return true;
  }
  bool mayHaveLanded = false;
  if (NetCfgWriteRecordToConfig(db, kind.Record(old, false), &mayHaveLanded)) return true;
  const int writeErrno = errno;
  kind.Log(NetCfgRemoveStep::kWrite, old);
  if (!kind.Put(db, old)) {
    errno = writeErrno;
    kind.Log(NetCfgRemoveStep::kRestore, old);
  }
  if (mayHaveLanded) NetCfgWriteRecordToConfig(db, kind.Record(old, true), &mayHaveLanded);
  return false;
}

// Field checks (the reader's rules; the writers produce only what passes).
bool NetCfgParseDecimal(std::string_view text, uint32_t max, uint32_t* out);
bool NetCfgIsValidPrefix(std::string_view text);
bool NetCfgIsValidAdapterName(std::string_view name);
bool NetCfgIsValidBridgeVnet(int32_t vnet);
// Keys and single-field values: non-empty, no blank, no line break.
bool NetCfgIsToken(std::string_view text);
// Rest-of-line values: no line break (may be empty only where noted).
bool NetCfgIsLineText(std::string_view text);

const char* NetCfgProtoName(bool isTCP);

// A cursor walk reads its entries in the order of an array of pointers to
// nodes scattered over the heap: at each step, the node a few steps on is
// asked for early, so that it is in the cache by the time the walk gets there.
// An entry may straddle two cache lines; both are asked for.
template <class T>
inline void NetCfgPrefetchAhead(const std::vector<T*>& array, size_t cursor) {
  constexpr size_t kAhead = 16;
  if (cursor + kAhead >= array.size()) return;
  const char* entry = reinterpret_cast<const char*>(array[cursor + kAhead]);
  __builtin_prefetch(entry);
  __builtin_prefetch(entry + sizeof(T) - 1);
}

// Visits the entries of a cursor's array in order, each asked for early as
// above; false when `visit` stopped the walk.
template <class T, class Visit>
bool NetCfgWalkInOrder(const std::vector<T*>& array, Visit visit) {
  for (size_t i = 0; i < array.size(); ++i) {
    NetCfgPrefetchAhead(array, i);
    if (!visit(*array[i])) return false;
  }
  return true;
}

// Copies `text` with its terminator into the caller's `buf` of `size` bytes
// when it fits; false (and nothing copied) when it does not or `buf` is null.
bool NetCfgCopyOut(std::string_view text, char* buf, size_t size);

// The forwards of one protocol of a vnet in the order the cursor of
// PLRNetCfgEnumNATPortFwd hands them out, the array built on demand; null
// when there are none. It logs as that enumeration does, under its name.
inline constexpr char kPortFwdEnumName[] = "PLRNetCfgEnumNATPortFwd";
const std::vector<const NATPortFwdEntry*>* NetCfgPortFwdsInOrder(PLRNetworkConfigurationDB* db,
                                                                 uint32_t vnet, bool isTCP);

// The same walk for a caller that needs no cursor: `visit(entry)` for each
// forward, in order, until it returns false; a walk that reaches the end
// ends with the enumeration's last log line. False when there are none or
// `visit` stopped the walk. `visit` must not change the forwards.
template <class Visit>
bool NetCfgForEachPortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP, Visit visit) {
  const std::vector<const NATPortFwdEntry*>* array = NetCfgPortFwdsInOrder(db, vnet, isTCP);
  if (array == nullptr || !NetCfgWalkInOrder(*array, visit)) return false;
  PLOG_AS(kPortFwdEnumName, LOG_INFO2, "No ports to enumerate");
  return true;
}

// The DHCP mappings of a vnet in the order the cursor of
// PLRNetCfgEnumDHCPMACToIP hands them out, the array built on demand; null
// when there are none. It logs as that enumeration does, under its name.
inline constexpr char kDhcpEnumName[] = "PLRNetCfgEnumDHCPMACToIP";
using NetCfgDhcpArray = std::vector<const DhcpVnetTable::Table::value_type*>;
const NetCfgDhcpArray* NetCfgDhcpInOrder(PLRNetworkConfigurationDB* db, uint32_t vnet);

// The same walk for a caller that needs no cursor: `visit(mac, ip)` for
// each mapping, in order, until it returns false; a walk that reaches the
// end ends with the enumeration's last log line. False when there are none
// or `visit` stopped the walk. `visit` must not change the mappings.
template <class Visit>
bool NetCfgForEachDhcp(PLRNetworkConfigurationDB* db, uint32_t vnet, Visit visit) {
  const NetCfgDhcpArray* array = NetCfgDhcpInOrder(db, vnet);
  if (array == nullptr || !NetCfgWalkInOrder(*array, [&](const auto& node) {
        return visit(node.first.view(), node.second.view());
      }))
    return false;
  PLOG_AS(kDhcpEnumName, LOG_INFO2, "No mappings to enumerate");
  return true;
}

// Port forwards. Insert replaces an entry with the same key (logging that it
// does) and discards the group's enumeration array.
const NATPortFwdEntry* NetCfgFindPortFwd(const PLRNetworkConfigurationDB* db, uint32_t vnet,
                                         bool isTCP, uint16_t hostPort);
bool NetCfgHashAddPortFwd(PLRNetworkConfigurationDB* db, NATPortFwdEntry entry);
bool NetCfgHashRemovePortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                             uint16_t hostPort);

// DHCP mappings; `mac` is in standard form.
const ShortText* NetCfgFindDhcp(const PLRNetworkConfigurationDB* db, uint32_t vnet,
                                std::string_view mac);
bool NetCfgHashAddDhcp(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view mac,
                       std::string_view ip);
bool NetCfgHashRemoveDhcp(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view mac);

// Bridge mappings.
const int32_t* NetCfgFindBridge(const PLRNetworkConfigurationDB* db, std::string_view adapter);
bool NetCfgHashAddBridge(PLRNetworkConfigurationDB* db, std::string_view adapter, int32_t vnet);
bool NetCfgHashRemoveBridge(PLRNetworkConfigurationDB* db, std::string_view adapter);

// NAT prefixes.
bool NetCfgFindPrefix(const PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix);
bool NetCfgHashAddPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix);
bool NetCfgHashRemovePrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix);

// Record builders.
inline NetCfgRecord AnswerRecord(std::string_view key, std::string_view value) {
  NetCfgRecord r;
  r.type = kRecAnswer;
  r.key = key;
  r.value = value;
  return r;
}
inline NetCfgRecord RemoveAnswerRecord(std::string_view key) {
  NetCfgRecord r;
  r.type = kRecRemoveAnswer;
  r.key = key;
  return r;
}
NetCfgRecord PortFwdRecord(const NATPortFwdEntry& e, bool add);
NetCfgRecord DhcpRecord(uint32_t vnet, std::string_view mac, std::string_view ip, bool add);
NetCfgRecord BridgeRecord(std::string_view adapter, int32_t vnet, bool add);
NetCfgRecord PrefixRecord(uint32_t vnet, std::string_view prefix, bool add);

}  // namespace plr
