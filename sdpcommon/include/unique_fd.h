// Owners of a descriptor, a stdio stream and a directory stream: each closes
// what it holds when it goes, on every path.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace util {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace util
