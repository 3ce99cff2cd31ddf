// A table keyed by text for many small entries: open addressing over one
// dense array of entries, and every key and value text copied once into a
// chunked arena.
//
// Texts keep their address, and their terminating NUL, until the table is
// destroyed: a value replaced or an entry erased leaves its old text where it
// was, so a pointer handed out for a value stays readable, and a long-lived
// table grows by the texts of its changes (as a journal grows by its records).
// Entries move when the table changes; iteration is over the dense array, in
// insertion order except that an erase moves the last entry into the gap.
#pragma once

#include <stdint.h>
#include <string.h>

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace plr {

// 64-bit hash of a text, eight bytes at a time.
uint64_t HashText(std::string_view text);

// Append-only storage for texts; each is stored with a NUL after it.
class TextArena {
 public:
  // A copy of `text` that lives as long as the arena.
  std::string_view Store(std::string_view text);
  // Bytes taken from the system, for memory accounting.
  size_t capacity() const { return capacity_; }

 private:
  // Chunks double from 4 KiB to 64 KiB, so a small table stays small.
  static constexpr size_t kFirstChunk = 4 * 1024;
  static constexpr size_t kMaxChunk = 64 * 1024;
  std::vector<std::unique_ptr<char[]>> chunks_;
  char* next_ = nullptr;
  size_t left_ = 0;
  size_t capacity_ = 0;
};

template <class Extra>
class TextTable {
 public:
  struct Entry {
    const char* keyText;
    const char* valueText;
    uint32_t keySize;
    uint32_t valueSize;
    uint32_t hash;
    Extra extra;

    std::string_view key() const { return {keyText, keySize}; }
    std::string_view value() const { return {valueText, valueSize}; }
    // The value with its terminator, valid as long as the table.
    const char* c_value() const { return valueText; }
  };

  // The entry of `key`, or null.
  const Entry* Find(std::string_view key) const {
    const size_t slot = FindSlot(key, static_cast<uint32_t>(HashText(key)));
    return slot == kNone ? nullptr : &entries_[slots_[slot].index - 1];
  }
  Entry* Find(std::string_view key) {
    return const_cast<Entry*>(static_cast<const TextTable*>(this)->Find(key));
  }

  // Sets the value of `key`; a new entry has a value-initialised `extra`.
  // Returns the entry and whether it is new. Throws std::bad_alloc.
  std::pair<Entry*, bool> Put(std::string_view key, std::string_view value) {
    const uint32_t hash = static_cast<uint32_t>(HashText(key));
    size_t freeSlot = kNone;
    const size_t found = FindSlot(key, hash, &freeSlot);
    if (found != kNone) {
      Entry& entry = entries_[slots_[found].index - 1];
      SetValue(entry, value);
      return {&entry, false};
    }
    if ((entries_.size() + 1) * 4 > slots_.size() * 3) {
      Grow();
      freeSlot = kNone;  // the slots moved
    }
    Entry entry{};
    const std::string_view storedKey = arena_.Store(key);
    entry.keyText = storedKey.data();
    entry.keySize = static_cast<uint32_t>(storedKey.size());
    entry.hash = hash;
    SetValue(entry, value);
    entries_.push_back(entry);
    const auto index = static_cast<uint32_t>(entries_.size());
    if (freeSlot != kNone)
      slots_[freeSlot] = Slot{hash, index};
    else
      Place(hash, index);
    return {&entries_.back(), true};
  }

  // Removes `key`; false when it is absent.
  bool Erase(std::string_view key) {
    size_t slot = FindSlot(key, static_cast<uint32_t>(HashText(key)));
    if (slot == kNone) return false;
    const uint32_t index = slots_[slot].index;
    // The last entry moves into the gap; its slot follows it.
    if (index != entries_.size()) {
      const Entry& last = entries_.back();
      slots_[SlotOfIndex(last.hash, static_cast<uint32_t>(entries_.size()))].index = index;
      entries_[index - 1] = last;
    }
    entries_.pop_back();
    // Backward-shift deletion keeps every probe sequence unbroken.
    const size_t mask = slots_.size() - 1;
    for (size_t next = (slot + 1) & mask; slots_[next].index != 0; next = (next + 1) & mask) {
      const size_t home = slots_[next].hash & mask;
      if (((next - home) & mask) >= ((next - slot) & mask)) {
        slots_[slot] = slots_[next];
        slot = next;
      }
    }
    slots_[slot] = Slot{};
    return true;
  }

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const Entry* begin() const { return entries_.data(); }
  const Entry* end() const { return entries_.data() + entries_.size(); }

  // Room for `count` entries without growing.
  void Reserve(size_t count) {
    entries_.reserve(count);
    while (count * 4 > slots_.size() * 3) Grow();
  }

  // Heap bytes held, for memory accounting.
  size_t MemoryBytes() const {
    return entries_.capacity() * sizeof(Entry) + slots_.capacity() * sizeof(Slot) +
           arena_.capacity();
  }

 private:
  struct Slot {
    uint32_t hash = 0;
    uint32_t index = 0;  // entry index + 1; 0 marks a free slot
  };
  static constexpr size_t kNone = static_cast<size_t>(-1);

  void SetValue(Entry& entry, std::string_view value) {
    if (entry.valueText != nullptr && entry.value() == value) return;
    const std::string_view stored = arena_.Store(value);
    entry.valueText = stored.data();
    entry.valueSize = static_cast<uint32_t>(stored.size());
  }

  // The slot of `key`, or kNone; then `*freeSlot` (when given) is the free
  // slot where the key would go, or kNone when there are no slots.
  size_t FindSlot(std::string_view key, uint32_t hash, size_t* freeSlot = nullptr) const {
    if (slots_.empty()) return kNone;
    const size_t mask = slots_.size() - 1;
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
      const Slot& s = slots_[slot];
      if (s.index == 0) {
        if (freeSlot != nullptr) *freeSlot = slot;
        return kNone;
      }
      if (s.hash != hash) continue;
      const Entry& entry = entries_[s.index - 1];
      if (entry.keySize == key.size() && memcmp(entry.keyText, key.data(), key.size()) == 0)
        return slot;
    }
  }

  size_t SlotOfIndex(uint32_t hash, uint32_t index) const {
    const size_t mask = slots_.size() - 1;
    size_t slot = hash & mask;
    while (slots_[slot].index != index) slot = (slot + 1) & mask;
    return slot;
  }

  void Place(uint32_t hash, uint32_t index) {
    const size_t mask = slots_.size() - 1;
    size_t slot = hash & mask;
    while (slots_[slot].index != 0) slot = (slot + 1) & mask;
    slots_[slot] = Slot{hash, index};
  }

  void Grow() {
    std::vector<Slot> old(slots_.empty() ? 16 : slots_.size() * 2);
    slots_.swap(old);
    for (const Slot& s : old)
      if (s.index != 0) Place(s.hash, s.index);
  }

  std::vector<Entry> entries_;
  std::vector<Slot> slots_;  // a power of two, at most three quarters used
  TextArena arena_;
};

}  // namespace plr
