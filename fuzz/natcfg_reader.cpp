// Feeds arbitrary bytes to the nat.conf reader as the file it reads. Every
// listing must end, every returned text must be a proper allocation, and
// every key listed in a section must also be found by a lookup there.
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kPath = "/tmp/fuzz-nat.conf";
// Bounds the work per input; a listing longer than the input is a hang.
constexpr size_t kMaxSections = 64;

// The items of one listed section; `limit` bounds the listing.
void CheckSection(const std::string& section, size_t limit) {
  NatCfgIterator* iter = NatCfgListItemsInit(section.c_str());
  if (iter == nullptr) abort();  // listed sections can be opened
  size_t count = 0;
  char *value = nullptr, *comment = nullptr;
  while (char* key = NatCfgListItems(iter, &value, &comment)) {
    if (++count > limit) abort();
    // Touch every byte so the sanitizers see a bad allocation.
    volatile size_t total = strlen(key) + strlen(value) + strlen(comment);
    (void)total;
    char* found = NatCfgGetItem(section.c_str(), key);
    if (found == nullptr) abort();
    NatCfgGetItemLong(section.c_str(), key, 7);
    for (char* text : {found, key, value, comment}) free(text);
  }
  NatCfgListItemsDestroy(iter);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!plr::test::EnterSandbox()) abort();
  globalConfig = kPath;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  plr::test::WriteFile(kPath, std::string(reinterpret_cast<const char*>(data), size));
  // Lines are at least one byte, so no listing can be longer than the input.
  std::vector<std::string> sections;
  NatCfgIterator* iter = NatCfgListSectionsInit();
  if (iter == nullptr) abort();  // the file exists
  while (char* name = NatCfgListSections(iter)) {
    sections.emplace_back(name);
    free(name);
    if (sections.size() > size + 1) abort();
  }
  NatCfgListSectionsDestroy(iter);
  for (size_t i = 0; i < sections.size() && i < kMaxSections; ++i)
    CheckSection(sections[i], size + 1);
  free(NatCfgGetItem("host", "ip"));
  return 0;
}
