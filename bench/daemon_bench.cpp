// The daemon measured whole: the real `tolvarind` binary in the test sandbox
// against the test peer, each figure beside a baseline taken in the same run.
//
//   dispatch   no-op frames (771) per second, beside a minimal reader
//   latency    769 frame sent -> the command's first action, beside a bare
//              fork/exec of the same shell command
//   footprint  resident memory after start-up and CPU over an idle period
//   outage     log bytes and CPU at rest and while the peer is away, and the
//              time to reconnect once it is back
//   launchers  start-up to the end of the launcher rebuild, 10/100/1000 items
//   https      (https_bench.cpp) the loopback HTTPS relay beside nginx
//   all        every one of them
//
// Usage: daemon_bench <what> [--frames N] [--commands N] [--idle-seconds S]
//                            [--https-seconds S] [--rounds N] [--items N]
//                            [--outage-seconds S]
#include <dirent.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CSComm.h"
#include "bench_report.h"
#include "daemon_bench.h"
#include "daemon_harness.h"
#include "measure.h"
#include "peer_server.h"
#include "sandbox.h"
#include "sandbox_log.h"
#include "sdp_paths.h"

extern char** environ;

using benchreport::Fmt;
using benchreport::Result;
using benchreport::Verdict;
using namespace std::chrono_literals;

