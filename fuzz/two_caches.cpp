// Two caches over one database file, driven by the input: changes inside
// write brackets, compacting and plain unloads with reloads, in any order.
// After every step a fresh load of the file holds exactly what the changes,
// applied in turn, give: no cache loses or resurrects another's change.
#include <stdint.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "netcfg/db-internal.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kPath = "/etc/tarsis/networking";
constexpr int kKeys = 6;

// The model: answers K0..K5 and TCP forwards of vnet 1 on host ports 1..6.
struct Model {
  std::map<std::string, std::string> answers;
  std::map<uint16_t, uint16_t> forwards;  // host port -> guest port
};

PLRNetworkConfigurationDB* Load(bool readOnly = false) {
  PLRNetworkConfigurationDB* db = nullptr;
  return PLRNetCfgLoad(kPath, &db, false, readOnly) ? db : nullptr;
}

// Whether a fresh read-only load of the file equals the model.
bool FileMatches(const Model& model) {
  PLRNetworkConfigurationDB* db = Load(true);
  if (db == nullptr) return false;
  bool same = true;
  for (int k = 0; k < kKeys; ++k) {
    const std::string key = "K" + std::to_string(k);
    const char* value = nullptr;
    const bool found = PLRNetCfgGetAnswerString(db, key.c_str(), &value);
    auto it = model.answers.find(key);
    same = same && found == (it != model.answers.end()) && (!found || it->second == value);
    char ip[16];
    uint16_t guestPort = 0;
    const uint16_t port = static_cast<uint16_t>(k + 1);
    const bool forwarded =
        PLRNetCfgLookupNATPortFwd(db, 1, true, port, ip, sizeof ip, &guestPort, nullptr, nullptr);
    auto fwd = model.forwards.find(port);
    same = same && forwarded == (fwd != model.forwards.end()) &&
           (!forwarded || fwd->second == guestPort);
  }
  PLRNetCfgUnload(&db, false);
  return same;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!plr::test::EnterSandbox()) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  plr::test::WriteFile(kPath, "VERSION=1,0\n");
  PLRNetworkConfigurationDB* caches[2] = {Load(), Load()};
  if (caches[0] == nullptr || caches[1] == nullptr) abort();
  Model model;
  for (size_t i = 0; i < size && i < 64; ++i) {
    const uint8_t byte = data[i];
    PLRNetworkConfigurationDB*& db = caches[byte & 1];
    const int k = (byte >> 4) % kKeys;
    const std::string key = "K" + std::to_string(k), value = "v" + std::to_string(i);
    const uint16_t port = static_cast<uint16_t>(k + 1);
    switch ((byte >> 1) % 6) {
      case 0:
        if (!PLRNetCfgLockConfig(db) || !PLRNetCfgAddAnswerString(db, key.c_str(), value.c_str()))
          abort();
        model.answers[key] = value;
        break;
      case 1:
        if (!PLRNetCfgLockConfig(db) || !PLRNetCfgRemoveAnswer(db, key.c_str())) abort();
        model.answers.erase(key);
        break;
      case 2:
        if (!PLRNetCfgLockConfig(db) ||
            !PLRNetCfgAddNATPortFwd(db, 1, true, port, "10.0.0.2", static_cast<uint16_t>(i + 1),
                                    nullptr, false))
          abort();
        model.forwards[port] = static_cast<uint16_t>(i + 1);
        break;
      case 3:
        if (!PLRNetCfgLockConfig(db)) abort();
        if (model.forwards.count(port) != 0 && !PLRNetCfgRemoveNATPortFwd(db, 1, true, port))
          abort();
        model.forwards.erase(port);
        break;
      case 4:
      case 5:  // unload, compacting or not, and load again
        PLRNetCfgUnload(&db, (byte >> 1) % 6 == 4);
        if ((db = Load()) == nullptr) abort();
        break;
    }
    PLRNetCfgUnlockConfig(db);
    if (!FileMatches(model)) abort();
  }
  for (PLRNetworkConfigurationDB*& db : caches) PLRNetCfgUnload(&db, true);
  if (!FileMatches(model)) abort();
  return 0;
}
