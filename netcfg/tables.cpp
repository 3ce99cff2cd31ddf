// Table operations and field checks shared by the replay of the journal and
// by the change functions. These touch only the cache, never the file.
#include "netcfg/tables.h"

#include <string.h>

#include "pelorus/core.h"

namespace plr {

PLRNetworkConfigurationDB* netCfgDefaultCache = nullptr;

// Resolves the cache of an operation; the one log line of a missing cache.
PLRNetworkConfigurationDB* NetCfgCacheFor(PLRNetworkConfigurationDB* db, const char* function) {
  PLRNetworkConfigurationDB* cache = NetCfgResolve(db);
  if (cache == nullptr) PLOG_AS(function, LOG_ERR, "Database cache is not loaded");
  return cache;
}

// Strict unsigned decimal: digits only, at most `max`.
bool NetCfgParseDecimal(std::string_view text, uint32_t max, uint32_t* out) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > max) return false;
  *out = static_cast<uint32_t>(value);
  return true;
}

// Copies `text` into a terminated buffer for the C checks; false when it
// does not fit or holds a NUL.
template <size_t N>
static bool CopyForCheck(std::string_view text, char (&buf)[N]) {
  if (text.size() >= N || text.find('\0') != std::string_view::npos) return false;
  memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  return true;
}

bool NetCfgIsValidPrefix(std::string_view text) {
  char buf[128];
  if (!NetCfgIsToken(text) || !CopyForCheck(text, buf)) return false;
  return PLRIsValidPrefix(buf);
}

bool NetCfgIsValidAdapterName(std::string_view name) {
  return NetCfgIsToken(name) && name.size() < kNetCfgAdapterNameSize;
}

bool NetCfgIsValidBridgeVnet(int32_t vnet) {
  return vnet == -1 || (vnet >= 0 && vnet < static_cast<int32_t>(PLR_MAX_VNETS));
}

bool NetCfgIsToken(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text)
    if (c == ' ' || c == '\n' || c == '\r' || c == '\0') return false;
  return true;
}

bool NetCfgIsLineText(std::string_view text) {
  for (char c : text)
    if (c == '\n' || c == '\r' || c == '\0') return false;
  return true;
}

const char* NetCfgProtoName(bool isTCP) {
  return isTCP ? "tcp" : "udp";
}

bool NetCfgCopyOut(std::string_view text, char* buf, size_t size) {
  if (buf == nullptr || text.size() + 1 > size) return false;
  memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  return true;
}

// --- answers -------------------------------------------------------------

NetCfgAnswerField NetCfgClassifyAnswerKey(std::string_view key) {
  NetCfgAnswerField field;
  constexpr std::string_view kPrefix = "VNET_";
  if (key.size() <= kPrefix.size() || key.substr(0, kPrefix.size()) != kPrefix) return field;
  size_t pos = kPrefix.size();
  uint32_t vnet = 0;
  size_t digits = 0;
  while (pos < key.size() && key[pos] >= '0' && key[pos] <= '9' && digits < 4) {
    vnet = vnet * 10 + static_cast<uint32_t>(key[pos] - '0');
    ++pos;
    ++digits;
  }
  if (digits == 0 || vnet >= PLR_MAX_VNETS || pos >= key.size() || key[pos] != '_') return field;
  field.vnet = static_cast<int16_t>(vnet);
  field.fieldOffset = static_cast<uint16_t>(pos + 1);
  return field;
}

bool NetCfgHashAddAnswer(PLRNetworkConfigurationDB* db, std::string_view key,
                         std::string_view value) {
  if (!db->answers) db->answers = std::make_unique<NetCfgAnswerTable>();
  auto [entry, inserted] = db->answers->Put(key, value);
  if (inserted) entry->extra = NetCfgClassifyAnswerKey(key);
  return true;
}

bool NetCfgHashRemoveAnswer(PLRNetworkConfigurationDB* db, std::string_view key) {
  return db->answers && db->answers->Erase(key);
}

// --- port forwards -------------------------------------------------------

const NATPortFwdEntry* NetCfgFindPortFwd(const PLRNetworkConfigurationDB* db, uint32_t vnet,
                                         bool isTCP, uint16_t hostPort) {
  if (vnet >= PLR_MAX_VNETS || !db->portFwds[vnet]) return nullptr;
  const NATPortFwdGroup& group = db->portFwds[vnet]->group(isTCP);
  if (!group.table) return nullptr;
  auto it = group.table->find(hostPort);
  return it == group.table->end() ? nullptr : &it->second;
}

static void DiscardArray(NATPortFwdGroup& group) {
  group.array.clear();
  group.arrayValid = false;
}

bool NetCfgHashAddPortFwd(PLRNetworkConfigurationDB* db, NATPortFwdEntry entry) {
  if (entry.vnet >= PLR_MAX_VNETS) return false;
  auto& holder = db->portFwds[entry.vnet];
  if (!holder) holder = std::make_unique<NATVnetPortFwdConfig>();
  NATPortFwdGroup& group = holder->group(entry.isTCP != 0);
  if (!group.table) group.table.emplace();
  DiscardArray(group);
  auto [it, inserted] = group.table->try_emplace(entry.hostPort, std::move(entry));
  if (!inserted) {
    PLOG(LOG_INFO2, "NAT port forward entry already exists, deleting existing entry");
    it->second = std::move(entry);  // try_emplace left it alone
  }
  return true;
}

