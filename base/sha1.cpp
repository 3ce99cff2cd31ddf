#include "base/sha1.h"

#include <string.h>

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

}  // namespace

Sha1::Sha1() : h_{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0} {}

// One 64-byte block through the 80 rounds; the message schedule is kept in a
// rolling 16-word window.
void Sha1::Block(const uint8_t* block) {
  uint32_t w[16];
  for (int i = 0; i < 16; ++i) w[i] = LoadBe32(block + 4 * i);
  uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4];
  for (int t = 0; t < 80; ++t) {
    if (t >= 16) {
      w[t & 15] = Rotl(w[(t - 3) & 15] ^ w[(t - 8) & 15] ^ w[(t - 14) & 15] ^ w[t & 15], 1);
    }
    uint32_t f, k;
    if (t < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999;
    } else if (t < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1;
    } else if (t < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDC;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6;
    }
    uint32_t temp = Rotl(a, 5) + f + e + k + w[t & 15];
    e = d;
    d = c;
    c = Rotl(b, 30);
    b = a;
    a = temp;
  }
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
  const auto* p = static_cast<const uint8_t*>(data);
  length_ += size;
  if (used_ > 0) {
    size_t take = size < 64 - used_ ? size : 64 - used_;
    memcpy(buffer_ + used_, p, take);
    used_ += take;
    p += take;
    size -= take;
    if (used_ < 64) return;
    Block(buffer_);
    used_ = 0;
  }
  for (; size >= 64; p += 64, size -= 64) Block(p);
  if (size > 0) memcpy(buffer_, p, size);
  used_ = size;
}

// Pads with 0x80, zeros and the 64-bit big-endian bit length; a tail of 56
// bytes or more needs one extra block for the length.
Sha1::Digest Sha1::Final() {
  const uint64_t bits = length_ * 8;
  buffer_[used_++] = 0x80;
  if (used_ > 56) {
    memset(buffer_ + used_, 0, 64 - used_);
    Block(buffer_);
    used_ = 0;
  }
  memset(buffer_ + used_, 0, 56 - used_);
  StoreBe32(static_cast<uint32_t>(bits >> 32), buffer_ + 56);
  StoreBe32(static_cast<uint32_t>(bits), buffer_ + 60);
  Block(buffer_);
  used_ = 0;
  Digest digest;
  for (int i = 0; i < 5; ++i) StoreBe32(h_[i], digest.data() + 4 * i);
  return digest;
}

std::string DigestHex(const Sha1::Digest& digest) {
  static constexpr char kHex[] = "0123456789abcdef";
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
