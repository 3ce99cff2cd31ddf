// Reader for files in the nat.conf format: "[section]" headers holding
// "key = value" (or "key: value") items with optional "# comment" tails.
// Another program (the NAT daemon, a tool) sets globalConfig to the file's
// path and lists sections, lists items, or looks one item up. Nothing is
// logged; failures are NULL results. Every returned text is malloc'ed and
// belongs to the caller.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/types.h>

#include <new>
#include <string>

#include "base/sys-util.h"
#include "pelorus/svcfiles.h"

extern "C" {
const char* globalConfig = nullptr;
}

// The open stream, shared by reference count (1 when opened); the last
// release closes it.
struct NatCfgHandle {
  FILE* stream;
  int32_t refCount;
};

// Where the next read of a listing starts; position -1 means it has ended.
struct NatCfgIterator {
  NatCfgHandle* handle;
  int64_t position;
};

namespace plr {
namespace {

// A line of at most kLineLimit - 1 characters is read at a time; a longer
// one arrives as several lines.
constexpr int kLineLimit = 16383;

bool IsSpace(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

const char* SkipSpace(const char* p) {
  while (*p != '\0' && IsSpace(*p)) ++p;
  return p;
}

NatCfgHandle* OpenHandle() {
  if (globalConfig == nullptr) return nullptr;
  FILE* stream = sys::fopen(globalConfig, "r");
  if (stream == nullptr) return nullptr;
  NatCfgHandle* handle = new (std::nothrow) NatCfgHandle{stream, 1};
  if (handle == nullptr) fclose(stream);
  return handle;
}

void ReleaseHandle(NatCfgHandle* handle) {
  if (handle == nullptr || --handle->refCount > 0) return;
  fclose(handle->stream);
  delete handle;
}

// Reads the next line into `line` (kLineLimit bytes); false at end of file.
bool ReadLine(FILE* stream, char* line) {
  return fgets(line, kLineLimit, stream) != nullptr;
}

// Seeks to the iterator's position; false when it has ended or cannot seek.
bool SeekToIterator(NatCfgIterator* iter) {
  if (iter == nullptr || iter->position == -1) return false;
  clearerr(iter->handle->stream);
  return fseeko(iter->handle->stream, static_cast<off_t>(iter->position), SEEK_SET) == 0;
}

// True when `afterBracket` (the text after a header's "[") names `section`:
// equal ignoring case over the name's length and then "]".
bool HeaderNames(const char* afterBracket, const char* section) {
  size_t length = strlen(section);
  return strncasecmp(afterBracket, section, length) == 0 && afterBracket[length] == ']';
}

// Leaves the stream just after the first header naming `section`.
bool FindSection(FILE* stream, const char* section, char* line) {
  rewind(stream);
  while (ReadLine(stream, line)) {
    const char* p = SkipSpace(line);
    if (*p == '[' && HeaderNames(p + 1, section)) return true;
  }
  return false;
}

// Parses a value starting at `p` (blanks after the separator already
// skipped) into `value`; returns where the value ended. A quoted value runs
// to its matching quote, an unquoted one to the first blank; both end at a
// NUL, a newline and, when `crEnds`, a carriage return. Backslash escapes
// \r, \t, \n and any other character as itself; a backslash at the end of
// the line ends the value.
const char* ParseValue(const char* p, bool crEnds, std::string* value) {
  char quote = '\0';
  if (*p == '"' || *p == '\'') quote = *p++;
  for (;;) {
    char c = *p;
    if (c == '\0' || c == '\n' || (crEnds && c == '\r')) return p;
    if (quote != '\0' ? c == quote : IsSpace(c)) return quote != '\0' ? p + 1 : p;
    if (c == '\\') {
      char next = p[1];
      if (next == '\0' || next == '\n' || next == '\r') return p + 1;
      value->push_back(next == 'r' ? '\r' : next == 't' ? '\t' : next == 'n' ? '\n' : next);
      p += 2;
      continue;
    }
    value->push_back(c);
    ++p;
  }
}

// The comment after the value: from the first "#" (blanks after it skipped)
// to the end of the line. False when there is none.
bool ParseComment(const char* p, std::string* comment) {
  const char* hash = strchr(p, '#');
  if (hash == nullptr) return false;
  const char* start = SkipSpace(hash + 1);
  size_t length = strcspn(start, "\r\n");
  comment->assign(start, length);
  return true;
}

char* CopyText(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// One item line split into its parts; false for lines that are no item.
struct Item {
  std::string key;
  std::string value;
  std::string comment;
  bool hasComment = false;
};

bool ParseItemLine(const char* line, Item* item) {
  const char* p = SkipSpace(line);
  const char* separator = strpbrk(p, "=:");
  if (separator == nullptr) return false;
  const char* keyEnd = separator;
  while (keyEnd > p && IsSpace(keyEnd[-1])) --keyEnd;
  item->key.assign(p, static_cast<size_t>(keyEnd - p));
  const char* rest = ParseValue(SkipSpace(separator + 1), true, &item->value);
  item->hasComment = ParseComment(rest, &item->comment);
  return true;
}

// Looks `key` up in one item line of a wanted section.
bool MatchItem(const char* line, const char* key, std::string* value) {
  const char* p = SkipSpace(line);
  size_t length = strlen(key);
  if (strncasecmp(p, key, length) != 0) return false;
  p += length;
  while (*p != '\0' && IsSpace(*p)) ++p;
  if (*p != '=' && *p != ':') return false;
  ParseValue(SkipSpace(p + 1), false, value);
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// An iterator over every section header of the file, from its start.
PLR_EXPORT NatCfgIterator* NatCfgListSectionsInit(void) {
  NatCfgHandle* handle = plr::OpenHandle();
  if (handle == nullptr) return nullptr;
  NatCfgIterator* iter = new (std::nothrow) NatCfgIterator{handle, 0};
  if (iter == nullptr) plr::ReleaseHandle(handle);
  return iter;
}

// The next section name (the text between "[" and the first "]"), or NULL
// at the end of the file.
PLR_EXPORT char* NatCfgListSections(NatCfgIterator* iter) {
  if (!plr::SeekToIterator(iter)) return nullptr;
  FILE* stream = iter->handle->stream;
  std::string line(plr::kLineLimit, '\0');
  while (plr::ReadLine(stream, line.data())) {
    const char* p = plr::SkipSpace(line.c_str());
    if (*p != '[') continue;
    const char* close = strchr(p + 1, ']');
    if (close == nullptr) continue;
    off_t after = ftello(stream);
    if (after < 0) return nullptr;
    iter->position = after;
    return plr::CopyText(std::string(p + 1, static_cast<size_t>(close - p - 1)));
  }
  iter->position = -1;
  return nullptr;
}

PLR_EXPORT void NatCfgListSectionsDestroy(NatCfgIterator* iter) {
  NatCfgListItemsDestroy(iter);
}

// An iterator over the items of the first section named `section`.
PLR_EXPORT NatCfgIterator* NatCfgListItemsInit(const char* section) {
  if (section == nullptr) return nullptr;
  NatCfgHandle* handle = plr::OpenHandle();
  if (handle == nullptr) return nullptr;
  std::string line(plr::kLineLimit, '\0');
  off_t after = -1;
  if (plr::FindSection(handle->stream, section, line.data())) after = ftello(handle->stream);
  NatCfgIterator* iter = after < 0 ? nullptr : new (std::nothrow) NatCfgIterator{handle, after};
  if (iter == nullptr) plr::ReleaseHandle(handle);
  return iter;
}

// The next item's key, with copies of its value and comment when asked for;
// NULL at the next header, at the end of the file or on failure.
PLR_EXPORT char* NatCfgListItems(NatCfgIterator* iter, char** value, char** comment) {
  if (!plr::SeekToIterator(iter)) return nullptr;
  FILE* stream = iter->handle->stream;
  std::string line(plr::kLineLimit, '\0');
  while (plr::ReadLine(stream, line.data())) {
    const char* p = plr::SkipSpace(line.c_str());
    if (*p == '\0' || strchr("#=:\r\n", *p) != nullptr) continue;
    if (*p == '[') break;
    plr::Item item;
    if (!plr::ParseItemLine(line.c_str(), &item)) continue;
    off_t after = ftello(stream);
    if (after < 0) return nullptr;
    iter->position = after;
    char* key = plr::CopyText(item.key);
    char* valueCopy = value != nullptr ? plr::CopyText(item.value) : nullptr;
    char* commentCopy = comment != nullptr ? plr::CopyText(item.comment) : nullptr;
    if (key == nullptr || (value != nullptr && valueCopy == nullptr) ||
        (comment != nullptr && commentCopy == nullptr)) {
      free(key);
      free(valueCopy);
      free(commentCopy);
      return nullptr;
    }
    if (value != nullptr) *value = valueCopy;
    if (comment != nullptr) *comment = commentCopy;
    return key;
  }
  iter->position = -1;
  return nullptr;
}

// Drops the iterator's reference to its file (closing it when it was the
// last) and frees the iterator.
PLR_EXPORT void NatCfgListItemsDestroy(NatCfgIterator* iter) {
  if (iter == nullptr) return;
  plr::ReleaseHandle(iter->handle);
  delete iter;
}

// The value of the first `key` in any section named `section`, in file
// order; NULL when there is none.
PLR_EXPORT char* NatCfgGetItem(const char* section, const char* key) {
  if (section == nullptr || key == nullptr) return nullptr;
  NatCfgHandle* handle = plr::OpenHandle();
  if (handle == nullptr) return nullptr;
  std::string line(plr::kLineLimit, '\0');
  bool inSection = false;
  char* result = nullptr;
  while (result == nullptr && plr::ReadLine(handle->stream, line.data())) {
    const char* p = plr::SkipSpace(line.c_str());
    if (*p == '[') {
      inSection = plr::HeaderNames(p + 1, section);
      continue;
    }
    std::string value;
    if (inSection && plr::MatchItem(line.c_str(), key, &value)) {
      result = plr::CopyText(value);
      break;
    }
  }
  plr::ReleaseHandle(handle);
  return result;
}

// The item as an unsigned decimal number; `defaultValue` when it is missing
// or not wholly a number (an empty value is 0).
PLR_EXPORT unsigned long NatCfgGetItemLong(const char* section, const char* key,
                                           unsigned long defaultValue) {
  char* text = NatCfgGetItem(section, key);
  if (text == nullptr) return defaultValue;
  char* end = nullptr;
  unsigned long number = strtoul(text, &end, 10);
  bool whole = *end == '\0';
  free(text);
  return whole ? number : defaultValue;
}

}  // extern "C"
