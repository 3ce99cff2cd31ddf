// Internals of the service-file generators shared between their sources and
// the tests: the protected dhcpd.conf block, its hash, and the trace lines.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "core/log.h"

namespace plr {

// Writes " Entering Function" when constructed and " Exiting Function" when
// the scope ends, so every return path of a service function is traced.
class FunctionTrace {
 public:
  FunctionTrace(const char* function, int line) : function_(function), line_(line) {
    PLOG_AS(function_, LOG_INFO2, " Entering Function, %s:%d", function_, line_);
  }
  FunctionTrace(const FunctionTrace&) = delete;
  FunctionTrace& operator=(const FunctionTrace&) = delete;
  ~FunctionTrace() { PLOG_AS(function_, LOG_INFO2, " Exiting Function, %s:%d", function_, line_); }

 private:
  const char* function_;
  int line_;
};

#define PLR_TRACE_FUNCTION() ::plr::FunctionTrace plrFunctionTrace_(__func__, __LINE__)

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
// or an empty text (logged) when the range is not inside `content`.
std::string PLRCalculateHashStrForBlock(std::string_view content, long start, long end);

}  // namespace plr
