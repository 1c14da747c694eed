// What the fault-injection tests share on top of the end-to-end harness
// (tests/e2e/daemon_harness.h): one daemon run against the test peer, the
// daemon's resource footprint read from /proc, a peer that never reads, byte
// streams that are not frames, and the launcher record.
//
// REQUIRES: the process is in the sandbox (sandbox_main).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "daemon_harness.h"
#include "peer_server.h"
#include "silent_peer.h"

namespace fault {

using namespace std::chrono_literals;
using e2e::Millis;

// Scratch directory of the tests (a sandbox tmpfs).
inline constexpr char kScratch[] = "/tmp/fault";

// The test peer listening on the daemon's socket and the daemon started
// against it. Start() waits for the registration and then for a first
// command to run, so that the daemon has prepared the desktop and is in its
// receive loop when it returns. It needs no log file.
class DaemonRun {
 public:
  // Starts the peer and the daemon; "" on success, else what went wrong.
  std::string Start(Millis loopTimeout = 20s);
  // Sanitizer reports in the daemon's standard error ("" when none).
  std::string SanitizerReport() const;

  sdppeer::PeerServer& peer() { return *peer_; }
  e2e::Daemon& daemon() { return *daemon_; }

 private:
  std::unique_ptr<sdppeer::PeerServer> peer_;
  std::unique_ptr<e2e::Daemon> daemon_;
};

// What a process holds: open descriptors, threads, and child processes.
struct Footprint {
  int fds = -1;
  int threads = -1;
  int children = -1;
  bool operator==(const Footprint& o) const {
    return fds == o.fds && threads == o.threads && children == o.children;
  }
};
Footprint FootprintOf(pid_t pid);
std::string Describe(const Footprint& f);
// What each descriptor of `pid` refers to, for failure messages.
std::string DescriptorList(pid_t pid);
// What the daemon keeps when idle: no child process left (a finished command
// is reaped a little after its output ends), and no passing descriptor.
Footprint SettledFootprint(pid_t pid);
// Polls until the footprint of `pid` equals `want` (transient descriptors of
// a command or an address probe come and go); returns the last one seen.
Footprint WaitFootprint(pid_t pid, const Footprint& want, Millis timeout);

// Cuts `bytes` into frames as the daemon's reader would; a cut frame at the
// end is left out.
std::vector<sdppeer::Frame> SplitFrames(const std::string& bytes);

// `size` pseudo-random bytes from `seed`, with every frame the daemon would
// find in them turned away from main command 2, so that garbage never runs
// as a command.
std::string Garbage(uint32_t seed, size_t size);

// Lines of the launcher record, in order.
std::vector<std::string> RecordEntries();
// Regular files under `dir` (not recursive), as full paths.
std::set<std::string> FilesIn(const std::string& dir);
// Files the daemon created since `before` in the desktop directory and the
// system applications directory.
std::set<std::string> NewLaunchers(const std::set<std::string>& before);
std::set<std::string> LauncherFiles();

// The desktop user every launcher test uses, with the directories it needs.
inline constexpr char kDesktop[] = "/home/alice/Desktop";
// Writes userinfo.ini naming the user, with `aumLines` ("source=address\n"...)
// in its [Aum] section and a jump browser, and creates the desktop directory.
void PrepareDesktopUser(const std::string& aumLines);

}  // namespace fault
