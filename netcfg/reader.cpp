// The reading side of the file format: the version line and the replay of
// every record into a cache. A malformed record costs only itself and its
// log lines; only the version line and read errors fail a load.
#include "netcfg/reader.h"

#include <errno.h>
#include <string.h>

#include "base/line-reader.h"
#include "base/str-util.h"
#include "netcfg/tables.h"

namespace plr {
namespace {

// Splits the fields of one record: blank-separated tokens, and the rest of
// the line after the single blank that ends the last token taken.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : text_(text) {}

  bool Next(std::string_view* token) {
    while (pos_ < text_.size() && text_[pos_] == ' ') ++pos_;
    if (pos_ >= text_.size()) return false;
    const size_t begin = pos_;
    pos_ = FindBlank(begin);
    *token = text_.substr(begin, pos_ - begin);
    return true;
  }

  std::string_view Rest() const {
    return pos_ < text_.size() ? text_.substr(pos_ + 1) : std::string_view();
  }

 private:
  // The first blank at or after `from`, or the end of the text. Tokens are
  // short, so eight bytes are tested at a time in a register (a library
  // search costs more in setting up than it saves), the tail byte by byte.
  size_t FindBlank(size_t from) const {
    for (; from + 8 <= text_.size(); from += 8) {
      const uint32_t blanks = ByteMask(WordBytesEqual(LoadWord(text_.data() + from), ' '));
      if (blanks != 0) return from + static_cast<size_t>(__builtin_ctz(blanks));
    }
    while (from < text_.size() && text_[from] != ' ') ++from;
    return from;
  }

  std::string_view text_;
  size_t pos_ = 0;
};

bool NextDecimal(FieldReader& fields, uint32_t max, uint32_t* out) {
  std::string_view token;
  return fields.Next(&token) && NetCfgParseDecimal(token, max, out);
}

bool NextPort(FieldReader& fields, uint16_t* out) {
  uint32_t value = 0;
  if (!NextDecimal(fields, 65535, &value) || value == 0) return false;
  *out = static_cast<uint16_t>(value);
  return true;
}

}  // namespace

// answer KEY VALUE / remove_answer KEY
static bool DictRecordParseFunct(PLRNetworkConfigurationDB* db, uint32_t type,
                                 FieldReader& fields) {
  std::string_view key;
  if (!fields.Next(&key)) {
    PLOG(LOG_WRN, "Failed to extract key");
    return false;
  }
  if (key == kNetCfgBinDirKey) {  // only the product configuration names it
    PLOG(LOG_WRN, "Ignoring %s in database file, it comes only from %s", kNetCfgBinDirKey,
         kProductConfigPath);
    return true;
  }
  if (type == kRecAnswer) {
    std::string_view value = fields.Rest();
    if (value.empty()) {
      PLOG(LOG_WRN, "Empty value for key");
      return false;
    }
    if (!NetCfgHashAddAnswer(db, key, value)) {
      PLOG(LOG_WRN, "Failed to %s hash table", "add to");
      return false;
    }
    return true;
  }
  if (!db->answers) {
    PLOG(LOG_WRN, "Cannot delete from empty hash table");
    return true;
  }
  if (!NetCfgHashRemoveAnswer(db, key)) {
    PLOG(LOG_WRN, "Failed to %s hash table", "remove from");
    return false;
  }
  return true;
}

