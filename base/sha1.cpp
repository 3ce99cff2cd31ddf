#include "base/sha1.h"

#include <string.h>

#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace plr {
namespace {

constexpr uint32_t Rotl(uint32_t x, unsigned n) {
  return (x << n) | (x >> (32 - n));
}

uint32_t LoadBe32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

void StoreBe32(uint32_t v, uint8_t* p) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

#if defined(__x86_64__)
#define PLR_SHA_TARGET __attribute__((target("sha,sse4.1")))

// One group of four rounds with the SHA instructions (rounds 4g to 4g+3):
// the message words of the group enter the round input `in`, `out` keeps
// the state for the next group's input, and the schedule of the groups
// ahead is advanced on the four message registers in turn.
template <int G>
PLR_SHA_TARGET inline void ShaGroup(__m128i& abcd, __m128i& in, __m128i& out, __m128i (&m)[4]) {
  if constexpr (G == 0)
    in = _mm_add_epi32(in, m[0]);
  else
    in = _mm_sha1nexte_epu32(in, m[G % 4]);
  out = abcd;
  if constexpr (G >= 3 && G <= 18) m[(G + 1) % 4] = _mm_sha1msg2_epu32(m[(G + 1) % 4], m[G % 4]);
  abcd = _mm_sha1rnds4_epu32(abcd, in, G / 5);
  if constexpr (G >= 1 && G <= 16) m[(G + 3) % 4] = _mm_sha1msg1_epu32(m[(G + 3) % 4], m[G % 4]);
  if constexpr (G >= 2 && G <= 17) m[(G + 2) % 4] = _mm_xor_si128(m[(G + 2) % 4], m[G % 4]);
}

template <int... G>
PLR_SHA_TARGET inline void ShaGroups(__m128i& abcd, __m128i& e0, __m128i& e1, __m128i (&m)[4],
                                     std::integer_sequence<int, G...>) {
  // Even groups take e0 and leave the state in e1, odd groups the reverse.
  ((G % 2 == 0 ? ShaGroup<G>(abcd, e0, e1, m) : ShaGroup<G>(abcd, e1, e0, m)), ...);
}

// `count` blocks with the SHA instructions.
PLR_SHA_TARGET void BlocksWithShaInstructions(uint32_t* h, const uint8_t* p, size_t count) {
  const __m128i kByteSwap = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h)), 0x1B);
  __m128i e0 = _mm_set_epi32(static_cast<int>(h[4]), 0, 0, 0);
  for (; count > 0; --count, p += 64) {
    const __m128i abcdSaved = abcd, eSaved = e0;
    __m128i m[4];
    for (int i = 0; i < 4; ++i)
      m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i)),
                              kByteSwap);
    __m128i e1;
    ShaGroups(abcd, e0, e1, m, std::make_integer_sequence<int, 20>());
    e0 = _mm_sha1nexte_epu32(e0, eSaved);
    abcd = _mm_add_epi32(abcd, abcdSaved);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(h), _mm_shuffle_epi32(abcd, 0x1B));
  h[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

bool CpuHasShaInstructions() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) || (ebx & (1u << 29)) == 0) return false;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_SSE4_1) != 0 &&
         (ecx & bit_SSSE3) != 0;
}
#else
bool CpuHasShaInstructions() {
  return false;
}
#endif

bool useShaInstructions = CpuHasShaInstructions();

}  // namespace

void Sha1UseCpuInstructions(bool use) {
  useShaInstructions = use && CpuHasShaInstructions();
}

Sha1::Sha1() : h_{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0} {}

// One 64-byte block through the 80 rounds, written out so that each round
// has its own function and constant and the message schedule (a rolling
// 16-word window) stays in registers. A round adds into `e` and rotates `b`;
// the next round takes the five words renamed by one place, so nothing moves.
void Sha1::Blocks(const uint8_t* p, size_t count) {
#if defined(__x86_64__)
  if (useShaInstructions) return BlocksWithShaInstructions(h_, p, count);
#endif
  for (; count > 0; --count, p += 64) Block(p);
}

void Sha1::Block(const uint8_t* block) {
  uint32_t w[16];
  for (int i = 0; i < 16; ++i) w[i] = LoadBe32(block + 4 * i);
  uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4];
#define PLR_SHA1_W(t) \
  (w[(t)&15] = Rotl(w[((t) + 13) & 15] ^ w[((t) + 8) & 15] ^ w[((t) + 2) & 15] ^ w[(t)&15], 1))
#define PLR_SHA1_CH(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define PLR_SHA1_PARITY(x, y, z) ((x) ^ (y) ^ (z))
#define PLR_SHA1_MAJ(x, y, z) (((x) & (y)) | ((z) & ((x) | (y))))
#define PLR_SHA1_ROUND(F, k, x, a, b, c, d, e) \
  e += Rotl(a, 5) + F(b, c, d) + (k) + (x);    \
  b = Rotl(b, 30);
