// Strict text-to-number conversions: decimal, or hexadecimal after "0x" /
// "0X", an optional leading sign for the signed forms, no leading blanks and
// no trailing text. Out-of-range values fail.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

namespace plr {

bool StrToInt32(const char* text, int32_t* out);
bool StrToUint32(const char* text, uint32_t* out);

// Equal texts when ASCII letters are folded to lower case (whatever the
// locale); the journal's keywords and protocol names compare this way.
inline bool EqualsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == b[i]) continue;
    // Otherwise only the case bit may differ, and only between letters.
    const char lower = static_cast<char>(a[i] | 0x20);
    if ((a[i] ^ b[i]) != 0x20 || lower < 'a' || lower > 'z') return false;
  }
  return true;
}

// printf into a std::string.
std::string StrPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace plr
