// Running a shell command with a time limit, and copying a file. Every external
// command the daemon runs goes through system_output.
#pragma once

#include <string>

namespace util {

// Runs `cmd` through "/bin/sh -c" with its standard output captured into
// `output`; `timeout` in whole seconds covers reading and waiting together
// (<= 0: no limit). Ignores SIGPIPE process-wide from the first call on.
// Returns -1 pipe failed, -2 fork failed, -3 waitpid failed, -4 timed out (child
// killed with SIGKILL), and 1 for every reported child state. It never returns
// 0, on purpose: callers that test for 0 rely on it.
// Called from the main thread only.
int system_output(const std::string& cmd, std::string& output, int timeout);

// Copies `source` onto `destination` (truncating) and makes it mode 0755.
// Reports on stderr/stdout only; true when the copy was written.
bool copyFile(const std::string& source, const std::string& destination);

}  // namespace util
