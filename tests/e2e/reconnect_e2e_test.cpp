// Losing the peer: an oversize frame and a peer restart each end the
// connection; the daemon reconnects by itself, heartbeats resume on the new
// connection without a second registration, and commands work again.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
using e2e::Daemon;
using sdppeer::Frame;
using sdppeer::PeerServer;

class DaemonReconnect : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    peer_ = new PeerServer();
    std::string error;
    if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) {
      setupError_ = "peer: " + error;
      return;
    }
    daemon_ = new Daemon();
    if (!daemon_->Started()) {
      setupError_ = "daemon did not start";
      return;
    }
    if (!peer_->WaitFrame(0x1005, 8s))
      setupError_ = "no registration";
    else if (!daemon_->WaitLog("read userinfo failed!", 5s, 1, "error"))
      setupError_ = "never reached the loop";
  }

  static void TearDownTestSuite() {
    if (daemon_) {
      EXPECT_EQ(e2e::SanitizerReport(daemon_->Stderr()), "");
    }
    delete daemon_;
    delete peer_;
    daemon_ = nullptr;
    peer_ = nullptr;
  }

  void SetUp() override {
    ASSERT_EQ(setupError_, "");
    ASSERT_TRUE(daemon_->Running());
  }

  // After a new connection `conn`: a heartbeat arrives on it, no registration
  // does, and a shell command sent on it runs.
  static void ExpectServedOn(uint64_t conn, const std::string& touched) {
    auto beat = peer_->WaitFrame(
        [conn](const Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 5s);
    ASSERT_TRUE(beat.has_value()) << "no heartbeat on connection " << conn;
    EXPECT_EQ(beat->body, "abc#10.0.0.5#");
    for (const auto& f : peer_->Frames())
      EXPECT_FALSE(f.connection == conn && f.s_cmd == 0x1005) << "registered again on " << conn;
    ASSERT_TRUE(peer_->SendFrame(2, 0x301, "touch " + touched));
    EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s)) << touched;
  }

  static inline PeerServer* peer_ = nullptr;
  static inline Daemon* daemon_ = nullptr;
  static inline std::string setupError_;
};

TEST_F(DaemonReconnect, OversizeFrameDropsTheConnectionAndItComesBack) {
  const uint64_t accepted = peer_->AcceptedCount();
  const int failures = daemon_->Count("read  package  failed", "error");
  // A header announcing one byte more than a frame may carry; no body follows.
  ASSERT_TRUE(peer_->SendRaw(sdppeer::EncodeHeader(0, 2, 4097, 64504)));
  ASSERT_TRUE(daemon_->WaitLog("read  package  failed", 5s, failures + 1, "error"));
  EXPECT_GE(daemon_->Count("got error message:2 4097 0 64504", "error"), 1);
  EXPECT_GE(daemon_->Count("daemon_client recv message failed, wailt reconnect", "error"), 1);
  ASSERT_TRUE(peer_->WaitAccepted(accepted + 1, 5s));
  ExpectServedOn(peer_->CurrentConnection(), "/tmp/rec/after-oversize");
}

TEST_F(DaemonReconnect, PeerRestartIsFollowedByReconnectionAndHeartbeats) {
  const uint64_t accepted = peer_->AcceptedCount();
  const int attempts = daemon_->Count("try connect to server");
  peer_->StopListening();
  peer_->CloseConnection();
  // It keeps trying while nobody listens ...
  ASSERT_TRUE(daemon_->WaitLog("try connect to server", 5s, attempts + 2));
  EXPECT_GE(daemon_->Count("anetUnixConnect failed:", "error"), 1);
  EXPECT_EQ(peer_->AcceptedCount(), accepted);
  // ... and is back within about a second of the peer.
  ASSERT_TRUE(peer_->Restart());
  ASSERT_TRUE(peer_->WaitAccepted(accepted + 1, 3s));
  ExpectServedOn(peer_->CurrentConnection(), "/tmp/rec/after-restart");
}

}  // namespace
