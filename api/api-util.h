// Small steps shared by the exported per-vnet functions: the vnet name check
// and copying caller bytes that come with a length and need not be
// NUL-terminated. The call itself (frame, lock, outcome) is plr::ApiCall.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <memory>

#include "core/frame.h"

namespace plr::api {

// Converts `name` to its vnet number. A result above 255 is logged under
// `function` as "Invalid vnet name: %s" and refused.
bool VnetNumber(const char* function, const char* name, uint32_t* vnet);

// How a missing vnet name is refused: "Invalid argument - vnet: %p" or
// "Invalid argument - kavix: %p".
enum class NameWording { kVnet, kKavix };

// The vnet name argument of call `c`: refused when NULL, then converted by
// VnetNumber.
bool VnetArg(const Api& c, const char* name, uint32_t* vnet,
             NameWording wording = NameWording::kVnet);

struct FreeText {
  void operator()(char* text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

// A NUL-terminated heap copy of exactly `length` bytes (which need not hold a
// NUL); empty on allocation failure.
OwnedText CopyBytes(const char* bytes, uint32_t length);

// The rule for the optional description of NAT prefixes and port forwards:
// no pointer means no description; a length above 127 is refused; a length
// of 0 drops the description; otherwise `*out` receives a terminated copy.
// Failures are logged under `function`; true means go ahead.
bool TakeDescription(const char* function, const char* bytes, uint32_t length, OwnedText* out);

// Precision for printing caller bytes of a given length with "%.*s": never
// negative, so the print never runs past the length.
inline int PrintLen(uint32_t length) {
  return length > INT32_MAX ? INT32_MAX : static_cast<int>(length);
}

// The verb of a set-or-remove outcome line: "removed"/"set" after success,
// "removing"/"setting" after failure.
inline const char* SetVerb(bool ok, bool remove) {
  if (ok) return remove ? "removed" : "set";
  return remove ? "removing" : "setting";
}

// Length of the text a lower layer left in a buffer of `size` bytes.
uint32_t TextLen(const char* buffer, uint32_t size);

}  // namespace plr::api
