// What the daemon's end-to-end tests share: starting the real `tolvarind`
// binary inside the test sandbox, reading its glog files, the installation's
// files and the recording fakes of the scripts and of notify-send, and polling
// with deadlines. Tests see the daemon only through the socket (sdppeer), the
// files it writes and its log lines.
//
// REQUIRES: the process is in the sandbox (sandbox_main), so every fixed path
// below is a private tmpfs.
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

// Where the recording fakes leave one file per call.
inline constexpr char kRecordDir[] = "/tmp/rec";
// Put in front of PATH for the daemon; holds the fake notify-send.
inline constexpr char kFakeBinDir[] = "/tmp/fakebin";

// Polls `pred` every few milliseconds until it holds or `timeout` passes;
// returns its last value.
bool WaitUntil(const std::function<bool()>& pred, Millis timeout);

void MakeDirs(const std::string& path);
void WriteFile(const std::string& path, const std::string& text, unsigned mode = 0644);
// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool Exists(const std::string& path);
// Mode bits (e.g. 0755) of `path`, or -1.
int FileMode(const std::string& path);
// Runs iproute2's `ip` with `args`; true on exit status 0.
bool Ip(const std::string& args);

// The installation a daemon run needs: the log directory, the peer's session
// directory, safespace.ini with `sandboxId` (none when empty), recording fakes
// of the SSO and pop-up scripts and of notify-send. IPv6 is switched off on
// the sandbox's interface so that the heartbeat carries no address there.
void PrepareInstallation(const std::string& sandboxId);

// The calls a recording fake saw, each as its argument vector, in no
// particular order. `name` is "dravinSSO.sh", "sdpPopup.sh" or "notify-send".
std::vector<std::vector<std::string>> RecordedCalls(const std::string& name);
// True when a recorded call of `name` with `args` has left its end mark (only
// the pop-up fake leaves one, 0.4 s after recording the call).
bool CallEnded(const std::string& name, const std::vector<std::string>& args);

// One glog record.
struct LogLine {
  char severity = 0;      // 'I', 'W', 'E' or 'F'
  int64_t micros = 0;     // time of day, microseconds
  unsigned long tid = 0;  // Linux thread id of the logging thread
  std::string file;       // source file tag
  std::string text;       // the message; continuation lines joined by '\n'
};

// The records of process `pid` in its log file of `severity` ("info",
// "warning" or "error"), in file order.
std::vector<LogLine> ReadLog(pid_t pid, const std::string& severity = "info");

// The real daemon binary, started with stdin from /dev/null and stdout and
// stderr into files under /tmp, PATH starting with kFakeBinDir and no
// inherited descriptor besides those three.
class Daemon {
 public:
  Daemon();
  // Kills (SIGKILL) and reaps the process if it still runs.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return pid_; }
  bool Started() const { return pid_ > 0; }

  std::vector<LogLine> Log(const std::string& severity = "info") const {
    return ReadLog(pid_, severity);
  }
  // Records of the main thread (thread id == pid) whose file tag is `file`.
  std::vector<LogLine> MainThreadLog(const std::string& file) const;
  // Records whose text starts with `prefix`.
  int Count(const std::string& prefix, const std::string& severity = "info") const;
  // Waits until at least `count` records start with `prefix`.
  bool WaitLog(const std::string& prefix, Millis timeout, int count = 1,
               const std::string& severity = "info") const;

  bool Signal(int sig) const;
  // True while the process has not exited (or has exited but is not reaped).
  bool Running();
  // The wait status once the process ended within `timeout`.
  std::optional<int> WaitExit(Millis timeout);

  // What the process wrote to its standard error (sanitizer reports land here).
  std::string Stderr() const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string stderr_path_;
};

// Empty when `text` holds no sanitizer report; otherwise the report's text.
std::string SanitizerReport(const std::string& text);

}  // namespace e2e
