// The daemon against a peer that restarts over and over while it floods the
// daemon with commands, a peer that sends what is not a frame, and a command
// whose output never ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fault_support.h"

// FAULT_RESTARTS, FAULT_DAEMON_THREADS and FAULT_SANITIZED come from the build.
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using sdppeer::EncodeFrame;
using sdppeer::EncodeHeader;
using sdppeer::Frame;

namespace fs = std::filesystem;

long Entries(const std::string& dir) {
  std::error_code ec;
  return std::distance(fs::directory_iterator(dir, ec), fs::directory_iterator());
}

// What a process holds: open descriptors, threads, and child processes.
using Footprint = std::array<long, 3>;

Footprint FootprintOf(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  Footprint f{Entries(proc + "/fd"), Entries(proc + "/task"), 0};
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/proc", ec)) {
    // The parent pid follows the state after the command name's last ')'.
    const std::string stat = e2e::ReadFile(e.path().string() + "/stat");
    std::istringstream rest(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
    std::string state;
    pid_t ppid = -1;
    if (rest >> state >> ppid && ppid == pid) ++f[2];
  }
  return f;
}

// What each descriptor of `pid` refers to, for failure messages.
std::string Descriptors(pid_t pid) {
  std::ostringstream out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    out << e.path().filename().string() << " -> " << fs::read_symlink(e.path(), ec) << "\n";
  return out.str();
}

// What the daemon keeps when idle: the fewest descriptors seen over a second
// with no child (address probes and commands open descriptors that come and
// go, and a finished command is reaped a little after its output ends).
Footprint SettledFootprint(pid_t pid) {
  Footprint best{-1, -1, -1};
  const auto end = Clock::now() + 1s;
  while (Clock::now() < end + 5s && (best[0] < 0 || Clock::now() < end)) {
    const Footprint f = FootprintOf(pid);
    if (f[2] == 0 && (best[0] < 0 || f[0] < best[0])) best = f;
    std::this_thread::sleep_for(20ms);
  }
  return best;
}

// `size` pseudo-random bytes from `seed`, with every frame the daemon would
// find in them turned away from main command 2 (garbage never runs) and
// none longer than the largest.
std::string Garbage(uint32_t seed, size_t size) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (auto& c : bytes) c = static_cast<char>(gen() & 0xff);
  for (size_t off = 0; off + 8 <= bytes.size();) {
    if (bytes[off + 2] == 2 && bytes[off + 3] == 0) bytes[off + 2] = 3;  // main command 3: none
    bytes[off + 7] &= 0x7f;                                              // length below 32768
    off += 8 + (static_cast<uint8_t>(bytes[off + 6]) | static_cast<uint8_t>(bytes[off + 7]) << 8);
  }
  return bytes;
}

