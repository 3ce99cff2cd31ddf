// IPv4 address and mask, MAC address and IPv6 prefix checks. Their
// strictness is deliberate and decides what the library accepts from callers:
// fixed scan patterns with a trailing-character probe, at least eight hosts
// per subnet mask, prefixes of 32 to 96 bits.
#include "core/address.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <string>

#include "base/str-util.h"
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

// The one scan of dotted IPv4 text: the number of conversions (4 when the
// text is exactly four numbers) and the numbers, not yet range-checked.
int ScanIPv4(const char* text, unsigned (&v)[4]) {
  char trailing = 0;
  return sscanf(text, "%3u.%3u.%3u.%3u%c", &v[0], &v[1], &v[2], &v[3], &trailing);
}

// 1 for the bytes that are hexadecimal digits.
constexpr auto kHexDigit = [] {
  std::array<uint8_t, 256> table{};
  for (unsigned c = 0; c < 256; ++c)
    table[c] = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  return table;
}();

// Six pairs of hexadecimal digits with a colon between pairs, 17 bytes.
bool HasStandardMACShape(std::string_view text) {
  if (text.size() != 17) return false;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  unsigned shaped = 1;
  for (size_t i = 0; i < 17; i += 3) shaped &= kHexDigit[p[i]] & kHexDigit[p[i + 1]];
  for (size_t i = 2; i < 17; i += 3) shaped &= p[i] == ':';
  return shaped != 0;
}

// Text with anything besides digits and dots, checked by the scan itself
// (which allows leading blanks and signs, and nothing after the fourth number).
bool IsValidIPTextByScan(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return false;
  const std::string copy(text);
  unsigned v[4] = {};
  return ScanIPv4(copy.c_str(), v) == 4 && v[0] <= 255 && v[1] <= 255 && v[2] <= 255 && v[3] <= 255;
}

}  // namespace

// Digits and dots need no scanner: four groups of one to three digits, each
// at most 255, nothing after the fourth, which is what the scan accepts on
// such text. Anything else (signs, blanks) goes through the scan itself.
// Text of 7 to 15 bytes (the lengths four groups can have) is classified a
// word at a time: masks of its dots and digits, then the groups between.
bool IsValidIPText(std::string_view text) {
  const size_t size = text.size();
  if (size < 7 || size > 15)  // no four groups; only the scan may still accept it
    return text.find_first_not_of("0123456789.") != std::string_view::npos &&
           IsValidIPTextByScan(text);
  uint32_t dots, digits;
  if (size >= 8) {  // two words, the second ending with the text
    const uint64_t head = LoadWord(text.data()), tail = LoadWord(text.data() + size - 8);
    dots = ByteMask(WordBytesEqual(head, '.')) | ByteMask(WordBytesEqual(tail, '.')) << (size - 8);
    digits = ByteMask(WordDigits(head)) | ByteMask(WordDigits(tail)) << (size - 8);
  } else {
    char word[8] = {};
    memcpy(word, text.data(), 7);
    const uint64_t head = LoadWord(word);
    dots = ByteMask(WordBytesEqual(head, '.'));
    digits = ByteMask(WordDigits(head));
  }
  const uint32_t all = (1u << size) - 1;
  if ((dots | digits) != all) return IsValidIPTextByScan(text);
  // Exactly three dots: two taken away leave one.
  const uint32_t second = dots & (dots - 1);
  const uint32_t third = second & (second - 1);
  if (third == 0 || (third & (third - 1)) != 0) return false;
  bool valid = true;
  size_t start = 0;
  for (int group = 0; group < 4; ++group) {
    const size_t end = group < 3 ? static_cast<size_t>(__builtin_ctz(dots)) : size;
    dots &= dots - 1;
    const size_t length = end - start;  // wraps when the group is empty
    if (length == 3)
      valid &=
          (text[start] - '0') * 100 + (text[start + 1] - '0') * 10 + (text[start + 2] - '0') <= 255;
    else
      valid &= length - 1 < 2;
    start = end + 1;
  }
  return valid;
}

// Text already in the standard shape (17 characters, pairs of hex digits
// between colons) differs from its standard form at most in letter case;
// every other form goes through PLRMACStandardizeFormat.
bool StandardizeMACText(std::string_view text, char out[18]) {
  if (HasStandardMACShape(text)) {
    // Only digits, colons and letters a-f/A-F are here; the lower-case
    // letters are the only bytes from 'a' up.
    for (size_t i = 0; i < 17; ++i)
      out[i] = static_cast<char>(text[i] >= 'a' ? text[i] - ('a' - 'A') : text[i]);
    out[17] = '\0';
    return true;
  }
  if (text.empty() || text.size() >= 32 || text.find('\0') != std::string_view::npos) return false;
  const std::string copy(text);
  return PLRMACStandardizeFormat(copy.c_str(), out);
}

bool IsValidIPv6PrefixText(const char* text) {
  const char* slash = strchr(text, '/');
  if (slash == nullptr || static_cast<size_t>(slash - text) >= INET6_ADDRSTRLEN) return false;
  char address[INET6_ADDRSTRLEN];
  memcpy(address, text, static_cast<size_t>(slash - text));
  address[slash - text] = '\0';
  struct in6_addr parsed;
  if (inet_pton(AF_INET6, address, &parsed) != 1) return false;
  const char* length = slash + 1;
  if (*length == '\0' || strlen(length) > 3 || strspn(length, "0123456789") != strlen(length))
    return false;
  return PLRIsValidPrefix(text);
}

bool IsValidDomainName(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    text = text.substr(1, text.size() - 2);
  if (text.empty() || text.size() > 253) return false;
  if (text.back() == '.') text.remove_suffix(1);
  size_t label = 0;
  for (char c : text) {
    if (c == '.') {
      if (label == 0) return false;
      label = 0;
      continue;
    }
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_';
    if (!ok || ++label > 63) return false;
  }
  return label != 0;
}

}  // namespace plr

extern "C" {

// Parses dotted IPv4 text into a host-order integer, first octet most
// significant. Exactly four numbers of at most three digits each, every one
// below 256, and nothing after the fourth. `*out` is written only on success.
bool PLRIPStr2Int(const char* text, uint32_t* out) {
  unsigned v[4] = {};
  if (text == nullptr || plr::ScanIPv4(text, v) != 4) {
    PLOG(LOG_ERR, "sscanf failed");
    return false;
  }
  if (v[0] > 255 || v[1] > 255 || v[2] > 255 || v[3] > 255) {
    PLOG(LOG_ERR, "Invalid values: %u, %u, %u, %u", v[0], v[1], v[2], v[3]);
    return false;
  }
  if (out != nullptr) *out = v[0] << 24 | v[1] << 16 | v[2] << 8 | v[3];
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
