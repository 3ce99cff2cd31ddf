// A text for the entries of large tables (an address, a description): up
// to 15 bytes are kept in the object's own 16, a longer text (below 4 GiB)
// on the heap, so an entry costs half what a std::string costs there. The
// text is always followed by a NUL.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string_view>
#include <utility>

namespace plr {

class ShortText {
 public:
  ShortText() { SetInline({}); }
  // Throws std::bad_alloc for a long text.
  explicit ShortText(std::string_view text) { Set(text); }
  ShortText(const ShortText& other) : ShortText(other.view()) {}
  ShortText(ShortText&& other) noexcept { TakeFrom(other); }
  ShortText& operator=(const ShortText& other) {
    assign(other.view());  // a copy first, so assigning a text to itself is safe
    return *this;
  }
  ShortText& operator=(ShortText&& other) noexcept {
    if (this != &other) {
      FreeHeap();
      TakeFrom(other);
    }
    return *this;
  }
  ~ShortText() { FreeHeap(); }

  // Replaces the text; on std::bad_alloc the old text stays.
  void assign(std::string_view text) { *this = ShortText(text); }

  bool onHeap() const { return static_cast<uint8_t>(bytes_[kLast]) == kOnHeap; }
  size_t size() const {
    if (!onHeap()) return kInline - static_cast<uint8_t>(bytes_[kLast]);
    uint32_t size;
    memcpy(&size, bytes_ + sizeof(char*), sizeof size);
    return size;
  }
  bool empty() const { return size() == 0; }
  const char* c_str() const {
    if (!onHeap()) return bytes_;
    const char* heap;
    memcpy(&heap, bytes_, sizeof heap);
    return heap;
  }
  std::string_view view() const { return {c_str(), size()}; }
  operator std::string_view() const { return view(); }  // NOLINT: reads as the text it is

  friend bool operator==(const ShortText& a, std::string_view b) { return a.view() == b; }
  friend bool operator==(const ShortText& a, const ShortText& b) { return a.view() == b.view(); }

 private:
  static constexpr size_t kInline = 15;
  static constexpr size_t kLast = 15;
  static constexpr uint8_t kOnHeap = 0x80;

  // Inline: the text, NULs after it, and in the last byte 15 minus its
  // size, so that a text of 15 bytes is ended by that byte's 0. On the
  // heap: the pointer, the 32-bit size and kOnHeap in the last byte.
  void SetInline(std::string_view text) {
    memset(bytes_, 0, sizeof bytes_);
    if (!text.empty()) memcpy(bytes_, text.data(), text.size());  // an empty view may hold null
    bytes_[kLast] = static_cast<char>(kInline - text.size());
  }
  void Set(std::string_view text) {
    if (text.size() <= kInline) {
      SetInline(text);
      return;
    }
    char* heap = new char[text.size() + 1];
    memcpy(heap, text.data(), text.size());
    heap[text.size()] = '\0';
    const auto size = static_cast<uint32_t>(text.size());
    memcpy(bytes_, &heap, sizeof heap);
    memcpy(bytes_ + sizeof heap, &size, sizeof size);
    bytes_[kLast] = static_cast<char>(kOnHeap);
  }
  // Takes over the text of `other`, which is left empty.
  void TakeFrom(ShortText& other) {
    memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.SetInline({});
  }
  void FreeHeap() {
    if (onHeap()) delete[] c_str();
  }

  char bytes_[16];
};
static_assert(sizeof(ShortText) == 16);

}  // namespace plr
