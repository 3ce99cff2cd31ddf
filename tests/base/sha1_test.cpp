#include "base/sha1.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/random-util.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

std::string HexOf(const std::string& data, size_t chunk) {
  Sha1 sha;
  for (size_t at = 0; at < data.size(); at += chunk)
    sha.Update(data.data() + at, std::min(chunk, data.size() - at));
  return DigestHex(sha.Final());
}

std::string RandomBytes(size_t size) {
  std::string data(size, '\0');
  EXPECT_TRUE(CryptoRandom(data.data(), data.size()));
  return data;
}

TEST(Sha1, FipsVectors) {
  EXPECT_EQ(Sha1Hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(Sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Sha1Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(Sha1Hex(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, SmallAndEmptyUpdatesMatchOneShot) {
  Sha1 sha;
  const std::string a(1000, 'a');
  for (int i = 0; i < 1000; ++i) sha.Update(a.data(), a.size());
  EXPECT_EQ(DigestHex(sha.Final()), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  Sha1 pieces;
  pieces.Update(nullptr, 0);
  pieces.Update("ab", 2);
  pieces.Update(nullptr, 0);
  pieces.Update("c", 1);
  EXPECT_EQ(DigestHex(pieces.Final()), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

// Random files around the padding boundaries (a tail of 55 bytes still takes
// the length, 56 needs an extra block) and multi-block sizes, against the
// system's sha1sum; every chunking of the updates must agree.
TEST(Sha1, MatchesSha1sumOnRandomFiles) {
  const std::vector<size_t> sizes = {1,   55,  56,  57,  63,   64,   65,    119,
                                     120, 127, 128, 129, 1000, 4096, 65599, 1048577};
  for (size_t size : sizes) {
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string data = RandomBytes(size);
    test::WriteFile("/tmp/sha1-input", data);
    const std::string expected = test::Capture("sha1sum /tmp/sha1-input").substr(0, 40);
    ASSERT_EQ(expected.size(), 40u);
    EXPECT_EQ(Sha1Hex(data), expected);
    for (size_t chunk : {1, 7, 55, 63, 64, 65, 1000})
      EXPECT_EQ(HexOf(data, chunk), expected) << "chunk " << chunk;
  }
}

}  // namespace
}  // namespace plr
