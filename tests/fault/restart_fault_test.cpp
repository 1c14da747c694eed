// A peer daemon that restarts over and over: after every restart the daemon
// connects again within about 1.5 seconds without registering again, its
// heartbeats resume on the new connection, commands still run, and its
// descriptors, threads and child processes stay exactly as many as before.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "fault_support.h"

#ifndef FAULT_DAEMON_THREADS
#define FAULT_DAEMON_THREADS 3
#endif
#ifndef FAULT_RESTARTS
#define FAULT_RESTARTS 200
#endif

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using sdppeer::Frame;

class PeerRestarts : public ::testing::Test {
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

  static inline fault::DaemonRun* run_ = nullptr;
  static inline std::string setupError_;
};

TEST_F(PeerRestarts, ReconnectsAfterEveryRestartWithFlatFootprint) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  const uint64_t firstConn = peer.CurrentConnection();
  ASSERT_TRUE(peer.WaitFrame(
      [&](const Frame& f) { return f.connection == firstConn && f.s_cmd == 0x1111; }, 5s));
  const fault::Footprint base = fault::SettledFootprint(daemon.pid());
  std::printf("idle daemon: %s\n", fault::Describe(base).c_str());
  // Main thread, heartbeat thread, one reconnect thread; nothing forked.
  ASSERT_EQ(base.threads, FAULT_DAEMON_THREADS) << fault::Describe(base);
  ASSERT_EQ(base.children, 0) << fault::Describe(base);
  const std::string baseFds = fault::DescriptorList(daemon.pid());
  // Registration is sent once, at start-up, never on a reconnection.
  std::atomic<int> registrations{0};
  peer.SetFrameCallback([&](const Frame& f) { registrations += f.s_cmd == 0x1005; });

  std::vector<Clock::duration> latencies;
  for (int i = 1; i <= FAULT_RESTARTS; ++i) {
    const uint64_t accepted = peer.AcceptedCount();
    peer.CloseConnection();
    peer.StopListening();
    // Now and then the peer stays away a while, so that the daemon's
    // attempts meet no listener first.
    if (i % 25 == 0) {
      ASSERT_TRUE(daemon.WaitLog("anetUnixConnect failed:", 3s,
                                 daemon.Count("anetUnixConnect failed:", "error") + 1, "error"))
          << "restart " << i;
    }
    ASSERT_TRUE(peer.Restart()) << "restart " << i;
    const auto back = Clock::now();
    ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 5s)) << "no reconnection after restart " << i;
    latencies.push_back(Clock::now() - back);

    if (i % 20 != 0 && i != FAULT_RESTARTS) continue;
    const uint64_t conn = peer.CurrentConnection();
    auto beat = peer.WaitFrame(
        [&](const Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 5s);
    ASSERT_TRUE(beat.has_value()) << "no heartbeat after restart " << i;
    EXPECT_EQ(beat->body, "abc#10.0.0.5#");
    const std::string touched = std::string(fault::kScratch) + "/after-restart-" + std::to_string(i);
    ASSERT_TRUE(peer.SendFrame(2, 0x301, "touch " + touched));
    EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s)) << touched;
    const fault::Footprint now = fault::WaitFootprint(daemon.pid(), base, 3s);
    ASSERT_EQ(now, base) << "after restart " << i << ": " << fault::Describe(now) << " instead of "
                         << fault::Describe(base) << "\nnow:\n"
                         << fault::DescriptorList(daemon.pid()) << "before:\n"
                         << baseFds;
    peer.ClearFrames();  // keeps the peer's frame list short
  }

  const auto worst = *std::max_element(latencies.begin(), latencies.end());
  int slow = 0;
  for (auto l : latencies) slow += l > 1500ms;
  EXPECT_EQ(slow, 0) << "reconnections slower than 1.5 s; the slowest took "
                     << std::chrono::duration_cast<std::chrono::milliseconds>(worst).count()
                     << " ms";
  peer.SetFrameCallback(nullptr);
  EXPECT_EQ(registrations.load(), 0);
  EXPECT_EQ(daemon.Count("init finish.."), 1);
  std::printf("%d restarts, slowest reconnection %lld ms\n", FAULT_RESTARTS,
              static_cast<long long>(
                  std::chrono::duration_cast<std::chrono::milliseconds>(worst).count()));
  ::testing::Test::RecordProperty("restarts", FAULT_RESTARTS);
  ::testing::Test::RecordProperty(
      "slowest_reconnect_ms",
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(worst).count()));
}

}  // namespace
