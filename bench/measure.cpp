#include "measure.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>
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


namespace benchrun {

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
