#include "base/text-table.h"

#include <algorithm>

namespace plr {
namespace {

uint64_t Mix(uint64_t h, uint64_t word) {
  h = (h ^ word) * 0xbf58476d1ce4e5b9ULL;
  return h ^ (h >> 31);
}

}  // namespace

// Whole words first, then the tail bytes as one word; the length seeds the
// hash so that texts differing only in trailing NULs differ.
uint64_t HashText(std::string_view text) {
  const char* p = text.data();
  size_t left = text.size();
  uint64_t h = 0x9e3779b97f4a7c15ULL ^ left;
  for (; left >= 8; p += 8, left -= 8) {
    uint64_t word;
    memcpy(&word, p, 8);
    h = Mix(h, word);
  }
  if (left > 0) {
    uint64_t word = 0;
    memcpy(&word, p, left);
    h = Mix(h, word);
  }
  h *= 0x94d049bb133111ebULL;
  return h ^ (h >> 32);
}

// Texts go into the current chunk; one that does not fit starts a new chunk,
// twice the last up to the largest (a longer text gets one of its own size).
std::string_view TextArena::Store(std::string_view text) {
  const size_t need = text.size() + 1;
  if (need > left_) {
    const size_t next = capacity_ == 0 ? kFirstChunk : std::min(kMaxChunk, capacity_);
    const size_t size = std::max(next, need);
    chunks_.emplace_back(new char[size]);  // not zeroed: every byte handed out is written
    next_ = chunks_.back().get();
    left_ = size;
    capacity_ += size;
  }
  char* stored = next_;
  if (!text.empty()) memcpy(stored, text.data(), text.size());
  stored[text.size()] = '\0';
  next_ += need;
  left_ -= need;
  return {stored, text.size()};
}

}  // namespace plr