namespace benchd {

constexpr uint16_t kFromDaemon = MCMD_FROM_DAEMON;
constexpr uint16_t kRunCommand = SANDBOX_S2B_OPENBSAPP;
constexpr uint16_t kNoOp = SANDBOX_S2B_RESPONSE;
constexpr uint16_t kRegister = SDP_PROTO_REGISTER;
constexpr uint16_t kHeartbeat = SDP_PROTO_HEARTBEAT;

constexpr char kNoOpLine[] = " got SANDBOX_S2B_RESPONSE message from server";
constexpr char kCommandDoneLine[] = " got SANDBOX_S2B_OPENBSAPP message from server res:";
constexpr char kAnyFrameLine[] = " got message from server cmd 0x:";

bool StartsWith(const std::string& s, const char* prefix) {
  return s.compare(0, std::strlen(prefix), prefix) == 0;
}

using figures::Median;
using figures::Percentile;

Daemon::Daemon() = default;
Daemon::~Daemon() { Stop(); }

bool Daemon::Start(bool answerHeartbeats, const std::vector<std::string>& args,
                   const std::vector<std::string>& env) {
  std::string error;
  if (!peer.Listen(sdp_paths::kDaemonSocket, &error)) {
    std::fprintf(stderr, "peer: %s\n", error.c_str());
    return false;
  }
  if (answerHeartbeats) {
    // The peer daemon answers every heartbeat; so does this one.
    peer.SetFrameCallback([this](const sdppeer::Frame& f) {
      if (f.m_cmd == MCMD_TO_DAEMON && f.s_cmd == kHeartbeat) peer.SendFrame(kFromDaemon, kHeartbeat, "", 1000ms);
    });
  }
  spawnMicros = benchrun::NowMicrosOfDay();
  // BENCH_DAEMON_WRAPPER puts a profiler in front of the daemon, e.g.
  // "valgrind --tool=callgrind": valgrind keeps the process id, which names
  // the log file.
  std::vector<std::string> argv;
  if (const char* wrap = std::getenv("BENCH_DAEMON_WRAPPER")) {
    std::istringstream words(wrap);
    for (std::string w; words >> w;) argv.push_back(w);
  }
  argv.push_back(TOLVARIND_BIN);
  argv.insert(argv.end(), args.begin(), args.end());
  proc = std::make_unique<harness::Process>(argv, "", env);
  if (!proc->Started()) {
    std::fprintf(stderr, "could not start %s\n", argv[0].c_str());
    return false;
  }
  // The daemon waits 3 s before its first start-up attempt.
  if (!peer.WaitFrame(kRegister, 15000ms)) {
    std::fprintf(stderr, "daemon did not register\n");
    return false;
  }
  if (!harness::WaitUntil(
          [this] {
            log.SetPath(benchrun::InfoLogPath(proc->pid()));
            return !log.path().empty();
          },
          5000ms)) {
    std::fprintf(stderr, "no INFO log file of process %d\n", static_cast<int>(proc->pid()));
    return false;
  }
  return true;
}

bool Daemon::WaitLines(const char* prefix, size_t count, benchrun::Millis timeout,
                       benchrun::LogLine* last) {
  size_t seen = 0;
  return harness::WaitUntil(
      [&] {
        for (auto& l : log.Poll()) {
          if (keepLines) lines.push_back(l);
          if (!StartsWith(l.text, prefix)) continue;
          if (++seen == count && last) *last = l;
        }
        return seen >= count;
      },
      timeout, 20ms);
}

bool Daemon::WaitLoop() {
  if (!peer.SendFrame(kFromDaemon, kNoOp, "")) return false;
  return WaitLines(kNoOpLine, 1, 30000ms);
}

void Daemon::Stop() {
  if (proc) proc->Stop(SIGTERM, 5000ms);
  proc.reset();
  peer.CloseAllConnections();
  peer.StopListening();
}

namespace {

// Frames/s of whatever reads `peer`'s socket and logs a line starting with
// `prefix` per frame: from just before the first byte is sent to the time in
// the header of the `frames`-th line.
double TimedBurst(sdppeer::PeerServer& peer, const std::string& burst, size_t frames,
                  const std::function<bool(size_t, benchrun::LogLine*)>& waitLines) {
  const int64_t t0 = benchrun::NowMicrosOfDay();
  if (!peer.SendRaw(burst, 300000ms)) return -1;
  benchrun::LogLine last;
  if (!waitLines(frames, &last)) return -1;
  int64_t span = last.micros - t0;
  if (span < 0) span += 86400LL * 1000000;  // past midnight
  return static_cast<double>(frames) / (static_cast<double>(span) * 1e-6);
}

}  // namespace

namespace {

// The minimal reader's frames/s; `glog` makes it log through glog.
double ReaderBurst(const std::string& burst, size_t frames, bool glog) {
  const std::string sock = "/tmp/bench-reader.sock";
  const std::string logDir = sdp_paths::kLogDir;
  const std::string prefix = glog ? "min_reader.glog." : "min_reader.log";
  harness::EmptyDir(logDir);
  sdppeer::PeerServer peer;
  if (!peer.Listen(sock)) return -1;
  std::vector<std::string> argv{MIN_READER_BIN};
  if (glog) argv.push_back("--glog");
  argv.push_back(sock);
  argv.push_back(logDir + "/" + prefix);
  harness::Process reader(argv);
  if (!peer.WaitConnected(5000ms)) return -1;
  benchrun::LogTail tail;
  size_t seen = 0;
  auto wait = [&](size_t n, benchrun::LogLine* last) {
    return harness::WaitUntil(
        [&] {
          if (tail.path().empty()) {
            // glog names its file itself: the prefix, a time stamp and the pid.
            DIR* d = opendir(logDir.c_str());
            while (dirent* e = d ? readdir(d) : nullptr)
              if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0)
                tail.SetPath(logDir + "/" + e->d_name);
            if (d) closedir(d);
          }
          for (auto& l : tail.Poll())
            if (StartsWith(l.text, kAnyFrameLine) && ++seen == n && last) *last = l;
          return seen >= n;
        },
        300000ms, 20ms);
  };
  if (!peer.SendFrame(kFromDaemon, kNoOp, "") || !wait(1, nullptr)) return -1;
  seen = 0;
  const double fps = TimedBurst(peer, burst, frames, wait);
  peer.CloseAllConnections();
  reader.Stop(SIGTERM, 5000ms);
  return fps;
}

}  // namespace

