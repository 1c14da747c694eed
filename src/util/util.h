// Running a shell command with a time limit, and copying a file. Every external
// command the daemon runs goes through system_output.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace util {

// Every external command the daemon runs gets this many seconds (the pop-up
// script alone has no limit).
inline constexpr int kCommandTimeout = 3;

// Whom an external command runs as. The default is the daemon itself: its
// uid, groups, environment and working directory, as always.
struct RunAs {
  bool switchUser = false;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;     // supplementary groups, the primary one included
  std::string dir;               // working directory; "/" when it cannot be entered
  std::vector<std::string> env;  // the command's whole environment, "NAME=value"
};

// Runs `cmd` through "/bin/sh -c" with its standard output captured into
// `output`; `timeout` in whole seconds covers reading and waiting together
// (<= 0: no limit). Ignores SIGPIPE process-wide from the first call on.
// Returns -1 pipe failed, -2 fork failed, -3 waitpid failed, -4 timed out (child
// killed with SIGKILL), and 1 for every reported child state. It never returns
// 0, on purpose: callers that test for 0 rely on it.
// With `as.switchUser` the child takes that user's groups, gid and uid before
// the shell starts (and ends with status 1, logging "Failed to change user.",
// when it cannot: a command never runs with more authority than asked for).
// Every command starts with default signal dispositions and an empty mask.
// Called from the main thread only.
int system_output(const std::string& cmd, std::string& output, int timeout,
                  const RunAs& as = RunAs());

// Like std::system: "/bin/sh -c" `cmd`, standard streams inherited, waited for
// however long it takes; the status is not reported. Nothing is logged unless
// the child cannot become `as` or start the shell. For the pop-up script.
void system_run(const std::string& cmd, const RunAs& as);

// Replaces `out` with launcher name -> path for every name (a plain name or a
// path; only its last component counts) whose desktop entry exists in the
// system applications directory. The first name in set order wins a clash.
void getIconPathWithName(const std::set<std::string>& names,
                         std::map<std::string, std::string>& out);

// Copies `source` onto `destination` (truncating) and makes it mode 0755.
// Reports on stderr/stdout only; true when the copy was written.
bool copyFile(const std::string& source, const std::string& destination);

}  // namespace util