bool NetCfgHashRemovePortFwd(PLRNetworkConfigurationDB* db, uint32_t vnet, bool isTCP,
                             uint16_t hostPort) {
  if (vnet >= PLR_MAX_VNETS || !db->portFwds[vnet]) return false;
  NATPortFwdGroup& group = db->portFwds[vnet]->group(isTCP);
  if (!group.table) return false;
  DiscardArray(group);
  return group.table->erase(hostPort) == 1;
}

// --- DHCP mappings -------------------------------------------------------

const ShortText* NetCfgFindDhcp(const PLRNetworkConfigurationDB* db, uint32_t vnet,
                                std::string_view mac) {
  if (vnet >= PLR_MAX_VNETS || !db->dhcp[vnet]) return nullptr;
  auto it = db->dhcp[vnet]->table.find(mac);
  return it == db->dhcp[vnet]->table.end() ? nullptr : &it->second;
}

bool NetCfgHashAddDhcp(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view mac,
                       std::string_view ip) {
  if (vnet >= PLR_MAX_VNETS || mac.size() != NetCfgMacKey::kSize) return false;
  auto& table = db->dhcp[vnet];
  if (!table) table = std::make_unique<DhcpVnetTable>();
  table->array.clear();
  table->arrayValid = false;
  auto [it, inserted] = table->table.try_emplace(NetCfgMacKey(mac), ip);
  if (!inserted) {
    PLOG(LOG_INFO2, "DHCP entry already exists, deleting existing entry");
    it->second.assign(ip);
  }
  return true;
}

bool NetCfgHashRemoveDhcp(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view mac) {
  if (vnet >= PLR_MAX_VNETS || !db->dhcp[vnet]) return false;
  DhcpVnetTable& table = *db->dhcp[vnet];
  auto it = table.table.find(mac);
  if (it == table.table.end()) return false;
  table.array.clear();
  table.arrayValid = false;
  table.table.erase(it);
  return true;
}

// --- bridge mappings -----------------------------------------------------

const int32_t* NetCfgFindBridge(const PLRNetworkConfigurationDB* db, std::string_view adapter) {
  const NetCfgBridgeTable::Entry* entry = db->bridges ? db->bridges->Find(adapter) : nullptr;
  return entry == nullptr ? nullptr : &entry->extra;
}

bool NetCfgHashAddBridge(PLRNetworkConfigurationDB* db, std::string_view adapter, int32_t vnet) {
  if (!db->bridges) db->bridges = std::make_unique<NetCfgBridgeTable>();
  auto [entry, inserted] = db->bridges->Put(adapter, {});
  if (!inserted) PLOG(LOG_INFO2, "Bridge mapping entry already exists, deleting existing entry");
  entry->extra = vnet;
  return true;
}

bool NetCfgHashRemoveBridge(PLRNetworkConfigurationDB* db, std::string_view adapter) {
  return db->bridges && db->bridges->Erase(adapter);
}

// --- NAT prefixes --------------------------------------------------------

bool NetCfgFindPrefix(const PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix) {
  if (vnet >= PLR_MAX_VNETS || !db->prefixes[vnet]) return false;
  return db->prefixes[vnet]->find(prefix) != db->prefixes[vnet]->end();
}

bool NetCfgHashAddPrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix) {
  if (vnet >= PLR_MAX_VNETS) return false;
  auto& table = db->prefixes[vnet];
  if (!table) table = std::make_unique<NetCfgStringSet>();
  if (table->find(prefix) != table->end()) {
    PLOG(LOG_INFO2, "Prefix entry already exists, deleting existing entry");
    return true;
  }
  table->emplace(prefix);
  return true;
}

bool NetCfgHashRemovePrefix(PLRNetworkConfigurationDB* db, uint32_t vnet, std::string_view prefix) {
  if (vnet >= PLR_MAX_VNETS || !db->prefixes[vnet]) return false;
  auto it = db->prefixes[vnet]->find(prefix);
  if (it == db->prefixes[vnet]->end()) return false;
  db->prefixes[vnet]->erase(it);
  return true;
}

// --- record builders -----------------------------------------------------

NetCfgRecord PortFwdRecord(const NATPortFwdEntry& e, bool add) {
  NetCfgRecord r;
  r.type = add ? kRecAddNatPortFwd : kRecRemoveNatPortFwd;
  r.vnet = e.vnet;
  r.isTCP = e.isTCP != 0;
  r.hostPort = e.hostPort;
  r.vmIP = e.vmIP;
  r.vmPort = e.vmPort;
  r.description = e.description;
  return r;
}

NetCfgRecord DhcpRecord(uint32_t vnet, std::string_view mac, std::string_view ip, bool add) {
  NetCfgRecord r;
  r.type = add ? kRecAddDhcpMacToIp : kRecRemoveDhcpMacToIp;
  r.vnet = vnet;
  r.mac = mac;
  r.ip = ip;
  return r;
}

NetCfgRecord BridgeRecord(std::string_view adapter, int32_t vnet, bool add) {
  NetCfgRecord r;
  r.type = add ? kRecAddBridgeMapping : kRecRemoveBridgeMapping;
  r.adapter = adapter;
  r.bridgeVnet = vnet;
  return r;
}

NetCfgRecord PrefixRecord(uint32_t vnet, std::string_view prefix, bool add) {
  NetCfgRecord r;
  r.type = add ? kRecAddNatPrefix : kRecRemoveNatPrefix;
  r.vnet = vnet;
  r.prefix = prefix;
  return r;
}

}  // namespace plr