bool RunDispatch(const Options& opt) {
  std::printf("\n== Dispatch throughput: %zu no-op frames (code 771), %d rounds ==\n", opt.frames,
              opt.rounds);
  std::string burst;
  burst.reserve(opt.frames * 8);
  for (size_t i = 0; i < opt.frames; ++i) burst += sdppeer::EncodeFrame(kFromDaemon, kNoOp, "");

  // The daemon as it runs by default, then with TZ set in its environment:
  // with TZ unset, glibc looks at /etc/localtime again for every glog line.
  auto daemonBurst = [&](const std::vector<std::string>& env) -> double {
    harness::EmptyDir(sdp_paths::kLogDir);
    Daemon d;
    if (!d.Start(false, {}, env) || !d.WaitLoop()) return -1;
    return TimedBurst(d.peer, burst, opt.frames, [&](size_t n, benchrun::LogLine* last) {
      return d.WaitLines(kNoOpLine, n, 300000ms, last);
    });
  };
  std::vector<double> daemonFps, tzFps, readerFps, glogFps;
  for (int round = 0; round < opt.rounds; ++round) {
    daemonFps.push_back(daemonBurst({}));
    readerFps.push_back(ReaderBurst(burst, opt.frames, false));
    glogFps.push_back(ReaderBurst(burst, opt.frames, true));
    tzFps.push_back(daemonBurst({"TZ=:/etc/localtime"}));
    for (double v : {daemonFps.back(), readerFps.back(), glogFps.back(), tzFps.back()})
      if (v < 0) {
        std::fprintf(stderr, "a burst was not taken in full\n");
        return false;
      }
    std::printf("round %d: daemon %.0f, minimal reader %.0f, reader through glog %.0f, daemon with "
                "TZ set %.0f frames/s\n",
                round + 1, daemonFps.back(), readerFps.back(), glogFps.back(), tzFps.back());
  }
  const double d = Median(daemonFps), r = Median(readerFps), g = Median(glogFps),
               t = Median(tzFps);
  std::printf("median: daemon %.0f frames/s, minimal reader %.0f frames/s, ratio %.2f\n", d, r,
              d / r);
  std::printf("        reader logging through glog %.0f frames/s (daemon/that %.2f)\n", g, d / g);
  std::printf("        daemon with TZ=:/etc/localtime %.0f frames/s (ratio %.2f)\n", t, t / r);
  Result("dispatch", "frames=" + std::to_string(opt.frames) + " daemon_fps=" + Fmt("%.0f", d) +
                         " reader_fps=" + Fmt("%.0f", r) + " ratio=" + Fmt("%.2f", d / r) +
                         " glog_reader_fps=" + Fmt("%.0f", g) + " ratio_glog=" + Fmt("%.2f", d / g) +
                         " daemon_tz_fps=" + Fmt("%.0f", t) + " ratio_tz=" + Fmt("%.2f", t / r));
  Verdict("dispatch", d >= 0.5 * r, "daemon >= 0.5 x minimal reader frames/s");
  return true;
}

namespace {

// Watches one directory for created files.
class CreateWatch {
 public:
  explicit CreateWatch(const std::string& dir) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    harness::MakeDirs(dir);
    if (fd_ >= 0) inotify_add_watch(fd_, dir.c_str(), IN_CREATE);
  }
  ~CreateWatch() {
    if (fd_ >= 0) close(fd_);
  }
  // Monotonic time at which `name` was seen created, or -1 after `timeoutMs`.
  double Wait(const std::string& name, int timeoutMs) {
    const double end = benchrun::MonoSeconds() + timeoutMs / 1000.0;
    alignas(inotify_event) char buf[4096];
    for (;;) {
      const double left = end - benchrun::MonoSeconds();
      if (left <= 0) return -1;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) continue;
      const double seen = benchrun::MonoSeconds();
      ssize_t n = read(fd_, buf, sizeof buf);
      for (ssize_t off = 0; off < n;) {
        auto* ev = reinterpret_cast<inotify_event*>(buf + off);
        if (ev->len > 0 && name == ev->name) return seen;
        off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
      }
    }
  }

 private:
  int fd_;
};

}  // namespace