// add_nat_portfwd VNET PROTO HOSTPORT VMIP VMPORT [DESCRIPTION]
// remove_nat_portfwd VNET PROTO HOSTPORT
static bool NatFwdRecordParseFunct(PLRNetworkConfigurationDB* db, uint32_t type,
                                   FieldReader& fields) {
  NATPortFwdEntry entry;
  std::string_view token;
  uint32_t vnet = 0;
  if (!NextDecimal(fields, PLR_MAX_VNETS - 1, &vnet)) {
    PLOG(LOG_WRN, "Failed to extract vnet number or invalid vnet number");
    return false;
  }
  entry.vnet = static_cast<uint16_t>(vnet);
  if (!fields.Next(&token) ||
      (!EqualsIgnoringAsciiCase(token, "tcp") && !EqualsIgnoringAsciiCase(token, "udp"))) {
    PLOG(LOG_WRN, "Failed to parse tcp/udp");
    return false;
  }
  entry.isTCP = EqualsIgnoringAsciiCase(token, "tcp");
  if (!NextPort(fields, &entry.hostPort)) {
    PLOG(LOG_WRN, "Failed to parse host port");
    return false;
  }
  if (type == kRecRemoveNatPortFwd) {
    if (!NetCfgHashRemovePortFwd(db, entry.vnet, entry.isTCP, entry.hostPort)) {
      PLOG(LOG_WRN, "Failed to remove NAT port forward from hash table");
      return false;
    }
    return true;
  }
  if (!fields.Next(&token) || !IsValidIPText(token)) {
    PLOG(LOG_WRN, "Failed to parse VM IP address or invalid address");
    return false;
  }
  entry.vmIP.assign(token);
  // A bad VM port is reported with the host-port text, by design.
  if (!NextPort(fields, &entry.vmPort)) {
    PLOG(LOG_WRN, "Failed to parse host port");
    return false;
  }
  std::string_view description = fields.Rest();
  if (description.size() > kNetCfgMaxDescription) {
    PLOG(LOG_ERR, "Discarding description since it is too long");
    description = {};
  }
  entry.description.assign(description);
  if (!NetCfgHashAddPortFwd(db, std::move(entry))) {
    PLOG(LOG_WRN, "Failed to add NAT Port forward to hash table");
    return false;
  }
  return true;
}

// add_dhcp_mac_to_ip VNET MAC IP / remove_dhcp_mac_to_ip VNET MAC
static bool DhcpMacRecordParseFunct(PLRNetworkConfigurationDB* db, uint32_t type,
                                    FieldReader& fields) {
  uint32_t vnet = 0;
  if (!NextDecimal(fields, PLR_MAX_VNETS - 1, &vnet)) {
    PLOG(LOG_WRN, "Failed to parse vnet number or invalid vnet number");
    return false;
  }
  std::string_view token;
  char mac[18];
  if (!fields.Next(&token) || !StandardizeMACText(token, mac)) {
    PLOG(LOG_WRN, "Failed to parse MAC address or invalid MAC address");
    return false;
  }
  if (type == kRecRemoveDhcpMacToIp) {
    if (!NetCfgHashRemoveDhcp(db, vnet, mac)) {
      PLOG(LOG_WRN, "Failed to %s DHCP MAC to IP mapping in hash table", "remove");
      return false;
    }
    return true;
  }
  std::string_view ip = fields.Rest();
  if (!IsValidIPText(ip)) {
    PLOG(LOG_WRN, "Failed to parse IP address or invalid IP address");
    return false;
  }
  if (!NetCfgHashAddDhcp(db, vnet, mac, ip)) {
    PLOG(LOG_WRN, "Failed to %s DHCP MAC to IP mapping in hash table", "add");
    return false;
  }
  return true;
}

// add_bridge_mapping ADAPTER VNET / remove_bridge_mapping ADAPTER
static bool BridgeMappingRecordParseFunct(PLRNetworkConfigurationDB* db, uint32_t type,
                                          FieldReader& fields) {
  std::string_view adapter;
  if (!fields.Next(&adapter) || adapter.size() >= kNetCfgAdapterNameSize) {
    PLOG(LOG_WRN, "Failed to parse host adapter or invalid host adpater name");
    return false;
  }
  if (type == kRecRemoveBridgeMapping) {
    if (!db->bridges) {
      PLOG(LOG_ERR, "Cannot delete mapping entry from empty mapping list");
      return false;
    }
    if (!NetCfgHashRemoveBridge(db, adapter)) {
      PLOG(LOG_WRN, "Failed to %s bridge mapping in hash table", "remove");
      return false;
    }
    return true;
  }
  std::string_view token;
  uint32_t value = 0;
  int32_t vnet = -1;
  bool ok = fields.Next(&token);
  if (ok && token == "-1") {
    vnet = -1;
  } else if (ok && NetCfgParseDecimal(token, PLR_MAX_VNETS - 1, &value)) {
    vnet = static_cast<int32_t>(value);
  } else {
    PLOG(LOG_WRN, "Failed to parse vnet number or invalid vnet number");
    return false;
  }
  if (!NetCfgHashAddBridge(db, adapter, vnet)) {
    PLOG(LOG_WRN, "Failed to %s bridge mapping in hash table", "add");
    return false;
  }
  return true;
}

