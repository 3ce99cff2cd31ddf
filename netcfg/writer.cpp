// The writing side of the file format: record text, the journal append, and
// the whole-file writer used by compaction and export.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <type_traits>

#include "base/fs-util.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "netcfg/tables.h"

namespace plr {
namespace {

// Flush threshold of the whole-file writer: large enough that a rewrite of
// 100k records costs a few dozen writes.
constexpr size_t kWriteChunk = 64 * 1024;

template <class T>
void AppendNumber(std::string* out, T value) {
  char buf[16];
  char* digits = buf;
  uint32_t magnitude = static_cast<uint32_t>(value);
  if constexpr (std::is_signed_v<T>) {
    if (value < 0) {
      *digits++ = '-';
      magnitude = 0u - magnitude;
    }
  }
  out->append(buf, static_cast<size_t>(FormatDecimal(digits, magnitude) - buf));
}

void AppendSep(std::string* out, std::string_view text) {
  out->push_back(' ');
  out->append(text);
}

// The text of a record without its trailing newline, for log lines.
std::string RecordForLog(const std::string& text) {
  return text.empty() || text.back() != '\n' ? text : text.substr(0, text.size() - 1);
}

// Moves to the current end of the journal (another process may have
// appended since this one loaded) and writes `text` there with one write.
// A record cut short by a full disk is cut off the file again, so a failed
// append leaves nothing of itself behind unless even that fails.
bool AppendText(PLRNetworkConfigurationDB* db, const std::string& text, bool* mayHaveLanded) {
  *mayHaveLanded = false;
  if (!db->stream) {
    errno = EBADF;
    return false;
  }
  int fd = fileno(db->stream.get());
  // Under this cache's lock the file was caught up when the lock was taken,
  // and the descriptor stands at its end (every read and write of the
  // journal leaves it there); otherwise another writer may have appended.
  off_t end = db->lock.held() && db->journalEnd >= 0 ? db->journalEnd : lseek(fd, 0, SEEK_END);
  if (end < 0) return false;
  // A foreign or interrupted writer may have left the file without its final
  // newline; the record must still start a line of its own.
  bool needNewline = false;
  if (end > 0 && end != db->journalEnd) {
    char last = '\n';
    if (pread(fd, &last, 1, end - 1) == 1 && last != '\n') needNewline = true;
  }
  std::string joined;
  const std::string* out = &text;
  if (needNewline) {
    joined.reserve(text.size() + 1);
    joined.push_back('\n');
    joined.append(text);
    out = &joined;
  }
  ssize_t written = sys::write(fd, out->data(), out->size());
  if (written == static_cast<ssize_t>(out->size())) {
    db->journalEnd = end + written;
    return true;
  }
  int err = written < 0 ? errno : ENOSPC;  // a short write means the disk is full
  if (written > 0 && (sys::ftruncate(fd, end) != 0 || lseek(fd, end, SEEK_SET) != end)) {
    *mayHaveLanded = true;
    db->journalEnd = -1;
  }
  errno = err;
  return false;
}

}  // namespace

bool NetCfgFormatRecord(const NetCfgRecord& r, std::string* out) {
  switch (r.type) {
    case kRecAnswer:
      out->append("answer");
      AppendSep(out, r.key);
      AppendSep(out, r.value);
      break;
    case kRecRemoveAnswer:
      out->append("remove_answer");
      AppendSep(out, r.key);
      break;
    case kRecAddNatPortFwd:
    case kRecRemoveNatPortFwd:
      out->append(r.type == kRecAddNatPortFwd ? "add_nat_portfwd " : "remove_nat_portfwd ");
      AppendNumber(out, r.vnet);
      AppendSep(out, NetCfgProtoName(r.isTCP));
      out->push_back(' ');
      AppendNumber(out, r.hostPort);
      if (r.type == kRecAddNatPortFwd) {
        AppendSep(out, r.vmIP);
        out->push_back(' ');
        AppendNumber(out, r.vmPort);
        if (!r.description.empty()) AppendSep(out, r.description);
      }
      break;
    case kRecAddDhcpMacToIp:
    case kRecRemoveDhcpMacToIp:
      out->append(r.type == kRecAddDhcpMacToIp ? "add_dhcp_mac_to_ip " : "remove_dhcp_mac_to_ip ");
      AppendNumber(out, r.vnet);
      AppendSep(out, r.mac);
      if (r.type == kRecAddDhcpMacToIp) AppendSep(out, r.ip);
      break;
    case kRecAddBridgeMapping:
      out->append("add_bridge_mapping");
      AppendSep(out, r.adapter);
      out->push_back(' ');
      AppendNumber(out, r.bridgeVnet);
      break;
    case kRecRemoveBridgeMapping:
      out->append("remove_bridge_mapping");
      AppendSep(out, r.adapter);
      break;
    case kRecAddNatPrefix:
    case kRecRemoveNatPrefix:
      out->append(r.type == kRecAddNatPrefix ? "add_nat_prefix " : "remove_nat_prefix ");
      if (r.type == kRecAddNatPrefix)
        AppendNumber(out, r.vnet);
      else
        AppendNumber(out, static_cast<int32_t>(r.vnet));
      AppendSep(out, r.prefix);
      break;
    default:
      PLOG(LOG_ERR, "Invalid record type: %u", r.type);
      return false;
  }
  out->push_back('\n');
  return true;
}

bool NetCfgWriteRecordToConfig(PLRNetworkConfigurationDB* db, const NetCfgRecord& record,
                               bool* mayHaveLanded) {
  *mayHaveLanded = false;
  std::string text;
  if (!NetCfgFormatRecord(record, &text)) {
    errno = EINVAL;
    return false;
  }
  // A reader refuses lines this long; a record it cannot read back is not written.
  if (text.size() > kNetCfgMaxLine) {
    PLOG(LOG_ERR, "Failed to write record to database file: %s", RecordForLog(text).c_str());
    errno = EMSGSIZE;
    return false;
  }
  if (!AppendText(db, text, mayHaveLanded)) {
    int err = errno;
    PLOG(LOG_ERR, "Failed to write record to database file: %s", RecordForLog(text).c_str());
    errno = err;
    return false;
  }
  db->modified = true;
  return true;
}

namespace {

// The first 16 bytes of a text as two numbers that order as the bytes do
// (zeros after a shorter text), so that most comparisons of a sort need not
// read the texts.
struct SortPrefix {
  uint64_t high = 0;
  uint64_t low = 0;

