// A peer that sends what is not a frame, and a peer that stops reading.
// Garbage of every kind (random bytes, cut headers, lengths beyond the
// largest frame, half frames) makes the daemon drop the connection and come
// back, never crash; a frame that arrives in pieces is still one command; and
// a peer that reads nothing for a while neither stops the commands nor loses
// a heartbeat.
#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fault_support.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
using sdppeer::EncodeFrame;
using sdppeer::EncodeHeader;
using sdppeer::Frame;

class GarbageFrames : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    run_ = new fault::DaemonRun();
    setupError_ = run_->Start();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(run_->SanitizerReport(), "");
    delete run_;
    run_ = nullptr;
  }
  void SetUp() override {
    ASSERT_EQ(setupError_, "");
    ASSERT_TRUE(run_->daemon().Running());
  }

  // A command on the current connection runs.
  static void ExpectCommandRuns(const std::string& name) {
    const std::string touched = std::string(fault::kScratch) + "/" + name;
    ASSERT_TRUE(run_->peer().SendFrame(2, 0x301, "touch '" + touched + "'"));
    EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s)) << touched;
  }

  static inline fault::DaemonRun* run_ = nullptr;
  static inline std::string setupError_;
};

struct GarbageCase {
  std::string name;
  std::string bytes;
  bool daemonCloses;  // else the peer closes after sending
  std::string logLine;  // ERROR line the daemon must write for it
};

std::vector<GarbageCase> GarbageCases() {
  const std::string cmd = EncodeFrame(2, 0x301, "touch /tmp/fault/never");
  std::vector<GarbageCase> cases = {
      {"one byte of a header", cmd.substr(0, 1), false, "read pack head failed:"},
      {"seven bytes of a header", cmd.substr(0, 7), false, "read pack head failed:"},
      {"whole frame then a cut header", EncodeFrame(2, 0x303, "") + cmd.substr(0, 3), false,
       "read pack head failed:"},
      {"length one beyond the largest", EncodeHeader(0, 2, 0x1001, 64504), true,
       "got error message:2 4097 0 64504"},
      {"length 65535 with a body", EncodeHeader(7, 2, 0x301, 65535) + std::string(3000, 'x'), true,
       "got error message:2 769 7 65535"},
      {"header alone", EncodeHeader(0, 2, 0x301, 40), false, "read pack body failed:"},
      {"half a body", cmd.substr(0, 8 + 10), false, "read pack body failed:"},
      {"half of the largest frame", EncodeHeader(0, 2, 0x301, 64503) + std::string(40000, ' '),
       false, "read pack body failed:"},
  };
  for (uint32_t seed : {1u, 2u, 3u, 4u}) {
    const size_t size = seed == 4 ? 100000 : 64 << (3 * seed);
    const std::string bytes = fault::Garbage(seed, size);
    const size_t whole = [&] {
      size_t n = 0;
      for (const auto& f : fault::SplitFrames(bytes)) n += 8 + f.msglen;
      return n;
    }();
    // What follows the last whole frame decides how the reader gives up.
    const uint16_t nextLen = bytes.size() - whole >= 8
                                 ? static_cast<uint16_t>(static_cast<uint8_t>(bytes[whole + 6]) |
                                                         static_cast<uint8_t>(bytes[whole + 7]) << 8)
                                 : 0;
    GarbageCase c{"random bytes, seed " + std::to_string(seed), bytes, false, ""};
    if (bytes.size() - whole < 8) c.logLine = "read pack head failed:";
    else if (nextLen > 64503) c.daemonCloses = true, c.logLine = "got error message:";
    else c.logLine = "read pack body failed:";
    cases.push_back(c);
  }
  return cases;
}

