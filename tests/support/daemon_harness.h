// The one place that runs the real `tolvarind` binary for the end-to-end
// tests, the attack tests, the soak runs and the benchmarks: the installation
// it needs, recording fakes of its scripts and of notify-send, the daemon (or
// any other program) as a child, its glog files read back, and a run against
// the test peer shared by the checks of a suite.
//
// REQUIRES: the process is in the test sandbox (sandbox.h), so every fixed
// path used here is a private tmpfs.
#pragma once

#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "peer_server.h"  // with <chrono>, <functional>, <optional>, <memory>, <string>, <vector>
#include "sandbox.h"
#include "sdp_paths.h"

namespace harness {

using Millis = std::chrono::milliseconds;
using namespace std::chrono_literals;

inline constexpr char kFakeBinDir[] = "/tmp/fakebin";  // first in the daemon's PATH

namespace detail {

inline constexpr char kRecordDir[] = "/tmp/rec";  // the fakes' records

// Every fake writes its arguments, one a line, to a file of its own under
// /tmp/rec/<its name>/, renamed into place when complete.
inline constexpr char kRecorder[] = R"(#!/bin/sh
d=/tmp/rec/${0##*/}
mkdir -p "$d"
f="$d/$$"
for a in "$@"; do printf '%s\n' "$a"; done > "$f.part"
mv "$f.part" "$f"
[ "${0##*/}" != sdpPopup.sh ] || { sleep 0.4; : > "$f.done"; }
)";

// The lines of the files matching `pattern`, in order by name.
inline std::vector<std::string> Lines(const std::string& pattern) {
  std::vector<std::string> out;
  glob_t files{};
  glob(pattern.c_str(), 0, nullptr, &files);
  for (size_t i = 0; i < files.gl_pathc; ++i) {
    std::ifstream in(files.gl_pathv[i], std::ios::binary);
    for (std::string line; std::getline(in, line);) out.push_back(line);
  }
  globfree(&files);
  return out;
}

}  // namespace detail

// Polls `pred` every `step` until it holds or `timeout` passes; its last value.
inline bool WaitUntil(const std::function<bool()>& pred, Millis timeout, Millis step = 20ms) {
  for (const auto end = std::chrono::steady_clock::now() + timeout;
       std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(step))
    if (pred()) return true;
  return pred();
}

inline void MakeDirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
}

// Creates the parent directories; written aside and renamed into place, so
// that a reader never sees half a file.
inline void WriteFile(const std::string& path, const std::string& text, unsigned mode = 0644) {
  MakeDirs(std::filesystem::path(path).parent_path());
  std::ofstream(path + ".writing", std::ios::binary | std::ios::trunc) << text;
  chmod((path + ".writing").c_str(), mode);
  rename((path + ".writing").c_str(), path.c_str());
}

// Empty when unreadable.
inline std::string ReadFile(const std::string& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}

