// Shared by the fuzz targets and by the corpus replay: anonymous in-memory
// files that the readers can open by path, quiet logging, and a check that
// stops the run with a message (a finding) when a reader breaks its contract.
#pragma once

#include <glog/logging.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// Aborts with the failed condition: libFuzzer and the replay both report it
// as a crash of the current input.
#define FUZZ_CHECK(cond)                                                            \
  do {                                                                              \
    if (!(cond)) {                                                                  \
      std::fprintf(stderr, "%s:%d: FUZZ_CHECK failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                 \
    }                                                                               \
  } while (0)

namespace fuzzsupport {

// The readers log every bad element; at millions of inputs that is noise.
inline void QuietLogging() {
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = google::GLOG_FATAL;
}

// An anonymous memory file. Path() names it for code that opens files by
// name; each open gets its own offset, starting at 0.
class MemFile {
 public:
  explicit MemFile(const char* name) : fd_(memfd_create(name, MFD_CLOEXEC)) {
    FUZZ_CHECK(fd_ >= 0);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~MemFile() { close(fd_); }
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;

  // Replaces the contents with `size` bytes of `data`.
  void Set(const void* data, size_t size) {
    FUZZ_CHECK(ftruncate(fd_, 0) == 0);
    size_t done = 0;
    while (done < size) {
      ssize_t n = pwrite(fd_, static_cast<const char*>(data) + done, size - done,
                         static_cast<off_t>(done));
      FUZZ_CHECK(n > 0);
      done += static_cast<size_t>(n);
    }
  }
  void Set(const std::string& text) { Set(text.data(), text.size()); }

  std::string Contents() const {
    std::string out;
    char buf[4096];
    off_t off = 0;
    ssize_t n;
    while ((n = pread(fd_, buf, sizeof buf, off)) > 0) {
      out.append(buf, static_cast<size_t>(n));
      off += n;
    }
    return out;
  }

  int fd() const { return fd_; }
  const std::string& Path() const { return path_; }

 private:
  int fd_;
  std::string path_;
};

}  // namespace fuzzsupport
