// Any bytes as a database or backup file: the loader never crashes, never
// reads past a buffer, and what it loaded can be written out and unloaded.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "netcfg/db-internal.h"

namespace {

const std::string& WorkDir() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/netcfg-fuzz.XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (made == nullptr) abort();
    return std::string(made);
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = WorkDir() + "/networking";
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  for (bool backup : {false, true}) {
    PLRNetworkConfigurationDB* db = nullptr;
    if (!PLRNetCfgLoad(path.c_str(), &db, backup, false)) continue;
    // Whatever loaded must format: the whole-file writer touches every table.
    plr::PendingFile rewrite;  // written, then discarded
    plr::NetCfgWriteDatabaseFile(db, &rewrite, (WorkDir() + "/rewrite").c_str(), 0600, backup);
    PLRNetCfgUnload(&db, false);
  }
  return 0;
}
