#include "api/api-util.h"

#include <string.h>

#include "pelorus/api.h"
#include "pelorus/vnet.h"

namespace plr::api {

bool VnetNumber(const char* function, const char* name, uint32_t* vnet) {
  *vnet = PLRConvVnetNameToNum(name);
  if (*vnet < PLR_MAX_VNETS) return true;
  PLOG_AS(function, LOG_ERR, "Invalid vnet name: %s", name);
  return false;
}

bool VnetArg(const Api& c, const char* name, uint32_t* vnet, NameWording wording) {
  if (name != nullptr) return VnetNumber(c.function(), name, vnet);
  if (wording == NameWording::kKavix) return c.Fail("Invalid argument - kavix: %p", name);
  return c.Fail("Invalid argument - vnet: %p", name);
}

OwnedText CopyBytes(const char* bytes, uint32_t length) {
  OwnedText copy(static_cast<char*>(malloc(static_cast<size_t>(length) + 1)));
  if (!copy) return copy;
  memcpy(copy.get(), bytes, length);
  copy.get()[length] = '\0';
  return copy;
}

bool TakeDescription(const char* function, const char* bytes, uint32_t length, OwnedText* out) {
  out->reset();
  if (bytes == nullptr) return true;
  if (length > PLR_DESCRIPTION_MAX_LEN) {
    PLOG_AS(function, LOG_ERR, "Description is too long, allowed is: %u bytes",
            PLR_DESCRIPTION_MAX_LEN + 1);
    return false;
  }
  if (length == 0) {
    PLOG_AS(function, LOG_INFO2, "Using a NULL description since, length is 0");
    return true;
  }
  *out = CopyBytes(bytes, length);
  if (*out) return true;
  PLOG_AS(function, LOG_ERR, "Error in memory allocation for NAT port forward description");
  return false;
}

uint32_t TextLen(const char* buffer, uint32_t size) {
  return static_cast<uint32_t>(strnlen(buffer, size));
}

}  // namespace plr::api
