#include "base/line-reader.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <memory>

namespace plr {

// One fread of a whole block: glibc hands a request of at least its own
// buffer size straight to read(2), so the bytes are copied once. A stream
// that has seen its end is not asked again (that would cost a read(2) that
// returns nothing).
bool LineReader::Fill() {
  // Not zeroed: only the bytes read are ever looked at.
  if (!block_) block_ = std::make_unique_for_overwrite<char[]>(kBlock);
  pos_ = 0;
  end_ = feof(stream_) ? 0 : fread(block_.get(), 1, kBlock, stream_);
  taken_ += end_;
  return end_ > 0;
}

// Scans the block for the newline with memchr. A line inside the block is
// handed out where it lies; one that crosses the block's end is gathered in
// `carry_`, up to what the line may keep. The rest of an overlong line is
// skipped in place.
LineReader::Status LineReader::Next(std::string_view* line) {
  const size_t keep = maxLength_ > 0 ? maxLength_ - 1 : 0;
  bool carried = false;
  carry_.clear();
  for (;;) {
    if (pos_ == end_ && !Fill()) {
      if (ferror(stream_)) {
        if (errno == 0) errno = EIO;
        return Status::kError;
      }
      *line = carry_;
      return carried ? Status::kLine : Status::kEof;
    }
    const char* start = block_.get() + pos_;
    const size_t available = end_ - pos_;
    const char* newline = static_cast<const char*>(memchr(start, '\n', available));
    const size_t length = newline != nullptr ? static_cast<size_t>(newline - start) : available;
    pos_ += length;
    if (newline != nullptr) ++pos_;
    if (newline != nullptr && !carried) {
      *line = std::string_view(start, std::min(length, keep));
      return Status::kLine;
    }
    carried = true;
    if (carry_.size() < keep) carry_.append(start, std::min(length, keep - carry_.size()));
    if (newline != nullptr) {
      *line = carry_;
      return Status::kLine;
    }
  }
}

}  // namespace plr
