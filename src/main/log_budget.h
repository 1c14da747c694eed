// The size bound of the daemon's log directory. glog starts a new file when one
// grows past its size limit and, with its cleaner on, removes files untouched
// for some days; it never bounds what the files take together. Sweep() does:
// it removes the daemon's own oldest files until they fit a budget, and never
// touches any other file of the directory. Used by the process shell
// (sandbox_log.cpp), on the signal thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace logbudget {

// True when `name` is one of the daemon's log files: one of `prefixes`
// followed by glog's "<YYYYMMDD>-<HHMMSS>.<pid>". Then `*prefix` is the index
// of that prefix and `*pid` the process id.
bool ParseLogName(const std::string& name, const std::vector<std::string>& prefixes, size_t* prefix,
                  long* pid);

// In `dir`, removes the daemon's log files (ParseLogName), least recently
// written first, until together they take at most `budgetBytes`. The newest
// file of each prefix that carries `ownPid` is the one glog is writing: it
// counts but is never removed, nor is any other file. Only regular files with
// one link, owned by the effective user, count; the directory is opened
// without following a link and worked on through its descriptor. One INFO
// line per file removed. Returns how many were removed, or -1 when `dir`
// cannot be opened.
int Sweep(const std::string& dir, const std::vector<std::string>& prefixes, uint64_t budgetBytes,
          pid_t ownPid);

}  // namespace logbudget
