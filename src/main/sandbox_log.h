// The process's glog set-up: files under the installation's log directory, one
// per severity, flushed record by record, and glog's crash report routed into
// the ERROR log. Exactly one instance lives on main's stack for the whole run.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// The log directory's bounds (docs/operations.md): glog starts a new file when
// one reaches kLogFileMegabytes and its cleaner removes the daemon's files
// untouched for kLogMaxAgeDays; SweepLogDirectory(), every kLogSweepInterval,
// keeps all of the daemon's files together, the ones being written included,
// under kLogBudgetBytes. Ten files' worth, with the three being written.
inline constexpr unsigned kLogFileMegabytes = 10;
inline constexpr uint64_t kLogBudgetBytes = uint64_t{100} << 20;
inline constexpr unsigned kLogMaxAgeDays = 14;
inline constexpr std::chrono::seconds kLogSweepInterval{10};

class SandboxLOG {
 public:
  // `program` names the logger (the first element of the argument vector).
  explicit SandboxLOG(const char* program);
  ~SandboxLOG();
  SandboxLOG(const SandboxLOG&) = delete;
  SandboxLOG& operator=(const SandboxLOG&) = delete;
};

// glog's failure writer: writes `size` bytes of `data` as one ERROR record.
// REQUIRES: `data` is not null when `size` is not 0.
void SignalHandle(const char* data, std::size_t size);

// Removes the daemon's oldest log files until its files in the log directory
// fit kLogBudgetBytes (log_budget.h). Logs the first failure to open the
// directory only: without it glog writes elsewhere, and so it stays.
void SweepLogDirectory();
