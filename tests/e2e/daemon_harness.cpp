#include "daemon_harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "sandbox.h"
#include "sdp_paths.h"

extern char** environ;

namespace e2e {
namespace {

std::atomic<int> g_daemonCounter{0};

// A fake that writes its arguments, one per line, to a file of its own and
// renames it into place when complete. `tail` runs afterwards.
std::string RecorderScript(const std::string& name, const std::string& tail = "") {
  return "#!/bin/sh\n"
         "d=" +
         std::string(kRecordDir) + "/" + name +
         "\n"
         "mkdir -p \"$d\"\n"
         "f=\"$d/$$\"\n"
         ": > \"$f.part\"\n"
         "for a in \"$@\"; do printf '%s\\n' \"$a\" >> \"$f.part\"; done\n"
         "mv \"$f.part\" \"$f\"\n" +
         tail;
}

bool ParseDigits(const std::string& s, size_t& i, size_t n, int64_t& out) {
  out = 0;
  for (size_t k = 0; k < n; ++k, ++i) {
    if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + (s[i] - '0');
  }
  return true;
}

// "I20261122 03:54:45.123456  1234 file.cpp:12] text"
bool ParseHeader(const std::string& line, LogLine& out) {
  if (line.size() < 30 || std::strchr("IWEF", line[0]) == nullptr) return false;
  size_t i = 1;
  int64_t date, h, m, s, us;
  if (!ParseDigits(line, i, 8, date) || line[i++] != ' ') return false;
  if (!ParseDigits(line, i, 2, h) || line[i++] != ':') return false;
  if (!ParseDigits(line, i, 2, m) || line[i++] != ':') return false;
  if (!ParseDigits(line, i, 2, s) || line[i++] != '.') return false;
  if (!ParseDigits(line, i, 6, us)) return false;
  while (i < line.size() && line[i] == ' ') ++i;
  size_t tidStart = i;
  unsigned long tid = 0;
  while (i < line.size() && line[i] >= '0' && line[i] <= '9') tid = tid * 10 + (line[i++] - '0');
  if (i == tidStart || i >= line.size() || line[i++] != ' ') return false;
  size_t close = line.find("] ", i);
  if (close == std::string::npos) {
    if (line.size() >= 1 && line.back() == ']')
      close = line.size() - 1;
    else
      return false;
  }
  const std::string tag = line.substr(i, close - i);
  const size_t colon = tag.rfind(':');
  if (colon == std::string::npos || tag.find(' ') != std::string::npos) return false;
  out.severity = line[0];
  out.micros = ((h * 60 + m) * 60 + s) * 1000000 + us;
  out.tid = tid;
  out.file = tag.substr(0, colon);
  out.text = close + 2 <= line.size() ? line.substr(close + 2) : "";
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
  for (size_t i = 1; i <= path.size(); ++i)
    if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
}

void WriteFile(const std::string& path, const std::string& text, unsigned mode) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) MakeDirs(path.substr(0, slash));
  // Written aside and renamed, so that a reader never sees half a file.
  const std::string part = path + ".writing";
  {
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out << text;
  }
  chmod(part.c_str(), mode);
  rename(part.c_str(), path.c_str());
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

int FileMode(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return static_cast<int>(st.st_mode & 07777);
}

bool Ip(const std::string& args) {
  const char* ip = access("/usr/sbin/ip", X_OK) == 0 ? "/usr/sbin/ip" : "/sbin/ip";
  const std::string cmd = std::string(ip) + " " + args;
  return std::system(cmd.c_str()) == 0;
}

void PrepareInstallation(const std::string& sandboxId) {
  MakeDirs(sdp_paths::kLogDir);
  MakeDirs(sdp_paths::kCfsDir);
  MakeDirs(kRecordDir);
  MakeDirs(kFakeBinDir);
  WriteFile(sdp_paths::kSsoScript, RecorderScript("dravinSSO.sh"), 0755);
  // The pop-up script takes a while and marks its end, so that a test can tell
  // whether the daemon waited for it.
  WriteFile(sdp_paths::kPopupScript, RecorderScript("sdpPopup.sh", "sleep 0.4\n: > \"$f.done\"\n"),
            0755);
  WriteFile(std::string(kFakeBinDir) + "/notify-send", RecorderScript("notify-send"), 0755);
  if (!sandboxId.empty())
    WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=" + sandboxId + "\n");
  std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + testsupport::kSandboxIfName +
                "/disable_ipv6")
      << "1\n";
}

