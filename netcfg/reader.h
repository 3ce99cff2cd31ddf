// The replay of a database file into a cache (the file format's reader).
#pragma once

#include <stdio.h>

#include "netcfg/db-internal.h"

namespace plr {

// Reads the version line and replays every record of `stream`, freshly
// opened, into `db`, whose backup flag says which version key is expected;
// the journal end is then where the replay ended. False, with its log line
// under `function`, for an empty database, a bad version line or a read
// error.
bool NetCfgReadDatabase(PLRNetworkConfigurationDB* db, FILE* stream, const char* function);

// Replays the records from offset `from` of `stream` to its end into `db`
// (what another writer appended); false, with its log line, on a read error.
bool NetCfgReadTail(PLRNetworkConfigurationDB* db, FILE* stream, off_t from, const char* function);

}  // namespace plr