int LineCount(const std::string& path) {
  const std::string text = e2e::ReadFile(path);
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

// The codes of the loop's " got message" lines, in order.
std::vector<unsigned long> HandledCodes(const e2e::Daemon& daemon) {
  static const std::string kGot = " got message from server cmd 0x:";
  std::vector<unsigned long> codes;
  for (const auto& l : daemon.MainThreadLog("tolvarind.cpp"))
    if (l.text.compare(0, kGot.size(), kGot) == 0)
      codes.push_back(std::stoul(l.text.substr(kGot.size()), nullptr, 16));
  return codes;
}

class PeerRestarts : public fault::DaemonSuite {};

// After every restart: a reconnection within 1.5 s and no second
// registration, then ten commands of every code, each handled once and in
// the order sent. Every tenth restart the peer first stays away until an
// attempt failed, heartbeats must resume on the new connection, and the
// daemon must hold exactly the descriptors, threads and children it held
// before.
TEST_F(PeerRestarts, ReconnectsEveryTimeAndRunsEveryCommandOnceWithFlatFootprint) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  const uint64_t firstConn = peer.CurrentConnection();
  ASSERT_TRUE(peer.WaitFrame(
      [&](const Frame& f) { return f.connection == firstConn && f.s_cmd == 0x1111; }, 5s));
  const Footprint base = SettledFootprint(daemon.pid());
  std::printf("idle daemon: %ld descriptors, %ld threads\n", base[0], base[1]);
  // Main, signal and heartbeat threads, one reconnect thread; nothing forked.
  ASSERT_EQ(base[1], FAULT_DAEMON_THREADS);
  ASSERT_EQ(base[2], 0);
  std::atomic<int> registrations{0};
  peer.SetFrameCallback([&](const Frame& f) { registrations += f.s_cmd == 0x1005; });

  const std::string order = std::string(fault::kScratch) + "/order";
  const size_t handledBefore = HandledCodes(daemon).size();
  std::vector<unsigned long> sentCodes;
  int shells = 0;
  long slowestMs = 0;
  for (int i = 1; i <= FAULT_RESTARTS; ++i) {
    SCOPED_TRACE("restart " + std::to_string(i));
    const uint64_t accepted = peer.AcceptedCount();
    peer.CloseConnection();
    peer.StopListening();
    if (i % 10 == 0) {
      ASSERT_TRUE(daemon.WaitLog("anetUnixConnect failed:", 3s,
                                 daemon.Count("anetUnixConnect failed:", "error") + 1, "error"));
    }
    ASSERT_TRUE(peer.Restart());
    const auto back = Clock::now();
    ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 5s));
    slowestMs = std::max<long>(slowestMs, (Clock::now() - back) / 1ms);
    const uint64_t conn = peer.CurrentConnection();
    if (i % 10 == 0) {
      auto beat = peer.WaitFrame(
          [&](const Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 5s);
      ASSERT_TRUE(beat.has_value());
      EXPECT_EQ(beat->body, "abc#10.0.0.5#");
    }
    // One command of each kind (0x777 is none), then shell commands that
    // append their number to `order`.
    std::vector<std::pair<uint16_t, std::string>> batch = {
        {0x501, "app" + std::to_string(i)},
        {0x306, "https://portal/" + std::to_string(i)},
        {0x1111, ""},
        {0x303, ""},
        {i % 2 ? 0x1012 : 0x1013, ""},
        {0x777, ""}};
    for (int k = 0; k < 4; ++k)
      batch.push_back({0x301, "echo " + std::to_string(shells++) + " >> " + order});
    for (const auto& [code, body] : batch) {
      ASSERT_TRUE(peer.SendFrame(2, code, body));
      sentCodes.push_back(code);
    }
    ASSERT_TRUE(e2e::WaitUntil([&] { return LineCount(order) == shells; }, 60s))
        << LineCount(order) << " of " << shells;
    EXPECT_EQ(peer.CurrentConnection(), conn);
    if (i % 10 == 0 || i == FAULT_RESTARTS) {
      Footprint now;
      e2e::WaitUntil([&] { return (now = FootprintOf(daemon.pid())) == base; }, 3s);
      ASSERT_EQ(now, base) << "descriptors, threads, children\n" << Descriptors(daemon.pid());
    }
    peer.ClearFrames();  // keeps the peer's frame list short
  }

  std::printf("%d restarts, slowest reconnection %ld ms\n", FAULT_RESTARTS, slowestMs);
  EXPECT_LT(slowestMs, 1500);
  peer.SetFrameCallback(nullptr);
  EXPECT_EQ(registrations.load(), 0);
  EXPECT_EQ(daemon.Count("init finish.."), 1);
  std::string want;
  for (int n = 0; n < shells; ++n) want += std::to_string(n) + "\n";
  EXPECT_EQ(e2e::ReadFile(order), want);
  const auto handled = HandledCodes(daemon);
  EXPECT_EQ(std::vector<unsigned long>(handled.begin() + handledBefore, handled.end()), sentCodes);
  EXPECT_EQ(e2e::RecordedCalls("dravinSSO.sh").size(), size_t{FAULT_RESTARTS});
  EXPECT_EQ(e2e::RecordedCalls("notify-send").size(), size_t{FAULT_RESTARTS});
}

class BadInput : public fault::DaemonSuite {};

struct GarbageCase {
  std::string name, bytes;
  bool daemonCloses;    // else the peer closes after sending
  std::string logLine;  // ERROR line the daemon must write for it
};

std::vector<GarbageCase> GarbageCases() {
  const std::string cmd = EncodeFrame(2, 0x301, "touch /tmp/fault/never");
  const std::string head = "read pack head failed:", body = "read pack body failed:";
  std::vector<GarbageCase> cases = {
      {"one byte of a header", cmd.substr(0, 1), false, head},
      {"whole frame then a cut header", EncodeFrame(2, 0x303, "") + cmd.substr(0, 3), false, head},
      {"length 65535 with a body", EncodeHeader(7, 2, 0x301, 65535) + std::string(3000, 'x'), true,
       "got error message:2 769 7 65535"},
      {"header alone", EncodeHeader(0, 2, 0x301, 40), false, body},
      {"half of the largest frame", EncodeHeader(0, 2, 0x301, 64503) + std::string(40000, ' '),
       false, body},
  };
  // Random bytes end in a cut header or a cut body.
  for (uint32_t seed : {1u, 2u, 3u, 4u})
    cases.push_back({"random bytes, seed " + std::to_string(seed),
                     Garbage(seed, seed == 4 ? 100000 : 64 << (3 * seed)), false, "read pack "});
  return cases;
}

