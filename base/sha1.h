// SHA-1 (FIPS 180-4) over byte streams.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <string>
#include <string_view>

namespace plr {

class Sha1 {
 public:
  using Digest = std::array<uint8_t, 20>;
  Sha1();
  void Update(const void* data, size_t size);
  Digest Final();  // the object must not be updated afterwards

 private:
  // `count` whole blocks, with the CPU's SHA instructions where it has them.
  void Blocks(const uint8_t* p, size_t count);
  void Block(const uint8_t* block);  // the portable rounds
  uint32_t h_[5];
  uint64_t length_ = 0;  // bytes hashed so far
  uint8_t buffer_[64];
  size_t used_ = 0;
};

// Whether hashing uses the CPU's SHA instructions where it has them (the
// default); tests switch them off to check the portable rounds too.
void Sha1UseCpuInstructions(bool use);

enum class HexCase { kLower, kUpper };

// The digest of `data` as 40 lower-case hexadecimal characters.
std::string Sha1Hex(std::string_view data);
// A digest as 40 hexadecimal characters of the given case.
std::string DigestHex(const Sha1::Digest& digest, HexCase letters = HexCase::kLower);

}  // namespace plr
