#include "daemon_run.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "sdp_paths.h"

extern char** environ;

namespace benchrun {

bool WaitUntil(const std::function<bool()>& pred, Millis timeout, Millis step) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(step);
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
  const std::string part = path + ".writing";
  {
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out << text;
  }
  chmod(part.c_str(), mode);
  rename(part.c_str(), path.c_str());
}

namespace {

void EmptyDirOn(const std::string& dir, dev_t dev) {
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      // Another file system below: a tree the sandbox keeps reachable (the
      // source or build tree), never ours to clear.
      if (st.st_dev != dev) continue;
      EmptyDirOn(path, dev);
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
  }
  closedir(d);
}

}  // namespace

void EmptyDir(const std::string& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
  EmptyDirOn(dir, st.st_dev);
}

void PrepareInstallation(const std::string& sandboxId) {
  MakeDirs(sdp_paths::kLogDir);
  MakeDirs(sdp_paths::kCfsDir);
  // The scripts do nothing: the benchmarks measure the daemon, not them.
  for (const char* script : {sdp_paths::kSsoScript, sdp_paths::kPopupScript, sdp_paths::kAumScript})
    WriteFile(script, "#!/bin/sh\nexit 0\n", 0755);
  WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=" + sandboxId + "\n");
}

int64_t NowMicrosOfDay() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  tm local;
  localtime_r(&tv.tv_sec, &local);
  return ((local.tm_hour * 60LL + local.tm_min) * 60 + local.tm_sec) * 1000000 + tv.tv_usec;
}

double MonoSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}


std::vector<LogLine> LogTail::Poll() {
  std::vector<LogLine> lines;
  if (path_.empty()) return lines;
  FILE* f = std::fopen(path_.c_str(), "re");
  if (!f) return lines;
  std::fseek(f, offset_, SEEK_SET);
  char buf[1 << 16];
  size_t n;
  std::string data;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.append(buf, n);
  std::fclose(f);
  offset_ += static_cast<long>(data.size());
  partial_ += data;
  size_t start = 0;
  for (size_t nl; (nl = partial_.find('\n', start)) != std::string::npos; start = nl + 1) {
    LogLine rec;
    if (figures::ParseLogLine(partial_.substr(start, nl - start), rec)) lines.push_back(std::move(rec));
  }
  partial_.erase(0, start);
  return lines;
}

std::string InfoLogPath(pid_t pid) {
  const std::string prefix = "tolvarind.info.";
  const std::string suffix = "." + std::to_string(pid);
  std::string found;
  DIR* d = opendir(sdp_paths::kLogDir);
  if (!d) return found;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      found = std::string(sdp_paths::kLogDir) + "/" + name;
  }
  closedir(d);
  return found;
}

Child::Child(const std::vector<std::string>& argv, const std::string& out,
             const std::vector<std::string>& env) {
  std::vector<std::string> envs = env;
  for (char** e = environ; *e; ++e) {
    const char* eq = std::strchr(*e, '=');
    const size_t n = eq ? static_cast<size_t>(eq - *e) + 1 : std::strlen(*e);
    bool replaced = false;
    for (const auto& x : env) replaced = replaced || x.compare(0, n, *e, n) == 0;
    if (!replaced) envs.push_back(*e);
  }
  std::vector<char*> cenv;
  for (auto& e : envs) cenv.push_back(e.data());
  cenv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string sink = out.empty() ? "/dev/null" : out;
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, sink.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
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
  std::vector<std::string> args = argv;
  std::vector<char*> cargv;
  for (auto& a : args) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, cargv[0], &actions, &attr, cargv.data(), cenv.data()) == 0) pid_ = pid;
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
}

Child::~Child() {
  if (Running()) Stop(SIGKILL, Millis(5000));
}

bool Child::Running() {
  if (pid_ <= 0 || reaped_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    reaped_ = true;
    return false;
  }
  return true;
}

bool Child::Stop(int sig, Millis timeout) {
  if (!Running()) return true;
  kill(pid_, sig);
  return WaitUntil([this] { return !Running(); }, timeout);
}

namespace {

long StatusKiB(pid_t pid, const char* key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  const size_t klen = std::strlen(key);
  while (std::getline(in, line))
    if (line.compare(0, klen, key) == 0) return std::strtol(line.c_str() + klen, nullptr, 10);
  return -1;
}

}  // namespace

long RssKiB(pid_t pid) { return StatusKiB(pid, "VmRSS:"); }
long HwmKiB(pid_t pid) { return StatusKiB(pid, "VmHWM:"); }

std::vector<std::pair<std::string, long>> MemoryRollup(pid_t pid) {
  std::vector<std::pair<std::string, long>> out;
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
  std::string line;
  while (std::getline(in, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || line.find(" kB") == std::string::npos) continue;
    out.emplace_back(line.substr(0, colon), std::strtol(line.c_str() + colon + 1, nullptr, 10));
  }
  return out;
}

std::vector<std::pair<std::string, long>> RssByFile(pid_t pid) {
  std::map<std::string, long> byFile;
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps");
  std::string line, name;
  while (std::getline(in, line)) {
    if (line.compare(0, 4, "Rss:") == 0) {
      byFile[name] += std::strtol(line.c_str() + 4, nullptr, 10);
    } else if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) &&
               line.find('-') < line.find(' ')) {
      // "start-end perms offset dev inode [path]": the path is the sixth field.
      std::istringstream f(line);
      std::string field;
      name.clear();
      for (int i = 0; i < 6 && f >> field; ++i)
        if (i == 5) name = field;
    }
  }
  std::vector<std::pair<std::string, long>> out(byFile.begin(), byFile.end());
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  return out;
}

double CpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The command name may hold blanks and parentheses: fields start after the last ')'.
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(text.substr(close + 2));
  std::string f;
  unsigned long long utime = 0, stime = 0;
  // Fields 3.. (state is 3); utime is field 14, stime 15.
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = std::stoull(f);
    if (i == 15) stime = std::stoull(f);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double RunSeconds(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = opendir(dir.c_str());
  if (!d) return -1;
  unsigned long long ns = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream in(dir + "/" + e->d_name + "/schedstat");
    unsigned long long run = 0;
    if (in >> run) ns += run;
  }
  closedir(d);
  return static_cast<double>(ns) * 1e-9;
}

}  // namespace benchrun