// Links count, even dangling ones.
inline bool Exists(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

// Removes everything below `dir` but `dir`, never crossing into another file
// system (a bind-mounted source or build tree stays untouched).
inline void EmptyDir(const std::string& dir) {
  (void)!std::system(("find '" + dir + "' -xdev -mindepth 1 -delete 2>/dev/null").c_str());
}

// The log directory, the peer's session directory, safespace.ini with
// `sandboxId` (none when empty), and recording fakes of the scripts and of
// notify-send. IPv6 is off on the sandbox's interface so that the heartbeat
// carries no IPv6 address.
inline void PrepareInstallation(const std::string& sandboxId) {
  for (const char* dir : {sdp_paths::kLogDir, sdp_paths::kCfsDir, detail::kRecordDir})
    MakeDirs(dir);
  chmod(detail::kRecordDir, 01777);  // commands may run as the desktop user
  WriteFile(sdp_paths::kSsoScript, detail::kRecorder, 0755);
  WriteFile(sdp_paths::kPopupScript, detail::kRecorder, 0755);
  WriteFile(std::string(kFakeBinDir) + "/notify-send", detail::kRecorder, 0755);
  WriteFile(sdp_paths::kAumScript, "#!/bin/sh\nexit 0\n", 0755);
  if (!sandboxId.empty())
    WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=" + sandboxId + "\n");
  std::ofstream("/proc/sys/net/ipv6/conf/vtest0/disable_ipv6") << "1\n";  // the sandbox's
}

// The argument vectors a fake ("dravinSSO.sh", "sdpPopup.sh", "notify-send")
// was called with, in no particular order. The pop-up fake takes 0.4 s and
// then leaves "<record>.done" beside its record.
inline std::vector<std::vector<std::string>> RecordedCalls(const std::string& name) {
  std::vector<std::vector<std::string>> calls;
  std::error_code ec;  // complete records only: no dot in their names
  for (const auto& e : std::filesystem::directory_iterator(detail::kRecordDir + ("/" + name), ec))
    if (!e.path().has_extension()) calls.push_back(detail::Lines(e.path()));
  return calls;
}

// One record of the daemon's glog files.
struct LogLine {
  int64_t micros = 0;     // time of day, microseconds
  unsigned long tid = 0;  // Linux thread id of the logging thread
  std::string file;       // source file tag
  std::string text;       // the message, line feeds and all
};

// A child with stdin from /dev/null, stdout and stderr into `out` (or
// /dev/null), default signal dispositions, an empty mask and no descriptor
// beyond the standard three. `env` entries ("NAME=value") replace or add to
// the inherited ones. The destructor SIGKILLs and reaps it.
class Process {
 public:
  explicit Process(const std::vector<std::string>& argv, const std::string& out = "",
                   const std::vector<std::string>& env = {})
      : out_(out) {
    // env(1) sets `env` and execs the program in place, keeping the pid.
    std::vector<std::string> args = env;
    if (!env.empty()) args.insert(args.begin(), "/usr/bin/env");
    args.insert(args.end(), argv.begin(), argv.end());
    std::vector<char*> cargv(args.size() + 1);  // ends in nullptr
    std::transform(args.begin(), args.end(), cargv.begin(), [](auto& a) { return a.data(); });
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.empty() ? "/dev/null" : out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attr, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attr, &signals);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (posix_spawnp(&pid_, cargv[0], &actions, &attr, cargv.data(), environ) != 0) pid_ = -1;
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Process() {
    if (Running() && Signal(SIGKILL)) waitpid(pid_, nullptr, 0);
  }
  Process(const Process&) = delete;

  pid_t pid() const { return pid_; }
  bool Started() const { return pid_ > 0; }
  bool Signal(int sig) const { return pid_ > 0 && kill(pid_, sig) == 0; }
  // Not yet exited, or exited but not reaped.
  bool Running() {
    if (pid_ <= 0 || status_) return false;
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) status_ = status;
    return r == 0;
  }
  // The wait status.
  std::optional<int> WaitExit(Millis timeout) {
    WaitUntil([&] { return !Running(); }, timeout);
    return status_;
  }
  // Sends `sig` unless it has ended; true when it ended within `timeout`.
  bool Stop(int sig, Millis timeout) { return (!Running() || Signal(sig)) && WaitExit(timeout); }

 protected:
  const std::string out_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// The real daemon with kFakeBinDir first in PATH. $TOLVARIND_E2E_DAEMON, when
// set, is started instead (a wrapper running it under valgrind). The shell
// execs it in place: the pid is the daemon's.
class Daemon : public Process {
 public:
  explicit Daemon(const std::vector<std::string>& env = {})
      : Process({"/bin/sh", "-c",
                 "PATH=" + std::string(kFakeBinDir) + ":$PATH exec \"${TOLVARIND_E2E_DAEMON:-$0}\"",
                 TOLVARIND_BIN},
                "/tmp/daemon." + std::to_string(outputs_++) + ".out", env) {}

  // The records of its log files of `severity` ("info", "warning", "error").
  std::vector<LogLine> Log(const std::string& severity = "info") const {
    std::vector<LogLine> records;
    // glog names them "<prefix><yyyymmdd-hhmmss>.<pid>".
    for (const std::string& line : detail::Lines(std::string(sdp_paths::kLogDir) + "/tolvarind." +
                                                 severity + ".*." + std::to_string(pid_))) {
      // "I20261122 03:54:45.123456  1234 file.cpp:12] text"
      char file[256];
      int h, m, s, us, n = 0;
      unsigned long tid;
      std::sscanf(line.c_str(), "%*1[IWEF]%*8d %2d:%2d:%2d.%6d %lu %255[^:]:%*d]%*1[ ]%n", &h, &m,
                  &s, &us, &tid, file, &n);
      if (n > 0)
        records.push_back({((h * 60 + m) * 60 + s) * 1000000LL + us, tid, file, line.substr(n)});
      else if (!records.empty())
        records.back().text += "\n" + line;
    }
    return records;
  }
  // Records of the main thread (thread id == pid) whose file tag is `file`.
  std::vector<LogLine> MainThreadLog(const std::string& file) const {
    std::vector<LogLine> out;
    for (auto& l : Log())
      if (l.tid == static_cast<unsigned long>(pid_) && l.file == file) out.push_back(l);
    return out;
  }
  // Records whose text starts with `prefix`.
  int Count(const std::string& prefix, const std::string& severity = "info") const {
    const auto lines = Log(severity);
    return std::count_if(lines.begin(), lines.end(),
                         [&](const LogLine& l) { return l.text.rfind(prefix, 0) == 0; });
  }
  bool WaitLog(const std::string& prefix, Millis timeout, int count = 1,
               const std::string& severity = "info") const {
    return WaitUntil([&] { return Count(prefix, severity) >= count; }, timeout);
  }
  // A sanitizer's or memcheck's report about this daemon ("" when none).
  std::string Report() const {
    const std::string text =
        ReadFile(out_) + ReadFile("/tmp/memcheck." + std::to_string(pid_) + ".log");
    for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                               "ERROR: LeakSanitizer", "runtime error:", "Invalid read",
                               "Invalid write", "definitely lost in", "indirectly lost in"})
      if (text.find(marker) != std::string::npos) return text.substr(text.find(marker), 4000);
    return "";
  }

 private:
  static inline int outputs_ = 0;
};

