// The daemon-level benchmarks (daemon_bench.cpp, https_bench.cpp): their
// options, the daemon-plus-peer fixture they share, and one entry per benchmark.
// Each entry prints its figures, RESULT lines and VERDICT lines
// (bench_report.h) and returns false only when it could not measure.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon_harness.h"
#include "measure.h"
#include "peer_server.h"

namespace benchd {

struct Options {
  size_t frames = 100000;  // dispatch: no-op frames per burst
  int rounds = 3;          // dispatch: bursts for each of the daemon and the reader
  int commands = 200;      // latency: commands for each of the daemon and the baseline
  int idleSeconds = 60;    // footprint: idle period measured
  int httpsSeconds = 10;   // https: length of each load run
  int items = 0;           // launchers: one size only instead of 10, 100 and 1000
  int outageSeconds = 20;  // outage: how long the peer stays away
};

// The real daemon binary started against a test peer listening on the
// daemon's socket path.
struct Daemon {
  Daemon();
  ~Daemon();  // stops the daemon (SIGTERM) and the peer
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Starts the daemon and waits for its registration and its log file.
  // `answerHeartbeats`: the peer answers each heartbeat as the real one does.
  // `args` are given to the daemon after its program path, `env` entries
  // ("NAME=value") are added to its environment.
  bool Start(bool answerHeartbeats, const std::vector<std::string>& args = {},
             const std::vector<std::string>& env = {});
  // Sends one no-op frame and waits for its log line: the daemon is then in
  // its command loop.
  bool WaitLoop();
  // Waits until `count` further log lines start with `prefix`; `last` gets the
  // `count`-th of them.
  bool WaitLines(const char* prefix, size_t count, benchrun::Millis timeout,
                 benchrun::LogLine* last = nullptr);
  void Stop();

  sdppeer::PeerServer peer;
  std::unique_ptr<harness::Process> proc;
  benchrun::LogTail log;
  bool keepLines = false;               // keep every line read in `lines`
  std::vector<benchrun::LogLine> lines;
  int64_t spawnMicros = 0;              // time of day of the spawn, as in log headers
};

// Bytes in the log files of daemon `pid` (all severities), and in all of the
// daemon's log files of the directory (those of earlier runs included).
std::pair<uint64_t, uint64_t> LogBytes(pid_t pid);

bool RunDispatch(const Options& opt);
bool RunLatency(const Options& opt);
bool RunFootprint(const Options& opt);
bool RunOutage(const Options& opt);
bool RunLaunchers(const Options& opt);
bool RunHttps(const Options& opt);

}  // namespace benchd
