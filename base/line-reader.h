// Bounded line reader over a stdio stream.
//
// A line is the text up to a newline or the end of the stream, without the
// newline. A line longer than maxLength - 1 bytes is truncated to that many
// bytes and the rest of it, up to its newline, is discarded, so one overlong
// line never becomes two records. Embedded NUL bytes stay in the line.
//
// The reader takes the stream a block at a time, so it owns everything read
// from the stream after its first call: callers read to the end, or drop the
// stream after the lines they want. Memory stays at one block and one line
// whatever the length of the lines.
#pragma once

#include <stdio.h>

#include <memory>
#include <string>
#include <string_view>

namespace plr {

class LineReader {
 public:
  enum class Status { kLine, kEof, kError };

  explicit LineReader(FILE* stream, size_t maxLength = 1024)
      : stream_(stream), maxLength_(maxLength) {}

  // Reads the next line; `*line` stays valid until the next call. kError
  // leaves errno set, and is reported even in the middle of a line: a
  // partial line from a failing device is not a line.
  Status Next(std::string_view* line);
  // Bytes taken from the stream so far; at the end of the stream, all of it.
  size_t taken() const { return taken_; }

 private:
  // Refills the block; false at the end of the stream or on an error.
  bool Fill();

  static constexpr size_t kBlock = 64 * 1024;
  FILE* stream_;
  size_t maxLength_;
  std::unique_ptr<char[]> block_;
  size_t pos_ = 0;
  size_t end_ = 0;
  size_t taken_ = 0;
  std::string carry_;  // a line that crosses a block boundary
};

}  // namespace plr
