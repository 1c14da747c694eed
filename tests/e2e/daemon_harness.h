// The real `tolvarind` binary in the test sandbox, its glog files, the
// installation's files, recording fakes of its scripts and of notify-send.
// REQUIRES: the process is in the sandbox (sandbox_main).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

using Millis = std::chrono::milliseconds;

inline constexpr char kRecordDir[] = "/tmp/rec";       // the fakes' records
inline constexpr char kFakeBinDir[] = "/tmp/fakebin";  // first in the daemon's PATH

// Polls `pred` until it holds or `timeout` passes; returns its last value.
bool WaitUntil(const std::function<bool()>& pred, Millis timeout);

void MakeDirs(const std::string& path);
// Creates the parent directories; written aside and renamed into place.
void WriteFile(const std::string& path, const std::string& text, unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // empty when unreadable
bool Exists(const std::string& path);

// The log directory, the peer's session directory, safespace.ini with
// `sandboxId` (none when empty), and recording fakes of the SSO and pop-up
// scripts and of notify-send. IPv6 is off on the sandbox's interface so that
// the heartbeat carries no IPv6 address.
void PrepareInstallation(const std::string& sandboxId);

// The argument vectors a fake ("dravinSSO.sh", "sdpPopup.sh", "notify-send")
// was called with, in no particular order. The pop-up fake takes 0.4 s and
// then leaves "<record>.done" beside its record.
std::vector<std::vector<std::string>> RecordedCalls(const std::string& name);

struct LogLine {
  char severity = 0;      // 'I', 'W', 'E' or 'F'
  int64_t micros = 0;     // time of day, microseconds
  unsigned long tid = 0;  // Linux thread id of the logging thread
  std::string file;       // source file tag
  std::string text;       // the message; continuation lines joined by '\n'
};

// The real daemon, with stdin from /dev/null, stdout and stderr into files
// under /tmp, PATH starting with kFakeBinDir, default signal dispositions and
// no other inherited descriptor. `env` ("NAME=value") is added to the
// environment it inherits. The destructor SIGKILLs and reaps it.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& env = {});
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return pid_; }
  bool Started() const { return pid_ > 0; }

  // Its records in the log file of `severity` ("info", "warning", "error").
  std::vector<LogLine> Log(const std::string& severity = "info") const;
  // Records of the main thread (thread id == pid) whose file tag is `file`.
  std::vector<LogLine> MainThreadLog(const std::string& file) const;
  // Records whose text starts with `prefix`.
  int Count(const std::string& prefix, const std::string& severity = "info") const;
  bool WaitLog(const std::string& prefix, Millis timeout, int count = 1,
               const std::string& severity = "info") const;

  bool Signal(int sig) const;
  bool Running();                               // not yet exited, or exited but not reaped
  std::optional<int> WaitExit(Millis timeout);  // the wait status
  std::string Stderr() const;                   // sanitizer reports land here

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string stderr_path_;
};

// Empty when `text` holds no sanitizer report; otherwise the report's text.
std::string SanitizerReport(const std::string& text);

}  // namespace e2e
