// The one place that runs the real `tolvarind` binary for the end-to-end
// tests, the attack tests, the soak runs and the benchmarks: the installation
// it needs, recording fakes of its scripts and of notify-send, the daemon (or
// any other program) as a child, its glog files read back, and a run against
// the test peer shared by the checks of a suite.
//
// REQUIRES: the process is in the test sandbox (sandbox.h), so every fixed
// path used here is a private tmpfs.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "peer_server.h"

namespace harness {

using Millis = std::chrono::milliseconds;
using namespace std::chrono_literals;

inline constexpr char kRecordDir[] = "/tmp/rec";       // the fakes' records
inline constexpr char kFakeBinDir[] = "/tmp/fakebin";  // first in the daemon's PATH

// Polls `pred` every `step` until it holds or `timeout` passes; its last value.
bool WaitUntil(const std::function<bool()>& pred, Millis timeout, Millis step = 20ms);

void MakeDirs(const std::string& path);
// Creates the parent directories; written aside and renamed into place.
void WriteFile(const std::string& path, const std::string& text, unsigned mode = 0644);
std::string ReadFile(const std::string& path);  // empty when unreadable
bool Exists(const std::string& path);
// Removes everything below `dir` but `dir`, never crossing into another file
// system (a bind-mounted source or build tree stays untouched).
void EmptyDir(const std::string& dir);

// The log directory, the peer's session directory, safespace.ini with
// `sandboxId` (none when empty), and recording fakes of the scripts and of
// notify-send. IPv6 is off on the sandbox's interface so that the heartbeat
// carries no IPv6 address.
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
  std::string text;       // the message
};
// "I20261122 03:54:45.123456  1234 file.cpp:12] text"; false for anything else.
bool ParseLogLine(const std::string& line, LogLine& out);

// A child with stdin from /dev/null, stdout and stderr into `out` (or
// /dev/null), default signal dispositions, an empty mask and no descriptor
// beyond the standard three. `env` entries ("NAME=value") replace or add to
// the inherited ones. The destructor SIGKILLs and reaps it.
class Process {
 public:
  explicit Process(const std::vector<std::string>& argv, const std::string& out = "",
                   const std::vector<std::string>& env = {});
  virtual ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  bool Started() const { return pid_ > 0; }
  bool Signal(int sig) const { return pid_ > 0 && ::kill(pid_, sig) == 0; }
  bool Running();                               // not yet exited, or exited but not reaped
  std::optional<int> WaitExit(Millis timeout);  // the wait status
  // Sends `sig` unless it has ended; true when it ended within `timeout`.
  bool Stop(int sig, Millis timeout) { return (!Running() || Signal(sig)) && WaitExit(timeout).has_value(); }

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// The real daemon with kFakeBinDir first in PATH. $TOLVARIND_E2E_DAEMON, when
// set, is started instead (a wrapper running it under valgrind).
class Daemon : public Process {
 public:
  explicit Daemon(const std::vector<std::string>& env = {});

  // The records of its log files of `severity` ("info", "warning", "error").
  std::vector<LogLine> Log(const std::string& severity = "info") const;
  // Records of the main thread (thread id == pid) whose file tag is `file`.
  std::vector<LogLine> MainThreadLog(const std::string& file) const;
  // Records whose text starts with `prefix`.
  int Count(const std::string& prefix, const std::string& severity = "info") const;
  bool WaitLog(const std::string& prefix, Millis timeout, int count = 1,
               const std::string& severity = "info") const;
  // A sanitizer's or memcheck's report about this daemon ("" when none).
  std::string Report() const;

 private:
  Daemon(const std::string& out, const std::vector<std::string>& env);
  std::vector<std::string> LogFiles(const std::string& severity) const;

  std::string out_;
};

// The test peer listening on the daemon's socket, then the daemon.
struct DaemonRun {
  std::unique_ptr<sdppeer::PeerServer> peer;
  std::unique_ptr<Daemon> daemon;

  std::string Start(const std::vector<std::string>& env = {});  // "" or what failed
  // In the command loop (commands are taken only once the desktop is
  // prepared), and the peer has accepted: a frame can only go out on an
  // accepted connection, and connect() returns before the accept.
  bool WaitLoop(Millis timeout = 30s);
  // Sends a shell command touching /tmp/rec/<name> (once connected); true once it ran.
  bool RunsCommand(const std::string& name, Millis timeout = 10s);
  // A heartbeat on the current connection, waiting for one if none came yet.
  std::optional<sdppeer::Frame> NextHeartbeat(Millis timeout = 6s);
};

// One run for every check of a suite, with sandbox id "abc". A suite's
// SetUpTestSuite() prepares files, then calls Begin() and its own waits; a
// reason given to Fail() fails every check. At the end the daemon must stop
// on SIGTERM with status 0 and leave no sanitizer or memcheck report.
class SharedRun : public ::testing::Test {
 protected:
  static bool Begin(bool waitLoop = true);
  static bool Fail(const std::string& why);
  static void TearDownTestSuite();
  void SetUp() override;

  static inline DaemonRun run_;
  static inline sdppeer::PeerServer* peer_ = nullptr;
  static inline Daemon* daemon_ = nullptr;
  static inline std::string error_;
};

// Stops `daemon` with SIGTERM and expects status 0 and no report.
void ExpectCleanStop(Daemon& daemon, Millis timeout = 60s);

}  // namespace harness