  explicit SortPrefix(std::string_view text) {
    unsigned char head[16] = {};
    memcpy(head, text.data(), std::min<size_t>(text.size(), sizeof head));
    for (size_t i = 0; i < 8; ++i) high = high << 8 | head[i];
    for (size_t i = 8; i < 16; ++i) low = low << 8 | head[i];
  }
  // Negative, zero or positive as `a` orders before, with or after `b`,
  // with the texts compared only when their prefixes are equal.
  static int Compare(const SortPrefix& a, std::string_view aText, const SortPrefix& b,
                     std::string_view bText) {
    if (a.high != b.high) return a.high < b.high ? -1 : 1;
    if (a.low != b.low) return a.low < b.low ? -1 : 1;
    return aText.compare(bText);
  }
};

// Answers in byte order of their keys.
template <class Emit>
bool ForEachAnswer(const PLRNetworkConfigurationDB* db, Emit&& emit) {
  if (!db->answers) return true;
  struct Item {
    SortPrefix prefix;
    const NetCfgAnswerTable::Entry* entry;
  };
  std::vector<Item> items;
  items.reserve(db->answers->size());
  for (const auto& entry : *db->answers) items.push_back(Item{SortPrefix(entry.key()), &entry});
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
    return SortPrefix::Compare(a.prefix, a.entry->key(), b.prefix, b.entry->key()) < 0;
  });
  NetCfgRecord record = AnswerRecord({}, {});  // one record, refilled for each entry
  for (const Item& item : items) {
    record.key = item.entry->key();
    record.value = item.entry->value();
    if (!emit(record)) return false;
  }
  return true;
}

// Port forwards by vnet, TCP before UDP, host port.
template <class Emit>
bool ForEachPortFwd(const PLRNetworkConfigurationDB* db, Emit&& emit) {
  std::vector<std::pair<uint16_t, const NATPortFwdEntry*>> group;
  NetCfgRecord record = PortFwdRecord(NATPortFwdEntry{}, true);  // refilled for each entry
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    if (!db->portFwds[vnet]) continue;
    for (bool isTCP : {true, false}) {
      const NATPortFwdGroup& fwds = db->portFwds[vnet]->group(isTCP);
      if (!fwds.table) continue;
      group.clear();
      for (const auto& [port, entry] : *fwds.table) group.emplace_back(port, &entry);
      std::sort(group.begin(), group.end(),
                [](const auto& a, const auto& b) { return a.first < b.first; });
      for (const auto& [port, entry] : group) {
        record.vnet = entry->vnet;
        record.isTCP = entry->isTCP != 0;
        record.hostPort = entry->hostPort;
        record.vmIP = entry->vmIP;
        record.vmPort = entry->vmPort;
        record.description = entry->description;
        if (!emit(record)) return false;
      }
    }
  }
  return true;
}

// DHCP mappings by vnet, in table order within a vnet.
template <class Emit>
bool ForEachDhcp(const PLRNetworkConfigurationDB* db, Emit&& emit) {
  NetCfgRecord record = DhcpRecord(0, {}, {}, true);  // refilled for each entry
  for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
    if (!db->dhcp[vnet]) continue;
    record.vnet = vnet;
    for (const auto& [mac, ip] : db->dhcp[vnet]->table) {
      record.mac = mac.view();
      record.ip = ip;
      if (!emit(record)) return false;
    }
  }
  return true;
}

