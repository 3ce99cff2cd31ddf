#include "base/random-util.h"

#include <errno.h>
#include <sys/random.h>

namespace plr {

// getrandom may return fewer bytes than asked (large requests, signals), so
// keep asking until the buffer is full; only a real refusal fails.
bool CryptoRandom(void* buf, size_t size) {
  auto* p = static_cast<unsigned char*>(buf);
  while (size > 0) {
    ssize_t n = getrandom(p, size, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace plr