// Stops `daemon` with SIGTERM and expects status 0 and no report.
inline void ExpectCleanStop(Daemon& daemon, Millis timeout = 60s) {
  ASSERT_TRUE(daemon.Signal(SIGTERM));
  const auto status = daemon.WaitExit(timeout);
  ASSERT_TRUE(status.has_value()) << "still running after SIGTERM";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
  EXPECT_EQ(daemon.Report(), "");
}

// The test peer listening on the daemon's socket, then the daemon.
struct DaemonRun {
  std::unique_ptr<sdppeer::PeerServer> peer;
  std::unique_ptr<Daemon> daemon;

  // "" or what failed.
  std::string Start(const std::vector<std::string>& env = {}) {
    peer = std::make_unique<sdppeer::PeerServer>();
    std::string error;
    if (!peer->Listen(sdp_paths::kDaemonSocket, &error)) return "peer: " + error;
    daemon = std::make_unique<Daemon>(env);
    return daemon->Started() ? "" : "daemon did not start";
  }
  // In the command loop (commands are taken only once the desktop is
  // prepared: the resource step's last line, whatever it found), and the
  // peer has accepted: a frame can only go out on an accepted connection,
  // and connect() returns before the accept.
  bool WaitLoop(Millis timeout = 30s) {
    const auto done = [&] {
      return daemon->Count("deal user resource size:", "error") +
             daemon->Count("read userinfo failed!", "error");
    };
    return WaitUntil(done, timeout, 50ms) && peer->WaitAccepted(1, 5s);
  }
  // Sends a shell command touching /tmp/rec/<name> once connected; true once it ran.
  bool RunsCommand(const std::string& name, Millis timeout = 10s) {
    const std::string touched = std::string(detail::kRecordDir) + "/" + name;
    std::remove(touched.c_str());  // left by an earlier run
    const auto sent = [&] { return peer->SendFrame(2, 0x301, "touch '" + touched + "'", 1s); };
    return WaitUntil(sent, timeout) && WaitUntil([&] { return Exists(touched); }, timeout);
  }
  // A heartbeat on the current connection, waiting for one if none came yet.
  std::optional<sdppeer::Frame> NextHeartbeat(Millis timeout = 6s) {
    const uint64_t conn = peer->CurrentConnection();
    return peer->WaitFrame(
        [&](const sdppeer::Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; },
        timeout);
  }
};

// One run for every check of a suite, with sandbox id "abc". A suite's
// SetUpTestSuite() prepares files, then calls Begin() (which waits for the
// command loop) and its own waits; a reason given to Fail() fails every
// check. At the end the daemon must stop on SIGTERM with status 0 and leave
// no sanitizer or memcheck report.
class SharedRun : public ::testing::Test {
 protected:
  static bool Begin() {
    const std::string error = run_.Start();
    peer_ = run_.peer.get();
    daemon_ = run_.daemon.get();
    return error.empty() ? run_.WaitLoop() || Fail("never in the command loop") : Fail(error);
  }
  static bool Fail(const std::string& why) {
    if (error_.empty()) error_ = why;
    return false;
  }
  static void TearDownTestSuite() {
    if (daemon_ && daemon_->Running()) ExpectCleanStop(*daemon_);
    run_ = DaemonRun();
    error_.clear();
  }
  void SetUp() override {
    ASSERT_EQ(error_, "");
    ASSERT_TRUE(daemon_->Running());
  }

  static inline DaemonRun run_;
  static inline sdppeer::PeerServer* peer_ = nullptr;
  static inline Daemon* daemon_ = nullptr;
  static inline std::string error_;
};

}  // namespace harness