bool RunLatency(const Options& opt) {
  std::printf("\n== Command latency: %d commands (code 769), daemon against bare fork/exec ==\n",
              opt.commands);
  const std::string dir = "/tmp/bench-marks";
  harness::EmptyDir(dir);
  CreateWatch watch(dir);
  Daemon d;
  if (!d.Start(false) || !d.WaitLoop()) return false;

  std::vector<double> viaDaemon, bare;
  for (int i = 0; i < opt.commands; ++i) {
    // The command's first action creates its mark: `:` is the shell's no-op,
    // so what runs is as little as `true`.
    const std::string dname = "d" + std::to_string(i);
    const std::string dcmd = ": > " + dir + "/" + dname;
    const double t0 = benchrun::MonoSeconds();
    if (!d.peer.SendFrame(kFromDaemon, kRunCommand, dcmd)) return false;
    const double t1 = watch.Wait(dname, 5000);
    if (t1 < 0 || !d.WaitLines(kCommandDoneLine, 1, 10000ms)) return false;
    viaDaemon.push_back(t1 - t0);

    const std::string bname = "b" + std::to_string(i);
    const std::string bcmd = ": > " + dir + "/" + bname;
    const double b0 = benchrun::MonoSeconds();
    const pid_t pid = fork();
    if (pid == 0) {
      const char* argv[] = {sdp_paths::kShell, "-c", bcmd.c_str(), nullptr};
      execve(sdp_paths::kShell, const_cast<char**>(argv), environ);
      _exit(127);
    }
    const double b1 = watch.Wait(bname, 5000);
    int status = 0;
    waitpid(pid, &status, 0);
    if (pid < 0 || b1 < 0) return false;
    bare.push_back(b1 - b0);
  }
  const double dm = Median(viaDaemon) * 1e3, d99 = Percentile(viaDaemon, 0.99) * 1e3;
  const double bm = Median(bare) * 1e3, b99 = Percentile(bare, 0.99) * 1e3;
  std::printf("%-26s %10s %10s\n", "", "median ms", "p99 ms");
  std::printf("%-26s %10.3f %10.3f\n", "769 frame -> command", dm, d99);
  std::printf("%-26s %10.3f %10.3f\n", "bare fork/exec /bin/sh -c", bm, b99);
  std::printf("ratio                      %10.2f %10.2f\n", dm / bm, d99 / b99);
  Result("latency", "commands=" + std::to_string(opt.commands) + " daemon_median_ms=" +
                        Fmt("%.3f", dm) + " daemon_p99_ms=" + Fmt("%.3f", d99) +
                        " bare_median_ms=" + Fmt("%.3f", bm) + " bare_p99_ms=" + Fmt("%.3f", b99) +
                        " ratio_median=" + Fmt("%.2f", dm / bm) + " ratio_p99=" +
                        Fmt("%.2f", d99 / b99));
  Verdict("latency", dm <= 1.5 * bm, "median command latency <= 1.5 x bare fork/exec");
  return true;
}

