// Reader of the product configuration file ("/etc/tarsis/config").
//
// Lines are `key = value` or `key = "value"`; blanks around key, "=" and value
// are ignored, '#' starts a comment outside quotes, blank lines are skipped.
// Keys are case-sensitive; a later line for the same key replaces the earlier.
// A line without "=" or with an unterminated quote is an error naming the line.
#pragma once

#include <map>
#include <string>

namespace plr {

using ConfigDictionary = std::map<std::string, std::string>;

// Reads `path` into `out`. False with a human-readable reason in `error`
// (the path and strerror, or the line number of a malformed line).
bool LoadConfigFile(const char* path, ConfigDictionary* out, std::string* error);

}  // namespace plr
