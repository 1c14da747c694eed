#include "daemon_harness.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sandbox.h"
#include "sdp_paths.h"

extern char** environ;

namespace harness {
namespace fs = std::filesystem;
namespace {

// A fake that writes its arguments, one a line, to a file of its own, renamed
// into place when complete; `tail` runs afterwards.
std::string RecorderScript(const std::string& name, const std::string& tail = "") {
  return "#!/bin/sh\nd=" + std::string(kRecordDir) + "/" + name +
         "\nmkdir -p \"$d\"\nf=\"$d/$$\"\n: > \"$f.part\"\n"
         "for a in \"$@\"; do printf '%s\\n' \"$a\" >> \"$f.part\"; done\n"
         "mv \"$f.part\" \"$f\"\n" +
         tail;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

void EmptyDirOn(const fs::path& dir, dev_t dev) {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) {
    struct stat st;
    if (lstat(e.path().c_str(), &st) != 0 || st.st_dev != dev) continue;
    if (S_ISDIR(st.st_mode)) EmptyDirOn(e.path(), dev);
    fs::remove(e.path(), ec);
  }
}

}  // namespace

bool WaitUntil(const std::function<bool()>& pred, Millis timeout, Millis step) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(step);
  }
  return pred();
}

void MakeDirs(const std::string& path) {
  std::error_code ec;
  fs::create_directories(path, ec);
}

void WriteFile(const std::string& path, const std::string& text, unsigned mode) {
  MakeDirs(fs::path(path).parent_path());
  const std::string part = path + ".writing";  // a reader never sees half a file
  std::ofstream(part, std::ios::binary | std::ios::trunc) << text;
  chmod(part.c_str(), mode);
  rename(part.c_str(), path.c_str());
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool Exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

void EmptyDir(const std::string& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) EmptyDirOn(dir, st.st_dev);
}

void PrepareInstallation(const std::string& sandboxId) {
  for (const char* dir : {sdp_paths::kLogDir, sdp_paths::kCfsDir, kRecordDir, kFakeBinDir})
    MakeDirs(dir);
  chmod(kRecordDir, 01777);  // commands may run as the desktop user
  WriteFile(sdp_paths::kSsoScript, RecorderScript("dravinSSO.sh"), 0755);
  WriteFile(sdp_paths::kPopupScript, RecorderScript("sdpPopup.sh", "sleep 0.4\n: > \"$f.done\"\n"),
            0755);
  WriteFile(sdp_paths::kAumScript, "#!/bin/sh\nexit 0\n", 0755);
  WriteFile(std::string(kFakeBinDir) + "/notify-send", RecorderScript("notify-send"), 0755);
  if (!sandboxId.empty())
    WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=" + sandboxId + "\n");
  std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + testsupport::kSandboxIfName +
                "/disable_ipv6")
      << "1\n";
}

std::vector<std::vector<std::string>> RecordedCalls(const std::string& name) {
  std::vector<std::vector<std::string>> calls;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(std::string(kRecordDir) + "/" + name, ec))
    if (e.path().filename().string().find('.') == std::string::npos)  // complete records only
      calls.push_back(Lines(ReadFile(e.path())));
  return calls;
}

bool ParseLogLine(const std::string& line, LogLine& out) {
  char sev = 0;
  int date, h, m, s, us, n = 0;
  unsigned long tid;
  if (std::sscanf(line.c_str(), "%c%8d %2d:%2d:%2d.%6d %lu %n", &sev, &date, &h, &m, &s, &us, &tid,
                  &n) != 7 ||
      n == 0 || std::strchr("IWEF", sev) == nullptr)
    return false;
  const size_t close = line.find(']', n), colon = line.rfind(':', close);
  if (close == std::string::npos || colon == std::string::npos || colon < size_t(n)) return false;
  out = {sev, ((h * 60 + m) * 60 + s) * 1000000LL + us, tid, line.substr(n, colon - n),
         close + 2 <= line.size() ? line.substr(close + 2) : ""};
  return true;
}

Process::Process(const std::vector<std::string>& argv, const std::string& out,
                 const std::vector<std::string>& env) {
  std::vector<std::string> vars = env, args = argv;
  for (char** e = environ; *e; ++e) {
    const size_t n = std::strcspn(*e, "=") + 1;
    if (std::none_of(env.begin(), env.end(), [&](const std::string& x) { return x.compare(0, n, *e, n) == 0; }))
      vars.emplace_back(*e);
  }
  std::vector<char*> cargv, cenv;
  for (auto& a : args) cargv.push_back(a.data());
  for (auto& v : vars) cenv.push_back(v.data());
  cargv.push_back(nullptr);
  cenv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.empty() ? "/dev/null" : out.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  if (posix_spawnp(&pid, cargv[0], &actions, &attr, cargv.data(), cenv.data()) == 0) pid_ = pid;
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
}

Process::~Process() {
  if (Running()) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool Process::Running() {
  if (pid_ <= 0 || status_) return false;
  int status = 0;
  const pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) status_ = status;
  return r == 0;
}

std::optional<int> Process::WaitExit(Millis timeout) {
  WaitUntil([&] { return !Running(); }, timeout);
  return status_;
}