// add_nat_prefix VNET PREFIX / remove_nat_prefix VNET PREFIX
static bool NatPrefixRecordParseFunct(PLRNetworkConfigurationDB* db, uint32_t type,
                                      FieldReader& fields) {
  uint32_t vnet = 0;
  if (!NextDecimal(fields, PLR_MAX_VNETS - 1, &vnet)) {
    PLOG(LOG_WRN, "Failed to parse vnet number or invalid vnet number");
    return false;
  }
  std::string_view prefix;
  if (!fields.Next(&prefix) || !NetCfgIsValidPrefix(prefix)) {
    PLOG(LOG_WRN, "Failed to parse prefix or invalid prefix");
    return false;
  }
  bool add = type == kRecAddNatPrefix;
  bool ok = add ? NetCfgHashAddPrefix(db, vnet, prefix) : NetCfgHashRemovePrefix(db, vnet, prefix);
  if (!ok) {
    PLOG(LOG_WRN, "Failed to %s prefix in hash table", add ? "add" : "remove");
    return false;
  }
  return true;
}

namespace {

using ParseFunct = bool (*)(PLRNetworkConfigurationDB*, uint32_t, FieldReader&);

struct Keyword {
  std::string_view text;
  uint32_t type;
  ParseFunct parse;
};

// The keyword table, in the order of the record types.
constexpr Keyword kKeywords[] = {
    {"answer", kRecAnswer, DictRecordParseFunct},
    {"remove_answer", kRecRemoveAnswer, DictRecordParseFunct},
    {"add_nat_portfwd", kRecAddNatPortFwd, NatFwdRecordParseFunct},
    {"remove_nat_portfwd", kRecRemoveNatPortFwd, NatFwdRecordParseFunct},
    {"add_dhcp_mac_to_ip", kRecAddDhcpMacToIp, DhcpMacRecordParseFunct},
    {"remove_dhcp_mac_to_ip", kRecRemoveDhcpMacToIp, DhcpMacRecordParseFunct},
    {"add_bridge_mapping", kRecAddBridgeMapping, BridgeMappingRecordParseFunct},
    {"remove_bridge_mapping", kRecRemoveBridgeMapping, BridgeMappingRecordParseFunct},
    {"add_nat_prefix", kRecAddNatPrefix, NatPrefixRecordParseFunct},
    {"remove_nat_prefix", kRecRemoveNatPrefix, NatPrefixRecordParseFunct},
};

}  // namespace

// One line of the journal (not the version line). Lines of 1024 characters
// or more were cut by the reader and are refused whole.
static void NetCfgParseRecordLine(PLRNetworkConfigurationDB* db, std::string_view line,
                                  uint32_t lineNumber, const char* function) {
  FieldReader fields(line);
  std::string_view keyword;
  if (line.size() >= kNetCfgMaxLine || !fields.Next(&keyword)) {
    PLOG_AS(function, LOG_ERR, "Failed to parse record at line #: %u, data: %s", lineNumber,
            std::string(line).c_str());
    return;
  }
  for (const Keyword& entry : kKeywords) {
    // Length and last letter tell the keywords apart; the comparison confirms.
    if (keyword.size() != entry.text.size() || (keyword.back() | 0x20) != entry.text.back() ||
        !EqualsIgnoringAsciiCase(keyword, entry.text))
      continue;
    if (!entry.parse(db, entry.type, fields)) {
      std::string_view rest =
          line.substr(std::min(line.size(), keyword.data() - line.data() + keyword.size() + 1));
      PLOG_AS(function, LOG_ERR, "Failed to parse record at line #: %u, data: %s", lineNumber,
              std::string(rest).c_str());
    }
    return;  // keywords are unique: at most one entry matches
  }
}