// Each kind of garbage makes the daemon log why, drop the connection and
// come back; nothing in the garbage ever runs.
TEST_F(BadInput, GarbageDropsTheConnectionAndItComesBack) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  const std::string taken = " got message from server cmd 0x:301";
  const int commandsBefore = daemon.Count(taken);
  int n = 0;
  for (const auto& c : GarbageCases()) {
    SCOPED_TRACE(c.name);
    const uint64_t accepted = peer.AcceptedCount();
    const int failures = daemon.Count("read  package  failed", "error");
    const int lines = daemon.Count(c.logLine, "error");
    // The daemon may drop the connection before it took everything.
    const bool sent = peer.SendRaw(c.bytes, 10s);
    if (!c.daemonCloses) {
      ASSERT_TRUE(sent);
      peer.CloseConnection();
    }
    ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 3s)) << "no reconnection";
    EXPECT_TRUE(daemon.WaitLog("read  package  failed", 3s, failures + 1, "error"));
    EXPECT_GE(daemon.Count(c.logLine, "error"), lines + 1) << c.logLine;
    ASSERT_TRUE(peer.WaitConnected(2s));
    EXPECT_TRUE(run_->RunsCommand("after-garbage-" + std::to_string(n++)));
  }
  EXPECT_FALSE(e2e::Exists("/tmp/fault/never"));
  EXPECT_EQ(daemon.Count(taken), commandsBefore + n);
}

TEST_F(BadInput, FrameArrivingInPiecesIsOneCommandOnTheSameConnection) {
  auto& peer = run_->peer();
  const std::string touched = std::string(fault::kScratch) + "/pieces";
  const std::string frame = EncodeFrame(2, 0x301, "touch " + touched);
  const uint64_t conn = peer.CurrentConnection();
  const int failures = run_->daemon().Count("read  package  failed", "error");
  // The header cut in two, then the body a few bytes at a time.
  const size_t cuts[] = {0, 3, 8, 12, 20, frame.size()};
  for (size_t k = 0; k + 1 < std::size(cuts); ++k) {
    ASSERT_TRUE(peer.SendRaw(frame.substr(cuts[k], cuts[k + 1] - cuts[k])));
    std::this_thread::sleep_for(150ms);  // pacing: each piece is its own read
  }
  EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s));
  EXPECT_EQ(peer.CurrentConnection(), conn);
  EXPECT_EQ(run_->daemon().Count("read  package  failed", "error"), failures);
}

long StatusKb(pid_t pid, const char* field) {
  const std::string status = e2e::ReadFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find(field);
  return at == std::string::npos ? -1 : std::stol(status.substr(at + std::strlen(field)));
}

TEST_F(BadInput, EndlessOutputIsCutAtTheLimitAndItsMemoryGoesBack) {
  auto& daemon = run_->daemon();
  const long before = StatusKb(daemon.pid(), "VmRSS:");
  ASSERT_TRUE(run_->peer().SendFrame(2, 0x301, "yes"));
  EXPECT_TRUE(run_->RunsCommand("after-yes", 20s));
  // Cut at the limit: killed (-4), or, when the closed pipe ended it first,
  // reaped (1).
  EXPECT_EQ(daemon.Count(" got SANDBOX_S2B_OPENBSAPP message from server res:-4 y\ny\n") +
                daemon.Count(" got SANDBOX_S2B_OPENBSAPP message from server res:1 y\ny\n"),
            1);
  const long after = StatusKb(daemon.pid(), "VmRSS:");
  std::printf("resident: %ld kB before, %ld kB at the peak, %ld kB after\n", before,
              StatusKb(daemon.pid(), "VmHWM:"), after);
#if !FAULT_SANITIZED  // a sanitizer's allocator keeps freed memory in quarantine
  EXPECT_LT(after, before + 20 * 1024);
#endif
}

}  // namespace
