// Shell commands with a time limit, and file copies. The log texts below are
// read by operators and tests alike; keep them as they are.
#include "util.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>

#include "sdp_paths.h"

extern char** environ;

namespace util {
namespace {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// What a child that never reached the shell writes to its report pipe.
constexpr char kDup2Failed = 'd';
constexpr char kExecveFailed = 'e';

// Runs in the forked child. Only async-signal-safe calls: the daemon has other
// threads, and one of them may have held the allocator's or glog's lock at the
// moment of the fork. A failure before exec is therefore not logged here but
// sent through `report` (close-on-exec, so the parent reads end of file once
// the shell runs) for the parent to log.
[[noreturn]] void RunChild(int readEnd, int writeEnd, int report, char* const argv[]) {
  ::close(readEnd);
  // Ignoring SIGPIPE is the daemon's business; an ignored disposition would
  // survive exec and change how the command's own pipelines end.
  ::signal(SIGPIPE, SIG_DFL);
  // Nor is the daemon's signal mask (its termination signals wait for the
  // signal thread): a command starts with nothing blocked, as from a shell.
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (writeEnd == STDOUT_FILENO) {
    // dup2 onto itself would keep close-on-exec set.
    if (::fcntl(writeEnd, F_SETFD, 0) < 0) {
      (void)!::write(report, &kDup2Failed, 1);
      ::_exit(1);
    }
  } else {
    if (::dup2(writeEnd, STDOUT_FILENO) < 0) {
      (void)!::write(report, &kDup2Failed, 1);
      ::_exit(1);
    }
    ::close(writeEnd);
  }
  ::execve(argv[0], argv, environ);
  (void)!::write(report, &kExecveFailed, 1);
  ::_exit(1);
}

enum class ReadStep { kMore, kDone };

// One read of the child's output; a signal that interrupts it is retried.
ReadStep ReadOnce(int fd, std::string& output) {
  char buf[4096];
  const ssize_t n = ::read(fd, buf, sizeof buf);
  if (n > 0) {
    output.append(buf, static_cast<size_t>(n));
    return ReadStep::kMore;
  }
  if (n == 0) return ReadStep::kDone;
  if (errno == EINTR) return ReadStep::kMore;
  LOG(ERROR) << "Failed to read.";
  return ReadStep::kDone;
}

}  // namespace

int system_output(const std::string& cmd, std::string& output, int timeout) {
  ::signal(SIGPIPE, SIG_IGN);
  output.clear();

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    LOG(ERROR) << "Failed to create pipe.";
    return -1;
  }
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    LOG(ERROR) << "Failed to create pipe.";
    return -1;
  }
  UniqueFd reportRead(fds[0]);
  UniqueFd reportWrite(fds[1]);

  // Built before the fork: the child must not allocate.
  char* const argv[] = {const_cast<char*>(sdp_paths::kShell), const_cast<char*>("-c"),
                        const_cast<char*>(cmd.c_str()), nullptr};
  const pid_t pid = ::fork();
  if (pid < 0) {
    LOG(ERROR) << "Failed to fork process.";
    return -2;
  }
  if (pid == 0) RunChild(readEnd.get(), writeEnd.get(), reportWrite.get(), argv);

  writeEnd.reset();
  reportWrite.reset();
  const time_t start = ::time(nullptr);

  char failure = 0;
  ssize_t got;
  do {
    got = ::read(reportRead.get(), &failure, 1);
  } while (got < 0 && errno == EINTR);
  reportRead.reset();
  if (got == 1) LOG(ERROR) << (failure == kDup2Failed ? "Failed to dup2." : "Failed to execve.");

  if (timeout > 0) {
    const int fd = readEnd.get();
    for (;;) {
      const time_t elapsed = ::time(nullptr) - start;
      if (elapsed < 0 || elapsed >= timeout) break;
      if (fd >= FD_SETSIZE) {  // select cannot watch it; never index past the set
        LOG(ERROR) << "Failed to select.";
        break;
      }
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(fd, &readable);
      timeval remaining{timeout - elapsed, 0};
      const int ready = ::select(fd + 1, &readable, nullptr, nullptr, &remaining);
      if (ready < 0) {
        if (errno == EINTR) continue;
        LOG(ERROR) << "Failed to select.";
        break;
      }
      if (ready == 0) {
        LOG(ERROR) << "timeoutOccurred.";
        break;
      }
      if (ReadOnce(fd, output) == ReadStep::kDone) break;
    }
  } else {
    while (ReadOnce(readEnd.get(), output) == ReadStep::kMore) {
    }
  }
  readEnd.reset();

  // The limit covers the whole run: a child that closed its output early but
  // keeps running is still killed when the time is up.
  for (;;) {
    int status = 0;
    const pid_t changed = ::waitpid(pid, &status, WNOHANG);
    if (changed < 0) {
      LOG(ERROR) << "Failed to waitpid.";
      return -3;
    }
    if (changed > 0) {
      // Deliberately 1 for every reported state, success included: callers
      // that test for 0 rely on never seeing it. The exit status reaches
      // them only through this log line.
      if (WIFEXITED(status)) {
        LOG(ERROR) << "Child process exited with status: " << WEXITSTATUS(status);
      } else if (WIFSIGNALED(status)) {
        const char* name = ::strsignal(WTERMSIG(status));
        if (name != nullptr) {
          LOG(ERROR) << "Child process terminated by signal: " << name;
        } else {
          LOG(ERROR) << "Child process terminated by signal: ";
        }
      }
      return 1;
    }
    const time_t elapsed = ::time(nullptr) - start;  // negative: the clock went back
    if (timeout > 0 && (elapsed < 0 || elapsed >= timeout)) {
      LOG(ERROR) << "Child process timed out.";
      // Not reaped: the killed child stays a zombie until the process reaps
      // its children or exits.
      ::kill(pid, SIGKILL);
      return -4;
    }
    ::usleep(100000);
  }
}

bool copyFile(const std::string& source, const std::string& destination) {
  if (::access(source.c_str(), F_OK) != 0) return false;

  UniqueFile in(std::fopen(source.c_str(), "rbe"));
  if (!in) {
    std::cerr << "Failed to open source file: " << source << std::endl;
    return false;
  }
  // Opening the destination truncates it; onto itself that would empty the
  // source, and the copy is already in place.
  struct stat src {};
  struct stat dst {};
  const bool same = ::fstat(::fileno(in.get()), &src) == 0 &&
                    ::stat(destination.c_str(), &dst) == 0 && src.st_dev == dst.st_dev &&
                    src.st_ino == dst.st_ino;
  if (!same) {
    UniqueFile out(std::fopen(destination.c_str(), "wbe"));
    if (!out) {
      std::cerr << "Failed to open destination file: " << destination << std::endl;
      return false;
    }
    char buf[8192];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0) {
      if (std::fwrite(buf, 1, n, out.get()) != n) break;
    }
    if (std::ferror(in.get())) {
      std::cerr << "Failed to read source file: " << source << std::endl;
      return false;
    }
    if (std::ferror(out.get()) || std::fclose(out.release()) != 0) {
      std::cerr << "Failed to write destination file: " << destination << std::endl;
      return false;
    }
  }
  in.reset();
  std::cout << "File copy successful." << std::endl;
  ::chmod(destination.c_str(), 0755);
  return true;
}

}  // namespace util
