#include "log_budget.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace logbudget {

bool ParseLogName(const std::string& name, const std::vector<std::string>& prefixes, size_t* prefix,
                  long* pid) {
  for (size_t i = 0; i < prefixes.size(); ++i) {
    const std::string& p = prefixes[i];
    if (p.empty() || name.compare(0, p.size(), p) != 0) continue;
    // "20261122-035445.1234": eight digits, '-', six digits, '.', the pid.
    const std::string rest = name.substr(p.size());
    bool ok = rest.size() >= 17 && rest.size() <= 16 + 10;
    for (size_t k = 0; ok && k < rest.size(); ++k) {
      const char c = rest[k];
      ok = k == 8 ? c == '-' : k == 15 ? c == '.' : c >= '0' && c <= '9';
    }
    if (!ok) continue;
    *prefix = i;
    *pid = std::stol(rest.substr(16));
    return true;
  }
  return false;
}

int Sweep(const std::string& dir, const std::vector<std::string>& prefixes, uint64_t budgetBytes,
          pid_t ownPid) {
  const int dirfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dirfd < 0) return -1;
  DIR* d = fdopendir(dirfd);
  if (d == nullptr) {
    close(dirfd);
    return -1;
  }
  struct File {
    std::string name;
    size_t prefix;
    long pid;
    uint64_t size;
    timespec mtime;
  };
  std::vector<File> files;
  uint64_t total = 0;
  const uid_t self = geteuid();
  while (dirent* e = readdir(d)) {
    File f{e->d_name, 0, 0, 0, {}};
    if (!ParseLogName(f.name, prefixes, &f.prefix, &f.pid)) continue;
    struct stat st;
    if (fstatat(dirfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
        st.st_nlink != 1 || st.st_uid != self)
      continue;
    f.size = static_cast<uint64_t>(st.st_size);
    f.mtime = st.st_mtim;
    total += f.size;
    files.push_back(std::move(f));
  }

  if (total > budgetBytes) {
    // glog writes to the newest file of each severity and closes it before it
    // opens the next one, so every other file is closed for good. Names of
    // one process compare in time order (fixed-width time stamp).
    // A clock set back between two files makes the newer one the smaller
    // name, so the newest by name and the newest written are both spared.
    std::vector<const File*> byName(prefixes.size(), nullptr);
    std::vector<const File*> byTime(prefixes.size(), nullptr);
    const auto later = [](const File* a, const File& b) {
      return std::tie(a->mtime.tv_sec, a->mtime.tv_nsec) <
             std::tie(b.mtime.tv_sec, b.mtime.tv_nsec);
    };
    for (const File& f : files) {
      if (f.pid != ownPid) continue;
      if (!byName[f.prefix] || byName[f.prefix]->name < f.name) byName[f.prefix] = &f;
      if (!byTime[f.prefix] || later(byTime[f.prefix], f)) byTime[f.prefix] = &f;
    }
    std::vector<const File*> old;
    for (const File& f : files)
      if (byName[f.prefix] != &f && byTime[f.prefix] != &f) old.push_back(&f);
    std::sort(old.begin(), old.end(), [](const File* a, const File* b) {
      return std::tie(a->mtime.tv_sec, a->mtime.tv_nsec, a->name) <
             std::tie(b->mtime.tv_sec, b->mtime.tv_nsec, b->name);
    });
    int removed = 0;
    for (const File* f : old) {
      if (total <= budgetBytes) break;
      // One that cannot go is passed over without a line: the next sweep, ten
      // seconds on, would repeat it for as long as the cause lasts.
      if (unlinkat(dirfd, f->name.c_str(), 0) != 0) continue;
      total -= f->size;
      ++removed;
      LOG(INFO) << "log directory over its budget, removed " << f->name;
    }
    closedir(d);
    return removed;
  }
  closedir(d);
  return 0;
}

}  // namespace logbudget