bool RunFootprint(const Options& opt) {
  std::printf("\n== Footprint at rest: %d s idle with heartbeats ==\n", opt.idleSeconds);
  Daemon d;
  if (!d.Start(true) || !d.WaitLoop()) return false;
  const pid_t pid = d.proc->pid();
  const long rssStart = benchrun::RssKiB(pid);
  const double cpu0 = benchrun::RunSeconds(pid), tick0 = benchrun::CpuSeconds(pid);
  const double t0 = benchrun::MonoSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(opt.idleSeconds));
  const double t1 = benchrun::MonoSeconds();
  const double cpu1 = benchrun::RunSeconds(pid), tick1 = benchrun::CpuSeconds(pid);
  const long rssEnd = benchrun::RssKiB(pid), hwm = benchrun::HwmKiB(pid);
  size_t beats = 0;
  for (const auto& f : d.peer.Frames())
    if (f.s_cmd == kHeartbeat) ++beats;
  const double pct = (cpu1 - cpu0) / (t1 - t0) * 100.0;
  std::printf("RSS after start-up %ld KiB, after idling %ld KiB, peak %ld KiB\n", rssStart, rssEnd,
              hwm);
  long anon = -1, file = -1;
  std::printf("where it is (smaps_rollup):");
  for (const auto& [key, kib] : benchrun::MemoryRollup(pid)) {
    if (key == "Pss_Anon") anon = kib;
    if (key == "Pss_File") file = kib;
    if (key == "Pss" || key == "Pss_Anon" || key == "Pss_File" || key == "Private_Dirty" ||
        key == "Shared_Clean")
      std::printf(" %s %ld KiB,", key.c_str(), kib);
  }
  std::printf("\nresident by mapping:");
  int shown = 0;
  for (const auto& [name, kib] : benchrun::RssByFile(pid)) {
    if (shown++ == 8) break;
    const size_t slash = name.rfind('/');
    std::printf(" %s %ld,", name.empty() ? "[anon]" : name.substr(slash + 1).c_str(), kib);
  }
  std::printf(" KiB\n");
  std::printf("CPU over %.1f s: %.4f s on-CPU (%.2f s in clock ticks) = %.4f %% of one core; %zu "
              "heartbeats seen in all\n",
              t1 - t0, cpu1 - cpu0, tick1 - tick0, pct, beats);
  Result("footprint", "idle_s=" + Fmt("%.1f", t1 - t0) + " rss_kib=" + std::to_string(rssEnd) +
                          " rss_start_kib=" + std::to_string(rssStart) + " hwm_kib=" +
                          std::to_string(hwm) + " pss_anon_kib=" + std::to_string(anon) +
                          " pss_file_kib=" + std::to_string(file) + " cpu_s=" + Fmt("%.4f", cpu1 - cpu0) +
                          " cpu_pct=" + Fmt("%.4f", pct));
  Verdict("footprint", rssEnd < 8 * 1024 && hwm < 8 * 1024, "resident memory < 8 MiB");
  Verdict("footprint", pct < 0.1, "CPU at rest < 0.1 % of one core");
  return true;
}

std::pair<uint64_t, uint64_t> LogBytes(pid_t pid) {
  const std::string suffix = "." + std::to_string(pid);
  uint64_t own = 0, all = 0;
  if (DIR* d = opendir(sdp_paths::kLogDir)) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      struct stat st;
      if (name.rfind("tolvarind.", 0) != 0 ||
          lstat((std::string(sdp_paths::kLogDir) + "/" + name).c_str(), &st) != 0 ||
          !S_ISREG(st.st_mode))
        continue;
      all += static_cast<uint64_t>(st.st_size);
      if (name.size() > suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        own += static_cast<uint64_t>(st.st_size);
    }
    closedir(d);
  }
  return {own, all};
}

