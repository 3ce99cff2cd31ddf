// Whole-file helpers.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "base/fd-util.h"

namespace plr {

class Sha1;

// A new version of a file, written beside it under a temporary name and put
// in its place by one rename: the one way the library replaces a file. Every
// step goes through the system-call table and fails with errno set; the
// temporary file is removed when the owner goes away before Commit(), unless
// Keep() hands it on.
class PendingFile {
 public:
  PendingFile() = default;
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  ~PendingFile() { Discard(); }

  // Creates "<dir>/.<name>.XXXXXX" beside `path` exclusively, with exactly
  // `mode` (no umask). tempPath() names it, even when the creation failed.
  bool Create(const char* path, mode_t mode);
  // The descriptor to write the content to, until Sync().
  int fd() const { return fd_.get(); }
  const std::string& tempPath() const { return temp_; }
  // Puts the written content on disk and closes the descriptor.
  bool Sync();
  // Renames the temporary file over the target and makes the rename durable.
  // When only the directory sync fails the new content is in place: false,
  // errno set, nothing left to discard.
  bool Commit();
  // Removes the temporary file (keeping errno), unless committed or kept.
  void Discard();
  // Leaves the temporary file where it is, under its name, for the caller.
  void Keep() { owned_ = false; }
  // True once the rename of Commit() happened.
  bool committed() const { return committed_; }

 private:
  std::string path_;
  std::string temp_;
  UniqueFd fd_;
  bool owned_ = false;  // temp_ exists and is this owner's to remove
  bool committed_ = false;
};

// The directory part of `path`: "." without a slash, "/" for a top-level file.
std::string DirName(const char* path);

// Whether `name`, an entry of the directory of `path`, is named as the
// temporaries PendingFile makes for `path` are (".<name>.XXXXXX").
bool IsPendingFileName(const char* path, std::string_view name);

// Replaces `path` with `data` through a PendingFile: write a temporary file
// beside it, fsync it, rename it over `path`, fsync the directory. The file gets exactly `mode`
// (no umask). On any failure up to the rename the temporary file is removed,
// `path` is untouched, errno is set. When only the final directory fsync
// fails, the new content is in place but not yet durable: false, errno set.
bool ReplaceFileAtomically(const char* path, std::string_view data, mode_t mode);

// Generated text on its way to a descriptor: a generator appends to text()
// and calls MaybeSpill() between items, so that a file of any size takes no
// more memory than one spill's worth and is written from bytes still in the
// cache. While a hash is attached every byte goes through it, in order, just
// before it is written. The first failed write sticks: later spills write
// nothing, and Flush() reports it with its errno.
class SpillBuffer {
 public:
  // Past this many buffered bytes MaybeSpill() writes them out.
  static constexpr size_t kSpillMark = 64 * 1024;

  explicit SpillBuffer(int fd);
  std::string& text() { return text_; }
  void MaybeSpill() {
    if (text_.size() >= kSpillMark) Spill();
  }
  // Hashes the bytes that follow into `sha` (none when null); the bytes
  // before go to the hash given before, if any, which is then complete.
  void HashFromHere(Sha1* sha);
  // Writes everything buffered; false, errno set, once any write failed.
  bool Flush();

 private:
  void Spill();
  // Hands the buffered bytes not yet hashed to the current hash.
  void HashPending();
  int fd_;
  std::string text_;
  Sha1* sha_ = nullptr;
  size_t hashedUpTo_ = 0;  // bytes of text_ already given to a hash (or to none)
  int error_ = 0;          // errno of the first failed write
};

// The bytes of a whole file, in memory that was not cleared before the
// read filled it (a file of megabytes is not written twice).
class FileBytes {
 public:
  std::string_view view() const { return {data_.get(), size_}; }
  size_t size() const { return size_; }

 private:
  friend bool ReadWholeFile(const char* path, FileBytes* out);
  std::unique_ptr<char[]> data_;
  size_t size_ = 0;
};

// Reads the whole file; false with errno set (and `out` then empty).
bool ReadWholeFile(const char* path, FileBytes* out);

// fsync of the directory holding `path`; false with errno set.
bool FsyncParentDir(const char* path);

}  // namespace plr
