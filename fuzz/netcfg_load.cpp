// Any bytes as a database or backup file: the loader never crashes, never
// reads past a buffer, and what it loaded can be written out and unloaded.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "netcfg/db-internal.h"
#include "tests/support/sandbox.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!plr::test::EnterSandbox()) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  plr::test::WriteFile("/tmp/networking", std::string(reinterpret_cast<const char*>(data), size));
  for (bool backup : {false, true}) {
    PLRNetworkConfigurationDB* db = nullptr;
    if (!PLRNetCfgLoad("/tmp/networking", &db, backup, false)) continue;
    // Whatever loaded must format: the whole-file writer touches every table.
    plr::PendingFile rewrite;  // written, then discarded
    plr::NetCfgWriteDatabaseFile(db, &rewrite, "/tmp/rewrite", 0600, backup);
    PLRNetCfgUnload(&db, false);
  }
  return 0;
}