bool RunOutage(const Options& opt) {
  constexpr int kRestSeconds = 10;
  constexpr char kLostLine[] = "daemon_client recv message failed, wailt reconnect";
  std::printf("\n== Peer outage: %d s at rest, then %d s with the peer gone, then its return ==\n",
              kRestSeconds, opt.outageSeconds);
  Daemon d;
  if (!d.Start(true) || !d.WaitLoop()) return false;
  const pid_t pid = d.proc->pid();
  struct Sample {
    double t, cpu;
    uint64_t bytes;
  };
  auto sample = [pid] {
    return Sample{benchrun::MonoSeconds(), benchrun::RunSeconds(pid), LogBytes(pid).first};
  };
  auto rates = [](const Sample& a, const Sample& b, double* bps, double* pct) {
    *bps = static_cast<double>(b.bytes - a.bytes) / (b.t - a.t);
    *pct = (b.cpu - a.cpu) / (b.t - a.t) * 100.0;
  };

  const Sample rest0 = sample();
  std::this_thread::sleep_for(std::chrono::seconds(kRestSeconds));
  const Sample rest1 = sample();
  d.log.Poll();  // what came before the outage

  // The peer goes as a crashed one does: socket closed and its file gone.
  const uint64_t accepted = d.peer.AcceptedCount();
  const Sample out0 = sample();
  d.peer.StopListening();
  d.peer.CloseAllConnections();
  std::this_thread::sleep_for(std::chrono::seconds(opt.outageSeconds));
  const Sample out1 = sample();
  size_t lost = 0;
  for (const auto& l : d.log.Poll())
    if (StartsWith(l.text, kLostLine)) ++lost;

  const double back = benchrun::MonoSeconds();
  if (!d.peer.Restart()) return false;
  if (!harness::WaitUntil([&] { return d.peer.AcceptedCount() > accepted; }, 10000ms, 1ms)) {
    std::fprintf(stderr, "the daemon did not reconnect within 10 s\n");
    return false;
  }
  const double reconnectMs = (benchrun::MonoSeconds() - back) * 1e3;
  if (!d.WaitLoop()) {
    std::fprintf(stderr, "no command served after the reconnection\n");
    return false;
  }
  const uint64_t dirBytes = LogBytes(pid).second;

  double restBps, restPct, outBps, outPct;
  rates(rest0, rest1, &restBps, &restPct);
  rates(out0, out1, &outBps, &outPct);
  const double outSeconds = out1.t - out0.t;
  std::printf("%-22s %12s %14s %12s\n", "", "log B/s", "CPU % of core", "loss lines/s");
  std::printf("%-22s %12.1f %14.4f %12s\n", "at rest (heartbeats)", restBps, restPct, "");
  std::printf("%-22s %12.1f %14.4f %12.2f\n", "peer gone", outBps, outPct, lost / outSeconds);
  std::printf("reconnected %.0f ms after the peer listened again; log directory %.1f MiB of "
              "%.0f MiB\n",
              reconnectMs, dirBytes / 1048576.0, kLogBudgetBytes / 1048576.0);
  Result("outage", "rest_s=" + Fmt("%.1f", rest1.t - rest0.t) + " rest_log_bps=" +
                       Fmt("%.1f", restBps) + " rest_cpu_pct=" + Fmt("%.4f", restPct) +
                       " outage_s=" + Fmt("%.1f", outSeconds) + " outage_log_bps=" +
                       Fmt("%.1f", outBps) + " outage_cpu_pct=" + Fmt("%.4f", outPct) +
                       " loss_lines=" + std::to_string(lost) + " reconnect_ms=" +
                       Fmt("%.0f", reconnectMs) + " logdir_bytes=" + std::to_string(dirBytes));
  Verdict("outage", outBps < 1024, "logs during an outage < 1 KB/s");
  Verdict("outage", outPct < 0.5, "CPU during an outage < 0.5 % of one core");
  Verdict("outage", reconnectMs <= 1500, "reconnection within 1.5 s of the peer's return");
  Verdict("outage", dirBytes <= kLogBudgetBytes, "log directory within its budget");
  return true;
}

