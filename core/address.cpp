// IPv4 address and mask, MAC address and IPv6 prefix checks. Their
// strictness is deliberate and decides what the library accepts from callers:
// fixed scan patterns with a trailing-character probe, at least eight hosts
// per subnet mask, prefixes of 32 to 96 bits.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"
#include "pelorus/core.h"
#include "pelorus/vnet.h"

namespace plr {
namespace {

// Dotted IPv4 text is at most 15 characters; every buffer holds 16 bytes.
constexpr size_t kIPTextSize = 16;
// A MAC in standard form is 17 characters; every buffer holds 18 bytes.
constexpr size_t kMACTextSize = 18;
// The narrowest accepted mask leaves room for eight hosts.
constexpr uint32_t kNarrowestMask = 0xFFFFFFF8u;
constexpr long kMinPrefixLength = 32;
constexpr long kMaxPrefixLength = 96;

}  // namespace
}  // namespace plr

extern "C" {

// Parses dotted IPv4 text into a host-order integer, first octet most
// significant. Exactly four numbers of at most three digits each, every one
// below 256, and nothing after the fourth. `*out` is written only on success.
bool PLRIPStr2Int(const char* text, uint32_t* out) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  char trailing = 0;
  if (text == nullptr || sscanf(text, "%3u.%3u.%3u.%3u%c", &a, &b, &c, &d, &trailing) != 4) {
    PLOG(LOG_ERR, "sscanf failed");
    return false;
  }
  if (a > 255 || b > 255 || c > 255 || d > 255) {
    PLOG(LOG_ERR, "Invalid values: %u, %u, %u, %u", a, b, c, d);
    return false;
  }
  if (out != nullptr) *out = a << 24 | b << 16 | c << 8 | d;
  return true;
}

// Writes the dotted text of a host-order address into a 16-byte buffer.
bool PLRIPInt2Str(uint32_t ip, char* buf) {
  snprintf(buf, plr::kIPTextSize, "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 0xFF, (ip >> 8) & 0xFF,
           ip & 0xFF);
  return true;
}

// True for text that PLRIPStr2Int accepts.
bool PLRIsValidIP(const char* text) {
  uint32_t scratch;
  return PLRIPStr2Int(text, &scratch);
}

// Accepts a mask that leaves room for at least eight hosts and whose set bits
// form one contiguous run. The run need not start at the top bit: 0.0.255.255
// passes, by design of the callers that store such masks.
bool PLRIsValidSubnetMask(const char* text) {
  uint32_t mask = 0;
  if (!PLRIPStr2Int(text, &mask)) {
    PLOG(LOG_ERR, "Could not convert mask to integer: %s", text != nullptr ? text : "null");
    return false;
  }
  if (mask == 0 || mask > plr::kNarrowestMask) {
    PLOG(LOG_ERR, "The subnet is too small, we need at least 8 hosts");
    return false;
  }
  uint32_t run = mask;
  for (int shifts = 0; shifts < 32 && (run & 1u) == 0; ++shifts) run >>= 1;
  if (((run + 1u) & run) != 0) {
    PLOG(LOG_ERR, "Mask is not a contiguous string of 1s: %x", run);
    return false;
  }
  return true;
}

// Rewrites a colon-separated MAC (one or two hex digits per group, either
// case) into the standard form "00:1A:02:03:04:05" in an 18-byte buffer.
// A group that scans to a value above 0xFF (a sign slipped into the group)
// fails like a scan failure, so the output is always a well-formed MAC.
bool PLRMACStandardizeFormat(const char* text, char* out) {
  unsigned g[6] = {};
  char trailing = 0;
  int scanned = text == nullptr ? 0
                                : sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &g[0], &g[1], &g[2],
                                         &g[3], &g[4], &g[5], &trailing);
  bool inRange = true;
  for (unsigned group : g) inRange = inRange && group <= 0xFF;
  if (scanned != 6 || !inRange) {
    PLOG(LOG_ERR, "sscanf failed, scanned %d elements", scanned);
    return false;
  }
  return snprintf(out, plr::kMACTextSize, "%.2X:%.2X:%.2X:%.2X:%.2X:%.2X", g[0], g[1], g[2], g[3],
                  g[4], g[5]) > 0;
}

// True for text that PLRMACStandardizeFormat accepts.
bool PLRIsValidMACAddr(const char* text) {
  char scratch[plr::kMACTextSize];
  return PLRMACStandardizeFormat(text, scratch);
}

// True when `ip` lies in the vnet's host-only subnet: (ip AND mask) equals the
// stored subnet exactly, so a stored subnet with host bits set never matches.
// Unparsable text counts as 0.0.0.0, as the callers expect.
bool PLRIPBelongsToSubnet(uint32_t vnet, const char* ip) {
  char subnetText[plr::kIPTextSize];
  char maskText[plr::kIPTextSize];
  if (!PLRGetVnetSubnetAddr(vnet, subnetText, sizeof subnetText) ||
      !PLRGetVnetSubnetMask(vnet, maskText, sizeof maskText)) {
    PLOG(LOG_ERR, "Getting subnet address failed");
    return false;
  }
  uint32_t subnet = 0, mask = 0, address = 0;
  PLRIPStr2Int(subnetText, &subnet);
  PLRIPStr2Int(maskText, &mask);
  PLRIPStr2Int(ip, &address);
  return (address & mask) == subnet;
}

// Accepts "address/length" with a length of 32 to 96 bits. Text after the
// length and the address part itself are not checked here.
bool PLRIsValidPrefix(const char* text) {
  const char* slash = text != nullptr ? strchr(text, '/') : nullptr;
  if (slash == nullptr) return false;
  long length = strtol(slash + 1, nullptr, 10);
  if (length < plr::kMinPrefixLength || length > plr::kMaxPrefixLength) {
    PLOG(LOG_ERR, "Non valid prefix");
    return false;
  }
  return true;
}

// True when two prefixes (network-order bytes, lengths in bits) have the same
// length and agree on that many leading bits.
bool PLRIsPrefixMatch(const uint8_t* a, uint32_t aLen, const uint8_t* b, uint32_t bLen) {
  bool match = aLen == bLen;
  uint32_t wholeBytes = aLen / 8;
  uint32_t restBits = aLen % 8;
  if (match && wholeBytes > 0) match = memcmp(a, b, wholeBytes) == 0;
  if (match && restBits != 0) {
    // Arithmetic shift of the signed byte keeps only its top `restBits` bits.
    int shift = static_cast<int>(8 - restBits);
    match = (static_cast<int8_t>(a[wholeBytes]) >> shift) ==
            (static_cast<int8_t>(b[wholeBytes]) >> shift);
  }
  if (!match) PLOG(LOG_ERR, "Prefix not match");
  return match;
}

}  // extern "C"