// Bridge mappings by signed vnet, then adapter name.
template <class Emit>
bool ForEachBridge(const PLRNetworkConfigurationDB* db, Emit&& emit) {
  if (!db->bridges) return true;
  struct Item {
    int32_t vnet;
    SortPrefix prefix;
    std::string_view adapter;
  };
  std::vector<Item> items;
  items.reserve(db->bridges->size());
  for (const auto& entry : *db->bridges)
    items.push_back(Item{entry.extra, SortPrefix(entry.key()), entry.key()});
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
    if (a.vnet != b.vnet) return a.vnet < b.vnet;
    return SortPrefix::Compare(a.prefix, a.adapter, b.prefix, b.adapter) < 0;
  });
  NetCfgRecord record = BridgeRecord({}, 0, true);  // refilled for each entry
  for (const Item& item : items) {
    record.adapter = item.adapter;
    record.bridgeVnet = item.vnet;
    if (!emit(record)) return false;
  }
  return true;
}

// The add records of one group in the order of the compacting writer:
// answers (kRecAnswer) by key in byte order, BINDIR included; port forwards
// (kRecAddNatPortFwd) by vnet, TCP before UDP, host port; DHCP mappings
// (kRecAddDhcpMacToIp) by vnet, table order within a vnet; bridge mappings
// (kRecAddBridgeMapping) by signed vnet, then adapter name. Other types give
// nothing. `emit(const NetCfgRecord&)` returns false to stop, which makes
// the call false; the records point into the cache.
template <class Emit>
bool ForEachRecord(const PLRNetworkConfigurationDB* db, uint32_t type, Emit&& emit) {
  switch (type) {
    case kRecAnswer:
      return ForEachAnswer(db, emit);
    case kRecAddNatPortFwd:
      return ForEachPortFwd(db, emit);
    case kRecAddDhcpMacToIp:
      return ForEachDhcp(db, emit);
    case kRecAddBridgeMapping:
      return ForEachBridge(db, emit);
    default:
      return true;
  }
}

}  // namespace

bool NetCfgFormatDatabase(const PLRNetworkConfigurationDB* db, bool backup, std::string* text,
                          const NetCfgDatabaseSink& sink) {
  *text += backup ? "BACKUP_VERSION=" : "VERSION=";
  *text += std::to_string(kNetCfgMajorVersion) + "," + std::to_string(kNetCfgMinorVersion) + "\n";
  if (!sink(text, 0, 0, true)) return false;
  for (uint32_t type : kNetCfgWrittenTypes) {
    size_t count = 0;
    bool formatted = true;
    bool ok = ForEachRecord(db, type, [&](const NetCfgRecord& record) {
      if (record.type == kRecAnswer && record.key == kNetCfgBinDirKey) return true;
      if (!NetCfgFormatRecord(record, text)) return formatted = false;
      ++count;
      return text->size() < kWriteChunk || sink(text, type, count, false);
    });
    if (!formatted) return sink(nullptr, type, count, true);
    if (!ok || !sink(text, type, count, true)) return false;
  }
  return true;
}

bool NetCfgWriteDatabaseFile(PLRNetworkConfigurationDB* db, PendingFile* file, const char* path,
                             mode_t mode, bool backup) {
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    if (!file->Create(path, mode)) {
      PLOG_AS(fnName, LOG_ERR, "Failed to open file: %s, error: %s", file->tempPath().c_str(),
              strerror(errno));
      return false;
    }
    const char* temp = file->tempPath().c_str();
    std::string text;
    text.reserve(kWriteChunk + kNetCfgMaxLine * 2);
    // Each piece goes out as it is ready: the version line, every full chunk
    // and the end of every group.
    bool ok = NetCfgFormatDatabase(
        db, backup, &text, [&](std::string* pending, uint32_t type, size_t count, bool groupEnd) {
          if (pending == nullptr ||
              (!pending->empty() && !sys::WriteAll(file->fd(), pending->data(), pending->size()))) {
            if (type == 0)
              PLOG_AS(fnName, LOG_ERR, "Failed to write initialization data into file: %serror: %s",
                      temp, strerror(errno));
            else
              PLOG_AS(fnName, LOG_ERR, "Failed to write record of type: %u to  database file",
                      type);
            return false;
          }
          pending->clear();
          if (groupEnd && type != 0)
            PLOG_AS(fnName, LOG_INFO, "Records of type: %u, count %zu written to database file",
                    type, count);
          return true;
        });
    if (!ok) {
      file->Discard();
      return false;
    }
    // The file must be on disk before anyone renames it over a database.
    if (!file->Sync()) {
      PLOG_AS(fnName, LOG_ERR, "Failed to flush database file: %s, error: %s", temp,
              strerror(errno));
      file->Discard();
      return false;
    }
    return true;
  });
}

}  // namespace plr
