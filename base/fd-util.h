// Owners for descriptors and stdio streams: every resource is released by
// scope; release() hands ownership on. No error path closes by hand.
#pragma once

#include <stdio.h>
#include <unistd.h>

#include <utility>

namespace plr {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

class UniqueFile {
 public:
  UniqueFile() = default;
  explicit UniqueFile(FILE* f) : f_(f) {}
  UniqueFile(UniqueFile&& other) noexcept : f_(other.release()) {}
  UniqueFile& operator=(UniqueFile&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFile(const UniqueFile&) = delete;
  UniqueFile& operator=(const UniqueFile&) = delete;
  ~UniqueFile() { reset(); }

  FILE* get() const { return f_; }
  explicit operator bool() const { return f_ != nullptr; }
  FILE* release() { return std::exchange(f_, nullptr); }
  // Closes the stream; returns fclose's result (0 when there was none).
  int reset(FILE* f = nullptr) {
    int rc = f_ ? ::fclose(f_) : 0;
    f_ = f;
    return rc;
  }

 private:
  FILE* f_ = nullptr;
};

// Runs a callable when the scope ends unless dismissed: the undo step of
// one completed action.
template <class F>
class ScopeExit {
 public:
  explicit ScopeExit(F f) : f_(std::move(f)) {}
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  ~ScopeExit() {
    if (armed_) f_();
  }
  void dismiss() { armed_ = false; }

 private:
  F f_;
  bool armed_ = true;
};

}  // namespace plr
