#include "daemon_harness.h"

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

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

namespace e2e {
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

// "I20261122 03:54:45.123456  1234 file.cpp:12] text"
bool ParseHeader(const std::string& line, LogLine& out) {
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

}  // namespace

bool WaitUntil(const std::function<bool()>& pred, Millis timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(Millis(20));
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
  return fs::exists(path, ec);
}

void PrepareInstallation(const std::string& sandboxId) {
  for (const char* dir : {sdp_paths::kLogDir, sdp_paths::kCfsDir, kRecordDir, kFakeBinDir})
    MakeDirs(dir);
  WriteFile(sdp_paths::kSsoScript, RecorderScript("dravinSSO.sh"), 0755);
  WriteFile(sdp_paths::kPopupScript, RecorderScript("sdpPopup.sh", "sleep 0.4\n: > \"$f.done\"\n"),
            0755);
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

Daemon::Daemon(const std::vector<std::string>& env) {
  static std::atomic<int> counter{0};
  const std::string base = "/tmp/daemon." + std::to_string(counter++);
  stderr_path_ = base + ".stderr";
  // The shell puts the fakes first in PATH and becomes the daemon (same pid).
  // No descriptor beyond the standard three, and nothing the test process
  // blocks or ignores, carries over.
  std::string sh = "/bin/sh", c = "-c", bin = TOLVARIND_BIN,
              script = std::string("export PATH=") + kFakeBinDir +
                       ":$PATH; exec \"$0\" </dev/null >" + base + ".stdout 2>" + stderr_path_;
  char* argv[] = {sh.data(), c.data(), script.data(), bin.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<std::string> vars = env;
  for (char** e = environ; *e; ++e) vars.emplace_back(*e);
  std::vector<char*> envp;
  for (auto& v : vars) envp.push_back(v.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, sh.c_str(), &actions, &attr, argv, envp.data()) == 0) pid_ = pid;
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
}

Daemon::~Daemon() {
  if (Running()) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::vector<LogLine> Daemon::Log(const std::string& severity) const {
  const std::string prefix = "tolvarind." + severity + ".", suffix = "." + std::to_string(pid_);
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(sdp_paths::kLogDir, ec)) {
    const std::string name = e.path().filename();
    if (name.rfind(prefix, 0) == 0 && name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<LogLine> lines;
  for (const auto& file : files)
    for (const auto& line : Lines(ReadFile(file))) {
      LogLine rec;
      if (ParseHeader(line, rec))
        lines.push_back(rec);
      else if (!lines.empty())
        lines.back().text += "\n" + line;  // a message with line feeds in it
    }
  return lines;
}

std::vector<LogLine> Daemon::MainThreadLog(const std::string& file) const {
  std::vector<LogLine> out;
  for (auto& l : Log())
    if (l.tid == static_cast<unsigned long>(pid_) && l.file == file) out.push_back(l);
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

bool Daemon::Signal(int sig) const { return pid_ > 0 && kill(pid_, sig) == 0; }

bool Daemon::Running() {
  if (pid_ <= 0 || status_) return false;
  int status = 0;
  const pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) status_ = status;
  return r == 0;
}

std::optional<int> Daemon::WaitExit(Millis timeout) {
  WaitUntil([&] { return !Running(); }, timeout);
  return status_;
}

std::string Daemon::Stderr() const { return ReadFile(stderr_path_); }

std::string SanitizerReport(const std::string& text) {
  for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                             "ERROR: LeakSanitizer", "runtime error:"}) {
    const size_t at = text.find(marker);
    if (at != std::string::npos) return text.substr(at, 4000);
  }
  return "";
}

}  // namespace e2e
