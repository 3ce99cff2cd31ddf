#include "base/line-reader.h"

#include <errno.h>

namespace plr {

// Byte by byte through the stream's own buffer, so embedded NUL bytes stay in
// the line and an overlong line is cut without a second buffer. A read error
// reports kError even in the middle of a line: a partial line from a failing
// device is not a line.
LineReader::Status LineReader::Next(std::string& line) {
  line.clear();
  const size_t keep = maxLength_ > 0 ? maxLength_ - 1 : 0;
  bool any = false;
  for (;;) {
    int c = getc_unlocked(stream_);
    if (c == EOF) {
      if (ferror(stream_)) {
        if (errno == 0) errno = EIO;
        return Status::kError;
      }
      return any ? Status::kLine : Status::kEof;
    }
    any = true;
    if (c == '\n') return Status::kLine;
    if (line.size() < keep) line += static_cast<char>(c);
  }
}

}  // namespace plr