namespace {

std::string DaemonBinary() {
  const char* wrapper = std::getenv("TOLVARIND_E2E_DAEMON");
  return wrapper && *wrapper ? wrapper : TOLVARIND_BIN;
}

std::string NextOutput() {
  static std::atomic<int> counter{0};
  return "/tmp/daemon." + std::to_string(counter++) + ".out";
}

std::vector<std::string> WithFakesFirst(std::vector<std::string> env) {
  const char* path = std::getenv("PATH");
  env.push_back(std::string("PATH=") + kFakeBinDir + ":" + (path ? path : "/usr/bin:/bin"));
  return env;
}

}  // namespace

Daemon::Daemon(const std::vector<std::string>& env) : Daemon(NextOutput(), env) {}

Daemon::Daemon(const std::string& out, const std::vector<std::string>& env)
    : Process({DaemonBinary()}, out, WithFakesFirst(env)), out_(out) {}

std::vector<std::string> Daemon::LogFiles(const std::string& severity) const {
  const std::string prefix = "tolvarind." + severity + ".", suffix = "." + std::to_string(pid());
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(sdp_paths::kLogDir, ec)) {
    const std::string name = e.path().filename();
    if (name.rfind(prefix, 0) == 0 && name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<LogLine> Daemon::Log(const std::string& severity) const {
  std::vector<LogLine> lines;
  for (const auto& file : LogFiles(severity))
    for (const auto& line : Lines(ReadFile(file))) {
      LogLine rec;
      if (ParseLogLine(line, rec))
        lines.push_back(rec);
      else if (!lines.empty())
        lines.back().text += "\n" + line;  // a message with line feeds in it
    }
  return lines;
}

std::vector<LogLine> Daemon::MainThreadLog(const std::string& file) const {
  std::vector<LogLine> out;
  for (auto& l : Log())
    if (l.tid == static_cast<unsigned long>(pid()) && l.file == file) out.push_back(l);
  return out;
}

int Daemon::Count(const std::string& prefix, const std::string& severity) const {
  const auto lines = Log(severity);
  return std::count_if(lines.begin(), lines.end(),
                       [&](const LogLine& l) { return l.text.rfind(prefix, 0) == 0; });
}

bool Daemon::WaitLog(const std::string& prefix, Millis timeout, int count,
                     const std::string& severity) const {
  return WaitUntil([&] { return Count(prefix, severity) >= count; }, timeout);
}

std::string Daemon::Report() const {
  const std::string text =
      ReadFile(out_) + ReadFile("/tmp/memcheck." + std::to_string(pid()) + ".log");
  for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                             "ERROR: LeakSanitizer", "runtime error:", "Invalid read",
                             "Invalid write", "definitely lost in", "indirectly lost in"}) {
    const size_t at = text.find(marker);
    if (at != std::string::npos) return text.substr(at, 4000);
  }
  return "";
}

void ExpectCleanStop(Daemon& daemon, Millis timeout) {
  ASSERT_TRUE(daemon.Signal(SIGTERM));
  const auto status = daemon.WaitExit(timeout);
  ASSERT_TRUE(status.has_value()) << "still running after SIGTERM";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
  EXPECT_EQ(daemon.Report(), "");
}

std::string DaemonRun::Start(const std::vector<std::string>& env) {
  peer = std::make_unique<sdppeer::PeerServer>();
  std::string error;
  if (!peer->Listen(sdp_paths::kDaemonSocket, &error)) return "peer: " + error;
  daemon = std::make_unique<Daemon>(env);
  return daemon->Started() ? "" : "daemon did not start";
}

bool DaemonRun::WaitLoop(Millis timeout) {
  // The resource step ends the start-up: its last line, whatever it found.
  return WaitUntil(
             [&] {
               return daemon->Count("deal user resource size:", "error") +
                          daemon->Count("read userinfo failed!", "error") >
                      0;
             },
             timeout, 50ms) &&
         peer->WaitAccepted(1, 5s);
}

bool DaemonRun::RunsCommand(const std::string& name, Millis timeout) {
  const std::string touched = std::string(kRecordDir) + "/" + name;
  std::remove(touched.c_str());  // left by an earlier run
  // Sent once there is a connection to send it on.
  return WaitUntil([&] { return peer->SendFrame(2, 0x301, "touch '" + touched + "'", 1s); }, timeout) &&
         WaitUntil([&] { return Exists(touched); }, timeout);
}

std::optional<sdppeer::Frame> DaemonRun::NextHeartbeat(Millis timeout) {
  const uint64_t conn = peer->CurrentConnection();
  return peer->WaitFrame(
      [&](const sdppeer::Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, timeout);
}

bool SharedRun::Begin(bool waitLoop) {
  const std::string error = run_.Start();
  if (!error.empty()) return Fail(error);
  peer_ = run_.peer.get();
  daemon_ = run_.daemon.get();
  return !waitLoop || run_.WaitLoop() || Fail("never in the command loop");
}

bool SharedRun::Fail(const std::string& why) {
  if (error_.empty()) error_ = why;
  return false;
}

void SharedRun::TearDownTestSuite() {
  if (daemon_ && daemon_->Running()) ExpectCleanStop(*daemon_);
  run_ = DaemonRun();
  peer_ = nullptr;
  daemon_ = nullptr;
  error_.clear();
}

void SharedRun::SetUp() {
  ASSERT_EQ(error_, "");
  ASSERT_TRUE(daemon_->Running());
}

}  // namespace harness