namespace {

constexpr char kBenchUser[] = "benchuser";

// N resources granted with their addresses, N whitelisted local applications
// with their system entries, and a desktop to put launchers on.
void WriteLauncherInputs(int n) {
  std::string json = "{\"GatewayConfig\":[";
  std::string aum = "[Aum]\n";
  for (int i = 0; i < n; ++i) {
    if (i) json += ",";
    json += "{\"isCreateIconInSandbox\":1,\"AppName\":\"App " + std::to_string(i) +
            "\",\"source\":\"res" + std::to_string(i) + "\"}";
    aum += "res" + std::to_string(i) + "=https://app" + std::to_string(i) + ".example/\n";
  }
  json += "]}\n";
  harness::WriteFile(sdp_paths::kResourceJson, json);
  harness::WriteFile(sdp_paths::kUserinfoIni, std::string("[UserInfo]\nSysUserName=") + kBenchUser +
                                                   "\n" + aum +
                                                   "[CustomJumpPolicy]\nJumpBrowser=browser\n");
  std::string whitelist = "enabled=1\n";
  for (int i = 0; i < n; ++i) {
    const std::string app = "wlapp" + std::to_string(i);
    whitelist += "/usr/bin/" + app + "\n";
    harness::WriteFile(std::string(sdp_paths::kSystemApplicationsDir) + app + ".desktop",
                        "[Desktop Entry]\nName=" + app + "\nExec=/usr/bin/" + app +
                            "\nType=Application\n");
  }
  harness::WriteFile(sdp_paths::kWhitelistClientConf, whitelist);
  harness::MakeDirs(std::string(sdp_paths::kHomeDir) + kBenchUser + sdp_paths::kUserDesktopDir);
  harness::MakeDirs(sdp_paths::kClientApplicationsDir);
}

int CountFiles(const std::string& dir) {
  int n = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

}  // namespace

bool RunLaunchers(const Options& opt) {
  std::printf("\n== Launcher synchronisation: resources and whitelist entries ==\n");
  std::printf("%6s %12s %12s %12s %14s %9s\n", "items", "whitelist ms", "resources ms",
              "sync ms", "exec->end ms", "launchers");
  std::map<int, double> syncMs;
  bool ok = true;
  std::vector<int> sizes{10, 100, 1000};
  if (opt.items > 0) sizes = {opt.items};
  for (int n : sizes) {
    // What an earlier run left: launchers, their record, logs and inputs.
    for (const std::string& dir :
         {std::string(sdp_paths::kHomeDir) + kBenchUser, std::string(sdp_paths::kSystemApplicationsDir),
          std::string(sdp_paths::kInstallDir), std::string(sdp_paths::kCfsDir)})
      harness::EmptyDir(dir);
    harness::PrepareInstallation("bench");
    WriteLauncherInputs(n);

    Daemon d;
    d.keepLines = true;
    // A frame waiting in the socket from the first moment: the daemon reads it
    // as soon as it enters its loop, which is the end of the rebuild.
    d.peer.SetConnectionCallback([&d](uint64_t, bool connected) {
      if (connected) d.peer.SendFrame(kFromDaemon, kNoOp, "", 1000ms);
    });
    benchrun::LogLine end;
    if (!d.Start(false)) return false;
    if (!d.WaitLines(kAnyFrameLine, 1, 120000ms, &end)) {
      std::fprintf(stderr, "the daemon never reached its command loop\n");
      return false;
    }
    int64_t initDone = -1, dealBegin = -1;
    for (const auto& l : d.lines) {
      if (initDone < 0 && StartsWith(l.text, "init finish..")) initDone = l.micros;
      if (dealBegin < 0 && StartsWith(l.text, "deal user resource begin")) dealBegin = l.micros;
    }
    if (initDone < 0 || dealBegin < 0) {
      std::fprintf(stderr, "start-up lines missing from the log\n");
      return false;
    }
    const double whitelistMs = (dealBegin - initDone) / 1e3;
    const double resourcesMs = (end.micros - dealBegin) / 1e3;
    const double sync = (end.micros - initDone) / 1e3;
    const double total = (end.micros - d.spawnMicros) / 1e3;
    const int launchers =
        CountFiles(std::string(sdp_paths::kHomeDir) + kBenchUser + sdp_paths::kUserDesktopDir);
    std::printf("%6d %12.1f %12.1f %12.1f %14.1f %9d\n", n, whitelistMs, resourcesMs, sync, total,
                launchers);
    if (launchers != 2 * n) {
      std::printf("expected %d launchers on the desktop, found %d\n", 2 * n, launchers);
      ok = false;
    }
    Result("launchers", "items=" + std::to_string(n) + " whitelist_ms=" + Fmt("%.1f", whitelistMs) +
                            " resources_ms=" + Fmt("%.1f", resourcesMs) + " sync_ms=" +
                            Fmt("%.1f", sync) + " exec_to_end_ms=" + Fmt("%.1f", total) +
                            " launchers=" + std::to_string(launchers));
    syncMs[n] = sync;
  }
  if (sizes.size() < 3) return ok;
  std::printf("growth: x%.1f from 10 to 100 items, x%.1f from 100 to 1000 (x10 is linear)\n",
              syncMs[100] / syncMs[10], syncMs[1000] / syncMs[100]);
  Result("launchers", "growth_10_100=" + Fmt("%.1f", syncMs[100] / syncMs[10]) +
                          " growth_100_1000=" + Fmt("%.1f", syncMs[1000] / syncMs[100]));
  Verdict("launchers", ok && syncMs[1000] < 1000.0,
          "launcher sync of 1000 resources and 1000 whitelist entries < 1 s");
  return ok;
}

}  // namespace benchd