bool ParseVersionString(const char* text, uint32_t* major, uint32_t* minor) {
  const char* comma = strchr(text, ',');
  std::string majorText = comma ? std::string(text, static_cast<size_t>(comma - text)) : text;
  int32_t majorValue = -1;
  if (!StrToInt32(majorText.c_str(), &majorValue) || majorValue < 0) {
    PLOG(LOG_ERR, "Cannot parse major version of database file, aborting parsing");
    return false;
  }
  int32_t minorValue = -1;
  if (comma == nullptr || !StrToInt32(comma + 1, &minorValue) || minorValue < 0) {
    PLOG(LOG_ERR, "Cannot parse or invalid minor version of database file, aborting parsing");
    return false;
  }
  if (majorValue > static_cast<int32_t>(kNetCfgMajorVersion)) {
    PLOG(LOG_ERR, "Unsupported major version, supported: %u, actual: %d", kNetCfgMajorVersion,
         majorValue);
    return false;
  }
  *major = static_cast<uint32_t>(majorValue);
  *minor = static_cast<uint32_t>(minorValue);
  return true;
}

// Reads the version line into the cache. `firstRecord` is set when a backup
// file has no version line, so line 1 must be replayed as a record.
static bool NetCfgReadVersionLine(PLRNetworkConfigurationDB* db, const std::string& line,
                                  bool* firstRecord, const char* function) {
  *firstRecord = false;
  size_t eq = line.find('=');
  std::string_view key = std::string_view(line).substr(0, eq);
  const char* wanted = db->backup ? "BACKUP_VERSION" : "VERSION";
  if (eq == std::string::npos || key != wanted) {
    if (!db->backup) {
      PLOG_AS(function, LOG_ERR, "Database file must have version number, aborting");
      return false;
    }
    PLOG_AS(function, LOG_INFO,
            "Version line not found in database file, defaulting to legacy version");
    db->majorVersion = 0;
    db->minorVersion = 0;
    *firstRecord = true;
    return true;
  }
  if (!ParseVersionString(line.c_str() + eq + 1, &db->majorVersion, &db->minorVersion))
    return false;
  PLOG_AS(function, LOG_INFO2, "Database file, Major version: %u, Minor version: %u",
          db->majorVersion, db->minorVersion);
  return true;
}

// Replays the records of `reader` up to the end of the stream; line numbers
// continue from db->lineCount.
static bool NetCfgReadRecords(PLRNetworkConfigurationDB* db, LineReader& reader,
                              const char* function) {
  std::string_view line;
  for (;;) {
    LineReader::Status status = reader.Next(&line);
    if (status == LineReader::Status::kEof) return true;
    if (status == LineReader::Status::kError) {
      PLOG_AS(function, LOG_ERR, "Error while reading database file, error: %s", strerror(errno));
      return false;
    }
    NetCfgParseRecordLine(db, line, ++db->lineCount, function);
  }
}

bool NetCfgReadDatabase(PLRNetworkConfigurationDB* db, FILE* stream, const char* function) {
  // The reader takes whole blocks itself, so the stream needs no buffer (nor
  // the fstat that would size one).
  setvbuf(stream, nullptr, _IONBF, 0);
  // One byte more than a line may hold, so an overlong line is recognisable.
  LineReader reader(stream, kNetCfgMaxLine + 1);
  std::string_view view;
  errno = 0;
  LineReader::Status status = reader.Next(&view);
  if (status == LineReader::Status::kError) {
    PLOG_AS(function, LOG_ERR, "Failed to read version number, error: %s", strerror(errno));
    return false;
  }
  if (status == LineReader::Status::kEof) {
    if (!db->backup) {
      PLOG_AS(function, LOG_ERR, "Database file cannot be empty, aborting");
      return false;
    }
    db->majorVersion = 0;
    db->minorVersion = 0;
    db->journalEnd = 0;
    return true;
  }
  const std::string line(view);
  bool firstRecord = false;
  if (!NetCfgReadVersionLine(db, line, &firstRecord, function)) return false;
  db->lineCount = 1;
  if (firstRecord) NetCfgParseRecordLine(db, line, db->lineCount, function);
  if (!NetCfgReadRecords(db, reader, function)) return false;
  db->journalEnd = static_cast<off_t>(reader.taken());
  return true;
}

bool NetCfgReadTail(PLRNetworkConfigurationDB* db, FILE* stream, off_t from, const char* function) {
  if (fseeko(stream, from, SEEK_SET) != 0) {
    PLOG_AS(function, LOG_ERR, "Error while reading database file, error: %s", strerror(errno));
    return false;
  }
  LineReader reader(stream, kNetCfgMaxLine + 1);
  errno = 0;
  return NetCfgReadRecords(db, reader, function);
}

}  // namespace plr
