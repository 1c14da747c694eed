// What the daemon-level benchmarks measure with, on top of the daemon harness
// (tests/support/daemon_harness.h): clocks, the daemon's INFO log read as it
// grows, and a process's own figures from /proc.
//
// REQUIRES: the process is in the test sandbox (testsupport::EnterSandbox), so
// every fixed path used here is a private tmpfs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "figures.h"

namespace benchrun {

using Millis = std::chrono::milliseconds;

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
