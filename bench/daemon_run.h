// What the daemon-level benchmarks share: the installation a run needs, the
// real `tolvarind` binary started as a child, its INFO log read as it grows,
// and the process's own figures from /proc.
//
// REQUIRES: the process is in the test sandbox (testsupport::EnterSandbox), so
// every fixed path used here is a private tmpfs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "figures.h"

namespace benchrun {

using Millis = std::chrono::milliseconds;

// Polls `pred` every `step` until it holds or `timeout` passes; its last value.
bool WaitUntil(const std::function<bool()>& pred, Millis timeout, Millis step = Millis(5));

void MakeDirs(const std::string& path);
void WriteFile(const std::string& path, const std::string& text, unsigned mode = 0644);
// Removes everything below `dir`, keeping `dir` itself, without crossing into
// another file system (a bind-mounted tree stays untouched).
void EmptyDir(const std::string& dir);

// The installation every run needs: log directory, the peer's session
// directory, safespace.ini with `sandboxId`, and harmless scripts.
void PrepareInstallation(const std::string& sandboxId);

// Wall-clock time of day in microseconds, local time, the clock glog's line
// headers show.
int64_t NowMicrosOfDay();
double MonoSeconds();

using LogLine = figures::LogLine;

// Reads a glog-format file as it grows, from where the last call stopped.
class LogTail {
 public:
  LogTail() = default;
  explicit LogTail(std::string path) : path_(std::move(path)) {}
  void SetPath(std::string path) { path_ = std::move(path); }
  const std::string& path() const { return path_; }
  // The complete lines written since the previous call.
  std::vector<LogLine> Poll();

 private:
  std::string path_;
  long offset_ = 0;
  std::string partial_;
};

// The INFO log of daemon `pid`, once glog has created it; empty before.
std::string InfoLogPath(pid_t pid);

// A child process: the daemon binary, or any other program (argv[0] is looked
// up in PATH unless it holds a slash), with stdin from /dev/null and
// stdout/stderr into `out` (or /dev/null when empty).
class Child {
 public:
  // `env` entries ("NAME=value") are added to (or replace) the inherited ones.
  Child(const std::vector<std::string>& argv, const std::string& out = "",
        const std::vector<std::string>& env = {});
  ~Child();  // SIGKILL and reap if still running
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool Started() const { return pid_ > 0; }
  bool Running();
  // Sends `sig` and waits for the exit; true when it ended within `timeout`.
  bool Stop(int sig, Millis timeout);

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// Resident set size in KiB (VmRSS), or -1.
long RssKiB(pid_t pid);
// Peak resident set size in KiB (VmHWM), or -1.
long HwmKiB(pid_t pid);
// Where the resident memory is: "Rss", "Pss", "Pss_Anon", "Pss_File",
// "Private_Dirty" ... from /proc/<pid>/smaps_rollup, in KiB.
std::vector<std::pair<std::string, long>> MemoryRollup(pid_t pid);
// Resident KiB per mapped file (anonymous memory under ""), largest first.
std::vector<std::pair<std::string, long>> RssByFile(pid_t pid);
// User plus system CPU time consumed so far, in seconds, or -1.
double CpuSeconds(pid_t pid);
// Time on a CPU of the process's live threads, in seconds, to the nanosecond
// (sum of /proc/<pid>/task/*/schedstat), or -1. Finer than CpuSeconds's clock
// ticks, which matters for an idle process.
double RunSeconds(pid_t pid);

}  // namespace benchrun
