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

  // Expects the bytes that follow to repeat `text`, whose digest is
  // `digest`; called before anything is hashed. While the bytes repeat the
  // text they are only compared, which costs a fraction of hashing them, and
  // Final() of a stream that was the whole text and no more is `digest`. At
  // the first difference the repeated prefix is hashed and hashing goes on
  // as usual. `text` must outlive the hashing.
  void ExpectRepeatOf(std::string_view text, const Digest& digest);

 private:
  // Ends the expectation: hashes the prefix repeated so far.
  void StopExpecting();
  // `count` whole blocks, with the CPU's SHA instructions where it has them.
  void Blocks(const uint8_t* p, size_t count);
  void Block(const uint8_t* block);  // the portable rounds
  uint32_t h_[5];
  uint64_t length_ = 0;  // bytes hashed so far
  uint8_t buffer_[64];
  size_t used_ = 0;
  bool expecting_ = false;
  std::string_view expected_;
  size_t repeated_ = 0;  // bytes of expected_ the stream has repeated
  Digest expectedDigest_{};
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
