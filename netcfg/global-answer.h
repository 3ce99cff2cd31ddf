// The one read of the default database's answers with a fallback, for code
// in any folder above netcfg.
#pragma once

namespace plr {

// The answer `key` of the default database, or `fallback` when it has none
// (or none is loaded).
const char* NetCfgGlobalAnswerOr(const char* key, const char* fallback);

}  // namespace plr
