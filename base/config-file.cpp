#include "base/config-file.h"

#include <errno.h>
#include <string.h>

#include <string_view>

#include "base/fd-util.h"
#include "base/line-reader.h"
#include "base/str-util.h"
#include "base/sys-util.h"

namespace plr {
namespace {

// Longer lines are cut by the reader; no sensible setting comes near this.
constexpr size_t kMaxLine = 4096;

constexpr std::string_view kBlanks = " \t\r";

std::string_view Trim(std::string_view s) {
  size_t begin = s.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return s.substr(begin, s.find_last_not_of(kBlanks) - begin + 1);
}

// Splits one line into key and value. Returns false for a blank or comment
// line (nothing to store) and sets `error` when the line is malformed.
bool ParseLine(std::string_view line, std::string* key, std::string* value, std::string* error) {
  line = Trim(line);
  if (line.empty() || line[0] == '#') return false;
  size_t eq = line.find('=');
  if (eq == std::string_view::npos) {
    *error = "missing \"=\"";
    return false;
  }
  std::string_view k = Trim(line.substr(0, eq));
  if (k.empty() || k.find_first_of(kBlanks) != std::string_view::npos) {
    *error = "bad key";
    return false;
  }
  std::string_view rest = Trim(line.substr(eq + 1));
  std::string_view v;
  if (!rest.empty() && rest[0] == '"') {
    size_t close = rest.find('"', 1);
    if (close == std::string_view::npos) {
      *error = "unterminated quote";
      return false;
    }
    v = rest.substr(1, close - 1);
    std::string_view after = Trim(rest.substr(close + 1));
    if (!after.empty() && after[0] != '#') {
      *error = "text after closing quote";
      return false;
    }
  } else {
    v = Trim(rest.substr(0, rest.find('#')));
  }
  key->assign(k);
  value->assign(v);
  return true;
}

}  // namespace

// Reads line by line; the first malformed line stops the load, because a
// half-understood configuration is worse than none.
bool LoadConfigFile(const char* path, ConfigDictionary* out, std::string* error) {
  UniqueFile file(sys::fopen(path, "re"));
  if (!file) {
    *error = StrPrintf("%s: %s", path, strerror(errno));
    return false;
  }
  LineReader reader(file.get(), kMaxLine);
  std::string_view line;
  std::string key, value, why;
  for (unsigned number = 1;; ++number) {
    LineReader::Status status = reader.Next(&line);
    if (status == LineReader::Status::kEof) return true;
    if (status == LineReader::Status::kError) {
      *error = StrPrintf("%s: %s", path, strerror(errno));
      return false;
    }
    if (ParseLine(line, &key, &value, &why)) {
      (*out)[key] = value;
    } else if (!why.empty()) {
      *error = StrPrintf("%s:%u: %s", path, number, why.c_str());
      errno = EINVAL;
      return false;
    }
  }
}

}  // namespace plr
