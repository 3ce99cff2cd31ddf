// Internals of the service-file generators shared between their sources and
// the tests: the parameter tables, the protected dhcpd.conf block and its hash.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

#include "base/sha1.h"
#include "core/log.h"

namespace plr {

// The identifier table of one parameter family (DHCP or NAT): rows indexed
// by identifier minus `base`, each with its answer key and display name.
struct ParamTable {
  const char* kind;  // "DHCP" or "NAT", as the log lines name the family
  uint32_t base;
  uint32_t size;
  const char* const* keys;
  const char* const* names;
  const char* unknownName;  // display name of identifiers outside the table
};

// Display name of `id` for log lines; the table's unknown name outside it.
const char* ParamName(const ParamTable& table, uint32_t id);

// Answer key of `id`; "" outside the table.
const char* ParamKey(const ParamTable& table, uint32_t id);

// Stores `value` unchanged as the vnet's answer of `id`; the success or
// failure line is logged under `function`.
bool StoreParam(const char* function, const ParamTable& table, uint32_t vnet, uint32_t id,
                const char* value);

// One parameter removed when a family's whole configuration goes, with the
// line logged when that fails.
struct ParamRemoval {
  uint32_t id;
  const char* failure;
};

// Removes every listed parameter with `remove`, going on after a failure;
// false when any stayed.
bool RemoveParams(const char* function, uint32_t vnet, std::span<const ParamRemoval> steps,
                  bool (*remove)(uint32_t vnet, uint32_t id));

// One parameter a configuration writer needs, defaults applied, with the
// line logged when it cannot be had.
struct ParamLookup {
  uint32_t id;
  char* buffer;
  size_t size;
  const char* failure;
};

// The family's getter (PLRDHCPGetParameter, PLRNATGetParameter).
using ParamGetter = bool (*)(uint32_t vnet, uint32_t id, bool useDefault, char* buffer,
                             size_t size);

// Reads the listed parameters in order with their defaults; stops at the
// first failure and logs its line under `function`.
bool GetParams(const char* function, uint32_t vnet, std::span<const ParamLookup> lookups,
               ParamGetter get);

// The marker lines around the generated part of dhcpd.conf, newline included.
inline constexpr std::string_view kDhcpBlockStartMarker =
    "###### KAVIX DHCP Configuration. Start of \"DO NOT MODIFY SECTION\" #####\n";
inline constexpr std::string_view kDhcpBlockEndMarker =
    "####### KAVIX DHCP Configuration. End of \"DO NOT MODIFY SECTION\" #######\n";
static_assert(kDhcpBlockStartMarker.size() == 72);
static_assert(kDhcpBlockEndMarker.size() == 73);

// Answer key (per vnet) of the protected block's hash.
inline constexpr const char* kDhcpCfgHashKey = "DHCP_CFG_HASH";

// Byte positions of the protected block in a dhcpd.conf: [start, end), end
// just after the end marker. Both 0 when there is no usable block.
struct DhcpBlockPos {
  long start = 0;
  long end = 0;
};

// Finds the protected block in `content`, scanning it the way a reader with
// a 256-byte line buffer sees it. Not found: both positions 0.
DhcpBlockPos PLRLocateKavixDHCPBlock(std::string_view content);

// The SHA-1 of bytes [start, end) of `content` as 40 upper-case hex digits,
// or an empty text (logged) when the range is not inside `content`; the
// digest itself in `*digest`.
std::string PLRCalculateHashStrForBlock(std::string_view content, long start, long end,
                                        Sha1::Digest* digest);

}  // namespace plr
