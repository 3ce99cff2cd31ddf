#include "base/str-util.h"

#include <stdarg.h>
#include <stdio.h>

namespace plr {
namespace {

int DigitValue(char c, unsigned base) {
  int v;
  if (c >= '0' && c <= '9') {
    v = c - '0';
  } else if (c >= 'a' && c <= 'f') {
    v = c - 'a' + 10;
  } else if (c >= 'A' && c <= 'F') {
    v = c - 'A' + 10;
  } else {
    return -1;
  }
  return static_cast<unsigned>(v) < base ? v : -1;
}

// Parses the unsigned magnitude of `text` (decimal, or hexadecimal after
// "0x"/"0X") up to `limit`. The whole text must be digits: no blanks, no
// trailing characters, at least one digit.
bool ParseMagnitude(const char* text, uint64_t limit, uint64_t* out) {
  unsigned base = 10;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text += 2;
  }
  if (*text == '\0') return false;
  uint64_t value = 0;
  for (; *text != '\0'; ++text) {
    int digit = DigitValue(*text, base);
    if (digit < 0) return false;
    value = value * base + static_cast<unsigned>(digit);
    if (value > limit) return false;  // limit < 2^32, so this never wraps
  }
  *out = value;
  return true;
}

}  // namespace

// Signed: an optional '+' or '-' before the digits; the magnitude of a
// negative number may reach 2^31.
bool StrToInt32(const char* text, int32_t* out) {
  if (text == nullptr) return false;
  bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  uint64_t magnitude;
  if (!ParseMagnitude(text, negative ? 0x80000000u : 0x7FFFFFFFu, &magnitude)) return false;
  *out = static_cast<int32_t>(negative ? -static_cast<int64_t>(magnitude)
                                       : static_cast<int64_t>(magnitude));
  return true;
}

// Unsigned: no sign at all, so "-1" never wraps to 4294967295.
bool StrToUint32(const char* text, uint32_t* out) {
  if (text == nullptr) return false;
  uint64_t magnitude;
  if (!ParseMagnitude(text, 0xFFFFFFFFu, &magnitude)) return false;
  *out = static_cast<uint32_t>(magnitude);
  return true;
}

// Measures first, then formats into the exact size, so no text is cut.
std::string StrPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int size = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string out;
  if (size > 0) {
    out.resize(static_cast<size_t>(size));
    vsnprintf(out.data(), out.size() + 1, format, args);
  }
  va_end(args);
  return out;
}

}  // namespace plr
