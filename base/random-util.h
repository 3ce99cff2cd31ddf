// Cryptographically strong random bytes from the kernel (getrandom).
#pragma once

#include <stddef.h>

namespace plr {

// Fills `buf` completely; false with errno set when the kernel refuses.
bool CryptoRandom(void* buf, size_t size);

}  // namespace plr