#define PLR_SHA1_FIVE(F, k, x0, x1, x2, x3, x4) \
  PLR_SHA1_ROUND(F, k, x0, a, b, c, d, e)       \
  PLR_SHA1_ROUND(F, k, x1, e, a, b, c, d)       \
  PLR_SHA1_ROUND(F, k, x2, d, e, a, b, c)       \
  PLR_SHA1_ROUND(F, k, x3, c, d, e, a, b)       \
  PLR_SHA1_ROUND(F, k, x4, b, c, d, e, a)
  PLR_SHA1_FIVE(PLR_SHA1_CH, 0x5A827999u, w[0], w[1], w[2], w[3], w[4])
  PLR_SHA1_FIVE(PLR_SHA1_CH, 0x5A827999u, w[5], w[6], w[7], w[8], w[9])
  PLR_SHA1_FIVE(PLR_SHA1_CH, 0x5A827999u, w[10], w[11], w[12], w[13], w[14])
  PLR_SHA1_FIVE(PLR_SHA1_CH, 0x5A827999u, w[15], PLR_SHA1_W(16), PLR_SHA1_W(17), PLR_SHA1_W(18),
                PLR_SHA1_W(19))
#define PLR_SHA1_FIVE_AT(F, k, t)                                                             \
  PLR_SHA1_FIVE(F, k, PLR_SHA1_W(t), PLR_SHA1_W(t + 1), PLR_SHA1_W(t + 2), PLR_SHA1_W(t + 3), \
                PLR_SHA1_W(t + 4))
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0x6ED9EBA1u, 20)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0x6ED9EBA1u, 25)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0x6ED9EBA1u, 30)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0x6ED9EBA1u, 35)
  PLR_SHA1_FIVE_AT(PLR_SHA1_MAJ, 0x8F1BBCDCu, 40)
  PLR_SHA1_FIVE_AT(PLR_SHA1_MAJ, 0x8F1BBCDCu, 45)
  PLR_SHA1_FIVE_AT(PLR_SHA1_MAJ, 0x8F1BBCDCu, 50)
  PLR_SHA1_FIVE_AT(PLR_SHA1_MAJ, 0x8F1BBCDCu, 55)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0xCA62C1D6u, 60)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0xCA62C1D6u, 65)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0xCA62C1D6u, 70)
  PLR_SHA1_FIVE_AT(PLR_SHA1_PARITY, 0xCA62C1D6u, 75)
#undef PLR_SHA1_FIVE_AT
#undef PLR_SHA1_FIVE
#undef PLR_SHA1_ROUND
#undef PLR_SHA1_MAJ
#undef PLR_SHA1_PARITY
#undef PLR_SHA1_CH
#undef PLR_SHA1_W
  h_[0] += a;
  h_[1] += b;
  h_[2] += c;
  h_[3] += d;
  h_[4] += e;
}

// Fills the pending block first, then hashes whole blocks straight from the
// caller's data, keeping only the tail.
void Sha1::Update(const void* data, size_t size) {
  if (size == 0) return;  // data may be null then
  if (expecting_) {
    if (size <= expected_.size() - repeated_ &&
        memcmp(expected_.data() + repeated_, data, size) == 0) {
      repeated_ += size;
      return;
    }
    StopExpecting();
  }
  const auto* p = static_cast<const uint8_t*>(data);
  length_ += size;
  if (used_ > 0) {
    size_t take = size < 64 - used_ ? size : 64 - used_;
    memcpy(buffer_ + used_, p, take);
    used_ += take;
    p += take;
    size -= take;
    if (used_ < 64) return;
    Blocks(buffer_, 1);
    used_ = 0;
  }
  Blocks(p, size / 64);
  p += size / 64 * 64;
  size %= 64;
  if (size > 0) memcpy(buffer_, p, size);
  used_ = size;
}

// Pads with 0x80, zeros and the 64-bit big-endian bit length; a tail of 56
// bytes or more needs one extra block for the length.
Sha1::Digest Sha1::Final() {
  if (expecting_) {
    if (repeated_ == expected_.size()) return expectedDigest_;
    StopExpecting();
  }
  const uint64_t bits = length_ * 8;
  buffer_[used_++] = 0x80;
  if (used_ > 56) {
    memset(buffer_ + used_, 0, 64 - used_);
    Blocks(buffer_, 1);
    used_ = 0;
  }
  memset(buffer_ + used_, 0, 56 - used_);
  StoreBe32(static_cast<uint32_t>(bits >> 32), buffer_ + 56);
  StoreBe32(static_cast<uint32_t>(bits), buffer_ + 60);
  Blocks(buffer_, 1);
  used_ = 0;
  Digest digest;
  for (int i = 0; i < 5; ++i) StoreBe32(h_[i], digest.data() + 4 * i);
  return digest;
}

void Sha1::ExpectRepeatOf(std::string_view text, const Digest& digest) {
  expecting_ = true;
  expected_ = text;
  repeated_ = 0;
  expectedDigest_ = digest;
}

void Sha1::StopExpecting() {
  expecting_ = false;
  Update(expected_.data(), repeated_);
}

std::string DigestHex(const Sha1::Digest& digest, HexCase letters) {
  const char* kHex = letters == HexCase::kUpper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  out.reserve(2 * digest.size());
  for (uint8_t byte : digest) {
    out += kHex[byte >> 4];
    out += kHex[byte & 15];
  }
  return out;
}

std::string Sha1Hex(std::string_view data) {
  Sha1 sha;
  sha.Update(data.data(), data.size());
  return DigestHex(sha.Final());
}

}  // namespace plr
