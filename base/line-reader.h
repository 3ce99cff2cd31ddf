// Bounded line reader over a stdio stream.
//
// A line is the text up to a newline or the end of the stream, without the
// newline. A line longer than maxLength - 1 bytes is truncated to that many
// bytes and the rest of it, up to its newline, is discarded, so one overlong
// line never becomes two records.
#pragma once

#include <stdio.h>

#include <string>

namespace plr {

class LineReader {
 public:
  enum class Status { kLine, kEof, kError };

  explicit LineReader(FILE* stream, size_t maxLength = 1024)
      : stream_(stream), maxLength_(maxLength) {}

  // Reads the next line into `line`; kError leaves errno set.
  Status Next(std::string& line);

 private:
  FILE* stream_;
  size_t maxLength_;
};

}  // namespace plr
