// The writing side of the file format: record text, the journal append, and
// the whole-file writer used by compaction and export.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

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
  auto result = std::to_chars(buf, buf + sizeof buf, value);
  out->append(buf, result.ptr);
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
  off_t end = lseek(fd, 0, SEEK_END);
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
  if (written != 0 && ftruncate(fd, end) != 0) {
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

bool NetCfgWriteRecord(std::string* buffer, const NetCfgRecord& record) {
  if (record.type == kRecAnswer && record.key == kNetCfgBinDirKey) {
    PLOG(LOG_ERR, "Memory allocation failure, error: %s", strerror(EINVAL));
    return false;
  }
  // The string grows geometrically, never by less than the 1024-byte step.
  if (buffer->capacity() - buffer->size() < kNetCfgMaxLine)
    buffer->reserve(std::max(buffer->capacity() * 2, buffer->size() + 1024));
  return NetCfgFormatRecord(record, buffer);
}

bool NetCfgAppendRecord(PLRNetworkConfigurationDB* db, const NetCfgRecord& record,
                        bool* mayHaveLanded) {
  *mayHaveLanded = false;
  std::string text;
  if (!NetCfgFormatRecord(record, &text)) {
    errno = EINVAL;
    return false;
  }
  // A reader refuses lines this long; a record it cannot read back is not written.
  if (text.size() > kNetCfgMaxLine) {
    PLOG_AS("NetCfgWriteRecordToConfig", LOG_ERR, "Failed to write record to database file: %s",
            RecordForLog(text).c_str());
    errno = EMSGSIZE;
    return false;
  }
  if (!AppendText(db, text, mayHaveLanded)) {
    int err = errno;
    PLOG_AS("NetCfgWriteRecordToConfig", LOG_ERR, "Failed to write record to database file: %s",
            RecordForLog(text).c_str());
    errno = err;
    return false;
  }
  db->modified = true;
  return true;
}

bool NetCfgWriteRecordToConfig(PLRNetworkConfigurationDB* db, const NetCfgRecord& record) {
  bool mayHaveLanded = false;
  return NetCfgAppendRecord(db, record, &mayHaveLanded);
}

void NetCfgCollectRecords(const PLRNetworkConfigurationDB* db, uint32_t type,
                          std::vector<NetCfgRecord>* out) {
  out->clear();
  switch (type) {
    case kRecAnswer: {
      if (!db->answers) return;
      // Sort pointers to the entries, not the (large) records.
      std::vector<const NetCfgAnswerTable::value_type*> nodes;
      nodes.reserve(db->answers->size());
      for (const auto& node : *db->answers) nodes.push_back(&node);
      std::sort(nodes.begin(), nodes.end(), [](auto* a, auto* b) { return a->first < b->first; });
      out->reserve(nodes.size());
      for (const auto* node : nodes) out->push_back(AnswerRecord(node->first, node->second.value));
      return;
    }
    case kRecAddNatPortFwd: {
      std::vector<const NATPortFwdEntry*> group;
      for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
        if (!db->portFwds[vnet]) continue;
        for (bool isTCP : {true, false}) {
          const NATPortFwdGroup& fwds = db->portFwds[vnet]->group(isTCP);
          if (!fwds.table) continue;
          group.clear();
          for (const auto& node : *fwds.table) group.push_back(&node.second);
          std::sort(group.begin(), group.end(),
                    [](auto* a, auto* b) { return a->hostPort < b->hostPort; });
          for (const NATPortFwdEntry* entry : group) out->push_back(PortFwdRecord(*entry, true));
        }
      }
      return;
    }
    case kRecAddDhcpMacToIp:
      for (uint32_t vnet = 0; vnet < PLR_MAX_VNETS; ++vnet) {
        if (!db->dhcp[vnet]) continue;
        for (const auto& [mac, ip] : db->dhcp[vnet]->table)
          out->push_back(DhcpRecord(vnet, mac, ip, true));
      }
      return;
    case kRecAddBridgeMapping: {
      if (!db->bridges) return;
      std::vector<const NetCfgBridgeTable::value_type*> nodes;
      nodes.reserve(db->bridges->size());
      for (const auto& node : *db->bridges) nodes.push_back(&node);
      std::sort(nodes.begin(), nodes.end(), [](auto* a, auto* b) {
        if (a->second != b->second) return a->second < b->second;
        return a->first < b->first;
      });
      out->reserve(nodes.size());
      for (const auto* node : nodes) out->push_back(BridgeRecord(node->first, node->second, true));
      return;
    }
    default:
      return;
  }
}

bool NetCfgWriteDatabaseFile(PLRNetworkConfigurationDB* db, const char* path, bool backup) {
  return NetCfgGuarded(__func__, [&, fnName = __func__] {
    UniqueFd fd(sys::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) {
      PLOG_AS(fnName, LOG_ERR, "Failed to open file: %s, error: %s", path, strerror(errno));
      return false;
    }
    // Undo: a half-written file is never left behind.
    ScopeExit removeFile([&] {
      fd.reset();
      sys::unlink(path);
    });

    std::string buffer = backup ? "BACKUP_VERSION=" : "VERSION=";
    buffer +=
        std::to_string(kNetCfgMajorVersion) + "," + std::to_string(kNetCfgMinorVersion) + "\n";
    if (!sys::WriteAll(fd.get(), buffer.data(), buffer.size())) {
      PLOG_AS(fnName, LOG_ERR, "Failed to write initialization data into file: %serror: %s", path,
              strerror(errno));
      return false;
    }
    buffer.clear();
    buffer.reserve(kWriteChunk + kNetCfgMaxLine * 2);

    std::vector<NetCfgRecord> records;
    for (uint32_t type : kNetCfgWrittenTypes) {
      try {
        NetCfgCollectRecords(db, type, &records);
      } catch (const std::bad_alloc&) {
        PLOG_AS(fnName, LOG_ERR, "Failed to create array of records of type: %u", type);
        return false;
      }
      size_t count = 0;
      for (size_t i = 0; i <= records.size(); ++i) {
        bool last = i == records.size();
        if (!last) {
          const NetCfgRecord& record = records[i];
          if (record.type == kRecAnswer && record.key == kNetCfgBinDirKey) continue;
          if (!NetCfgFormatRecord(record, &buffer)) {
            PLOG_AS(fnName, LOG_ERR, "Failed to write record of type: %u to  database file", type);
            return false;
          }
          ++count;
        }
        if ((last || buffer.size() >= kWriteChunk) && !buffer.empty()) {
          if (!sys::WriteAll(fd.get(), buffer.data(), buffer.size())) {
            PLOG_AS(fnName, LOG_ERR, "Failed to write record of type: %u to  database file", type);
            return false;
          }
          buffer.clear();
        }
      }
      PLOG_AS(fnName, LOG_INFO, "Records of type: %u, count %zu written to database file", type,
              count);
    }
    // The file must be on disk before anyone renames it over a database.
    if (sys::fsync(fd.get()) != 0) {
      PLOG_AS(fnName, LOG_ERR, "Failed to flush database file: %s, error: %s", path,
              strerror(errno));
      return false;
    }
    removeFile.dismiss();
    return true;
  });
}

}  // namespace plr