namespace {

struct Call {
  std::vector<std::string> args;
  bool ended = false;
};

std::vector<Call> Calls(const std::string& name) {
  std::vector<Call> calls;
  const std::string dir = std::string(kRecordDir) + "/" + name;
  DIR* d = opendir(dir.c_str());
  if (!d) return calls;
  while (dirent* e = readdir(d)) {
    const std::string entry = e->d_name;
    // Complete records are named by the fake's pid alone.
    if (entry == "." || entry == ".." || entry.find('.') != std::string::npos) continue;
    Call call;
    std::stringstream in(ReadFile(dir + "/" + entry));
    std::string arg;
    while (std::getline(in, arg)) call.args.push_back(arg);
    call.ended = Exists(dir + "/" + entry + ".done");
    calls.push_back(call);
  }
  closedir(d);
  return calls;
}

}  // namespace

std::vector<std::vector<std::string>> RecordedCalls(const std::string& name) {
  std::vector<std::vector<std::string>> out;
  for (auto& c : Calls(name)) out.push_back(c.args);
  return out;
}

bool CallEnded(const std::string& name, const std::vector<std::string>& args) {
  for (const auto& c : Calls(name))
    if (c.args == args && c.ended) return true;
  return false;
}

std::vector<LogLine> ReadLog(pid_t pid, const std::string& severity) {
  std::vector<LogLine> lines;
  const std::string prefix = "tolvarind." + severity + ".";
  const std::string suffix = "." + std::to_string(pid);
  DIR* d = opendir(sdp_paths::kLogDir);
  if (!d) return lines;
  std::vector<std::string> files;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      files.push_back(std::string(sdp_paths::kLogDir) + "/" + name);
  }
  closedir(d);
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::stringstream in(ReadFile(file));
    std::string line;
    while (std::getline(in, line)) {
      LogLine rec;
      if (ParseHeader(line, rec)) {
        lines.push_back(rec);
      } else if (!lines.empty()) {
        lines.back().text += "\n" + line;  // a message with line feeds in it
      }
    }
  }
  return lines;
}

Daemon::Daemon() {
  const int n = g_daemonCounter++;
  const std::string out = "/tmp/daemon." + std::to_string(n) + ".stdout";
  stderr_path_ = "/tmp/daemon." + std::to_string(n) + ".stderr";

  std::vector<std::string> env;
  const char* path = std::getenv("PATH");
  env.push_back(std::string("PATH=") + kFakeBinDir + ":" +
                (path ? path : "/usr/local/bin:/usr/bin:/bin"));
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "PATH=", 5) != 0) env.push_back(*e);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  // A fresh signal state: nothing the test process blocks or ignores carries over.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::string bin = TOLVARIND_BIN;
  char* argv[] = {bin.data(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, bin.c_str(), &actions, &attr, argv, envp.data()) == 0) pid_ = pid;
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
}

Daemon::~Daemon() {
  if (pid_ > 0 && Running()) {
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
}

std::vector<LogLine> Daemon::MainThreadLog(const std::string& file) const {
  std::vector<LogLine> out;
  for (auto& l : Log())
    if (l.tid == static_cast<unsigned long>(pid_) && l.file == file) out.push_back(l);
  return out;
}

int Daemon::Count(const std::string& prefix, const std::string& severity) const {
  int n = 0;
  for (const auto& l : Log(severity))
    if (l.text.compare(0, prefix.size(), prefix) == 0) ++n;
  return n;
}

bool Daemon::WaitLog(const std::string& prefix, Millis timeout, int count,
                     const std::string& severity) const {
  return WaitUntil([&] { return Count(prefix, severity) >= count; }, timeout);
}

bool Daemon::Signal(int sig) const { return pid_ > 0 && kill(pid_, sig) == 0; }

bool Daemon::Running() {
  if (pid_ <= 0 || status_) return false;
  int status = 0;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    status_ = status;
    return false;
  }
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
