// Strict text-to-number conversions: decimal, or hexadecimal after "0x" /
// "0X", an optional leading sign for the signed forms, no leading blanks and
// no trailing text. Out-of-range values fail.
#pragma once

#include <stdint.h>
#include <string.h>

#include <bit>
#include <string>
#include <string_view>

namespace plr {

bool StrToInt32(const char* text, int32_t* out);
bool StrToUint32(const char* text, uint32_t* out);

// Equal texts when ASCII letters are folded to lower case (whatever the
// locale); the journal's keywords and protocol names compare this way.
inline bool EqualsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a == b) return true;  // the usual case, one comparison of the bytes
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == b[i]) continue;
    // Otherwise only the case bit may differ, and only between letters.
    const char lower = static_cast<char>(a[i] | 0x20);
    if ((a[i] ^ b[i]) != 0x20 || lower < 'a' || lower > 'z') return false;
  }
  return true;
}

// Writes `value` in decimal at `out`, which has room for 10 characters, and
// returns the end: the integer formatter of the journal and the generated
// files, inline because they call it once or twice per line.
inline char* FormatDecimal(char* out, uint32_t value) {
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  unsigned digits = 1;
  for (uint32_t bound = 10; digits < 10 && value >= bound; bound *= 10) ++digits;
  char* end = out + digits;
  char* p = end;
  while (value >= 100) {
    const unsigned pair = (value % 100) * 2;
    value /= 100;
    *--p = kPairs[pair + 1];
    *--p = kPairs[pair];
  }
  if (value >= 10) {
    *--p = kPairs[value * 2 + 1];
    *--p = kPairs[value * 2];
  } else {
    *--p = static_cast<char>('0' + value);
  }
  return end;
}

// Eight bytes of text at a time in one register: `LoadWord` reads them in
// text order (byte i of the text is byte i of the word, counted from the
// low end), the tests mark each byte that passes with its 0x80 bit, exactly
// (no false marks), and `ByteMask` turns the marks into bit i for byte i.
inline constexpr uint64_t kWordOnes = 0x0101010101010101u;
inline uint64_t LoadWord(const char* text) {
  uint64_t word;
  memcpy(&word, text, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}
inline uint64_t WordBytesEqual(uint64_t word, unsigned char byte) {
  const uint64_t x = word ^ (kWordOnes * byte);  // zero where the byte is
  return ~(((x & (kWordOnes * 0x7f)) + kWordOnes * 0x7f) | x) & (kWordOnes * 0x80);
}
inline uint64_t WordDigits(uint64_t word) {
  const uint64_t low = word & (kWordOnes * 0x7f);  // no carry leaves a byte below
  return (low + kWordOnes * (0x80 - '0')) & ~(low + kWordOnes * (0x80 - '9' - 1)) & ~word &
         (kWordOnes * 0x80);
}
inline uint32_t ByteMask(uint64_t marks) {
  return static_cast<uint32_t>(((marks >> 7) * 0x0102040810204080u) >> 56);
}

// printf into a std::string.
std::string StrPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace plr
