// Shell commands with a time limit, and file copies. The log texts below are
// read by operators and tests alike; keep them as they are.
#include "util.h"

#include <fcntl.h>
#include <grp.h>
#include <glog/logging.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <vector>

#include "sdp_paths.h"
#include "unique_fd.h"

extern char** environ;

namespace util {
namespace {

// What a child that never reached the shell writes to its report pipe.
constexpr char kDup2Failed = 'd';
constexpr char kExecveFailed = 'e';
constexpr char kUserFailed = 'u';

// Everything the child needs, built before the fork: the child must not
// allocate.
struct ChildPlan {
  ChildPlan(const std::string& cmd, const RunAs& as) : as(as) {
    argv = {const_cast<char*>(sdp_paths::kShell), const_cast<char*>("-c"),
            const_cast<char*>(cmd.c_str()), nullptr};
    if (!as.switchUser) return;
    for (const auto& e : as.env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
  }
  char* const* env() const { return as.switchUser ? envp.data() : environ; }

  const RunAs& as;
  std::vector<char*> argv;
  std::vector<char*> envp;
};

// The kernel's own record for rt_sigaction; all zero is SIG_DFL, no flags.
struct KernelSigaction {
  void* handler;
  unsigned long flags;
  void* restorer;
  uint64_t mask;
};

[[noreturn]] void ChildFails(int report, char what) {
  (void)!::write(report, &what, 1);
  ::_exit(1);
}

// Runs in the forked child. Only async-signal-safe calls: the daemon has other
// threads, and one of them may have held the allocator's or glog's lock at the
// moment of the fork. A failure before exec is therefore not logged here but
// sent through `report` (close-on-exec, so the parent reads end of file once
// the shell runs) for the parent to log.
[[noreturn]] void ExecShell(const ChildPlan& plan, int report) {
  // The daemon's dispositions and mask are its own business (SIGPIPE ignored,
  // the termination signals waiting for the signal thread); an ignored
  // disposition or a blocked signal would survive exec. A command starts as
  // from a login shell.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP || ::sigaction(sig, &dfl, nullptr) == 0) continue;
    // The C library keeps two real-time signals for itself and refuses them,
    // yet an ignored one would still reach the command: ask the kernel.
    KernelSigaction kdfl{};
    ::syscall(SYS_rt_sigaction, sig, &kdfl, nullptr, sizeof kdfl.mask);
  }
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const RunAs& as = plan.as;
  if (as.switchUser) {
    // Groups, then gid, then uid: each needs the authority the next one drops.
    // Any failure ends the child: the command never runs as root instead.
    if (::setgroups(as.groups.size(), as.groups.data()) != 0 || ::setgid(as.gid) != 0 ||
        ::setuid(as.uid) != 0 || ::getuid() != as.uid || ::geteuid() != as.uid ||
        ::getegid() != as.gid)
      ChildFails(report, kUserFailed);
    if (as.dir.empty() || ::chdir(as.dir.c_str()) != 0) (void)!::chdir("/");
  }
  ::execve(plan.argv[0], plan.argv.data(), plan.env());
  ChildFails(report, kExecveFailed);
}

// Reads what the child reported before exec (nothing once the shell runs)
// and logs it.
void LogChildReport(int report) {
  char failure = 0;
  ssize_t got;
  do {
    got = ::read(report, &failure, 1);
  } while (got < 0 && errno == EINTR);
  if (got != 1) return;
  if (failure == kDup2Failed) {
    LOG(ERROR) << "Failed to dup2.";
  } else if (failure == kUserFailed) {
    LOG(ERROR) << "Failed to change user.";
  } else {
    LOG(ERROR) << "Failed to execve.";
  }
}

[[noreturn]] void RunChild(int readEnd, int writeEnd, int report, const ChildPlan& plan) {
  ::close(readEnd);
  if (writeEnd == STDOUT_FILENO) {
    // dup2 onto itself would keep close-on-exec set.
    if (::fcntl(writeEnd, F_SETFD, 0) < 0) ChildFails(report, kDup2Failed);
  } else {
    if (::dup2(writeEnd, STDOUT_FILENO) < 0) ChildFails(report, kDup2Failed);
    ::close(writeEnd);
  }
  ExecShell(plan, report);
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

int system_output(const std::string& cmd, std::string& output, int timeout, const RunAs& as) {
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

  const ChildPlan plan(cmd, as);
  const pid_t pid = ::fork();
  if (pid < 0) {
    LOG(ERROR) << "Failed to fork process.";
    return -2;
  }
  if (pid == 0) RunChild(readEnd.get(), writeEnd.get(), reportWrite.get(), plan);

  writeEnd.reset();
  reportWrite.reset();
  const time_t start = ::time(nullptr);

  LogChildReport(reportRead.get());
  reportRead.reset();

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

void system_run(const std::string& cmd, const RunAs& as) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    LOG(ERROR) << "Failed to create pipe.";
    return;
  }
  UniqueFd reportRead(fds[0]);
  UniqueFd reportWrite(fds[1]);
  const ChildPlan plan(cmd, as);
  const pid_t pid = ::fork();
  if (pid < 0) {
    LOG(ERROR) << "Failed to fork process.";
    return;
  }
  if (pid == 0) ExecShell(plan, reportWrite.get());
  reportWrite.reset();
  LogChildReport(reportRead.get());
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

void getIconPathWithName(const std::set<std::string>& names,
                         std::map<std::string, std::string>& out) {
  static constexpr char kDesktopExt[] = ".desktop";
  out.clear();
  for (const std::string& name : names) {
    const size_t slash = name.rfind('/');
    const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    // The directory constant ends in "/", so the path has "//": harmless, and
    // the logs have always shown it so.
    const std::string candidate =
        std::string(sdp_paths::kSystemApplicationsDir) + "/" + base + kDesktopExt;
    LOG(INFO) << "icon path is: " << candidate;
    if (::access(candidate.c_str(), F_OK) != 0) continue;
    const std::string launcher = base + kDesktopExt;
    out.emplace(launcher, candidate);
    LOG(INFO) << launcher << " icon path is :" << candidate;
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