TEST_F(GarbageFrames, EachKindOfGarbageDropsTheConnectionAndItComesBack) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  // Logged as each shell command is taken, before it runs.
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
    ASSERT_TRUE(daemon.Running());
    ASSERT_TRUE(peer.WaitConnected(2s));
    ExpectCommandRuns("after-garbage-" + std::to_string(n++));
  }
  EXPECT_FALSE(e2e::Exists("/tmp/fault/never"));
  // Frames that garbage happened to contain were never commands.
  EXPECT_EQ(daemon.Count(taken), commandsBefore + n);
}

TEST_F(GarbageFrames, FrameArrivingInPiecesIsOneCommandOnTheSameConnection) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  const std::string touched = std::string(fault::kScratch) + "/pieces";
  const std::string frame = EncodeFrame(2, 0x301, "touch " + touched);
  const uint64_t conn = peer.CurrentConnection();
  const int failures = daemon.Count("read  package  failed", "error");
  // Header cut in two, then the body a few bytes at a time.
  const size_t cuts[] = {0, 3, 8, 12, 20, frame.size()};
  for (size_t k = 0; k + 1 < std::size(cuts); ++k) {
    ASSERT_TRUE(peer.SendRaw(frame.substr(cuts[k], cuts[k + 1] - cuts[k])));
    std::this_thread::sleep_for(150ms);  // pacing: each piece is its own read
  }
  EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s));
  EXPECT_EQ(peer.CurrentConnection(), conn);
  EXPECT_EQ(daemon.Count("read  package  failed", "error"), failures);
}

class StoppedReader : public ::testing::Test {
 protected:
  void SetUp() override {
    e2e::PrepareInstallation("abc");
    e2e::MakeDirs(fault::kScratch);
    ASSERT_TRUE(peer_.Listen(sdp_paths::kDaemonSocket));
    daemon_ = std::make_unique<e2e::Daemon>();
    ASSERT_TRUE(daemon_->Started());
    ASSERT_TRUE(peer_.Accept(10s));
  }
  void TearDown() override {
    if (daemon_) {
      EXPECT_EQ(e2e::SanitizerReport(daemon_->Stderr()), "");
    }
  }

  fault::SilentPeer peer_;
  std::unique_ptr<e2e::Daemon> daemon_;
};

TEST_F(StoppedReader, CommandsRunWhileNothingIsReadAndNoHeartbeatIsLost) {
  // The daemon's registration and heartbeats pile up unread for twelve
  // seconds while commands keep coming.
  ASSERT_TRUE(daemon_->WaitLog("send heart beat", 10s));
  const auto start = std::chrono::steady_clock::now();
  const std::string done = std::string(fault::kScratch) + "/unread";
  int sent = 0;
  while (std::chrono::steady_clock::now() - start < 12s) {
    ASSERT_TRUE(peer_.Send(EncodeFrame(2, 0x301, "echo " + std::to_string(sent) + " >> " + done)));
    ++sent;
    const int want = sent;
    ASSERT_TRUE(e2e::WaitUntil(
        [&] {
          int lines = 0;
          for (char c : e2e::ReadFile(done)) lines += c == '\n';
          return lines == want;
        },
        5s))
        << "command " << sent << " did not run";
    std::this_thread::sleep_for(500ms);  // paces the commands over the whole period
  }
  ASSERT_TRUE(daemon_->Running());

  // Reading again: one registration, then every heartbeat sent, each whole.
  const int beatsLogged = daemon_->Count("send heart beat");
  std::string bytes;
  ASSERT_TRUE(e2e::WaitUntil(
      [&] {
        bytes += peer_.Drain();
        return fault::SplitFrames(bytes).size() >= static_cast<size_t>(1 + beatsLogged);
      },
      5s));
  const auto frames = fault::SplitFrames(bytes);
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(frames[0].s_cmd, 0x1005);
  EXPECT_GE(beatsLogged, 4);
  for (size_t i = 1; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].s_cmd, 0x1111) << "frame " << i;
    EXPECT_EQ(frames[i].body, "abc#10.0.0.5#") << "frame " << i;
  }
}

}  // namespace