int main(int argc, char** argv) {
  using namespace benchd;
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: %s dispatch|latency|footprint|outage|launchers|https|all [--frames N] "
                 "[--commands N] [--idle-seconds S] [--https-seconds S] [--rounds N] [--items N] "
                 "[--outage-seconds S]\n",
                 argv[0]);
    return 2;
  }
  Options opt;
  const std::string what = argv[1];
  for (int i = 2; i < argc; i += 2) {
    const std::string key = argv[i];
    if (i + 1 == argc) {
      std::fprintf(stderr, "%s needs a value\n", key.c_str());
      return 2;
    }
    const long v = std::strtol(argv[i + 1], nullptr, 10);
    if (key == "--frames") opt.frames = static_cast<size_t>(v);
    else if (key == "--commands") opt.commands = static_cast<int>(v);
    else if (key == "--idle-seconds") opt.idleSeconds = static_cast<int>(v);
    else if (key == "--https-seconds") opt.httpsSeconds = static_cast<int>(v);
    else if (key == "--rounds") opt.rounds = static_cast<int>(v);
    else if (key == "--items") opt.items = static_cast<int>(v);
    else if (key == "--outage-seconds") opt.outageSeconds = static_cast<int>(v);
    else {
      std::fprintf(stderr, "unknown option %s\n", key.c_str());
      return 2;
    }
  }
  testsupport::EnterSandbox({TOLVARIND_SOURCE_DIR, TOLVARIND_BINARY_DIR});
  // A daemon that is killed must not take the benchmark with it.
  signal(SIGPIPE, SIG_IGN);
  harness::PrepareInstallation("bench");

  const std::vector<std::pair<std::string, bool (*)(const Options&)>> all = {
      {"dispatch", RunDispatch}, {"latency", RunLatency}, {"footprint", RunFootprint},
      {"outage", RunOutage}, {"launchers", RunLaunchers}, {"https", RunHttps}};
  bool ran = false, ok = true;
  for (const auto& [name, fn] : all) {
    if (what != "all" && what != name) continue;
    ran = true;
    harness::PrepareInstallation("bench");
    if (!fn(opt)) {
      std::printf("FAILED %s\n", name.c_str());
      ok = false;
    }
  }
  if (!ran) {
    std::fprintf(stderr, "unknown benchmark %s\n", what.c_str());
    return 2;
  }
  return ok ? 0 : 1;
}
