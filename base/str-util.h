// Strict text-to-number conversions: decimal, or hexadecimal after "0x" /
// "0X", an optional leading sign for the signed forms, no leading blanks and
// no trailing text. Out-of-range values fail.
#pragma once

#include <stdint.h>

#include <string>

namespace plr {

bool StrToInt32(const char* text, int32_t* out);
bool StrToUint32(const char* text, uint32_t* out);

// printf into a std::string.
std::string StrPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace plr
