// Losing the peer: an oversize frame and a peer restart each end the
// connection; the daemon reconnects by itself, heartbeats resume on the new
// connection without a second registration, and commands work again.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "shared_run.h"

namespace {

using namespace std::chrono_literals;
using sdppeer::Frame;

class DaemonReconnect : public e2e::SharedRun {
 protected:
  static void SetUpTestSuite() {
    StartRun() && (peer_->WaitFrame(0x1005, 8s) || Fail("no registration")) && WaitLoop();
  }

  // Waits for connection number `count`, then expects it served: a heartbeat
  // on it, no registration, and a shell command sent on it run.
  static void ExpectServedOn(uint64_t count, const std::string& touched) {
    ASSERT_TRUE(peer_->WaitAccepted(count, 3s));
    const uint64_t conn = peer_->CurrentConnection();
    auto beat = peer_->WaitFrame([&](const Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 5s);
    ASSERT_TRUE(beat.has_value()) << "no heartbeat on connection " << conn;
    EXPECT_EQ(beat->body, "abc#10.0.0.5#");
    for (const auto& f : peer_->Frames())
      EXPECT_FALSE(f.connection == conn && f.s_cmd == 0x1005) << "registered again on " << conn;
    ASSERT_TRUE(peer_->SendFrame(2, 0x301, "touch " + touched));
    EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 5s)) << touched;
  }
};

TEST_F(DaemonReconnect, OversizeFrameDropsTheConnectionAndItComesBack) {
  const uint64_t accepted = peer_->AcceptedCount();
  const int failures = daemon_->Count("read  package  failed", "error");
  // A header announcing one byte more than a frame may carry; no body follows.
  ASSERT_TRUE(peer_->SendRaw(sdppeer::EncodeHeader(0, 2, 4097, 64504)));
  ASSERT_TRUE(daemon_->WaitLog("read  package  failed", 5s, failures + 1, "error"));
  EXPECT_GE(daemon_->Count("got error message:2 4097 0 64504", "error"), 1);
  EXPECT_GE(daemon_->Count("daemon_client recv message failed, wailt reconnect", "error"), 1);
  ExpectServedOn(accepted + 1, "/tmp/rec/after-oversize");
}

TEST_F(DaemonReconnect, PeerRestartIsFollowedByReconnectionAndHeartbeats) {
  const uint64_t accepted = peer_->AcceptedCount();
  const int attempts = daemon_->Count("try connect to server");
  peer_->StopListening();
  peer_->CloseConnection();
  // It keeps trying while nobody listens, and is back within about a second.
  ASSERT_TRUE(daemon_->WaitLog("try connect to server", 5s, attempts + 2));
  EXPECT_GE(daemon_->Count("anetUnixConnect failed:", "error"), 1);
  EXPECT_EQ(peer_->AcceptedCount(), accepted);
  ASSERT_TRUE(peer_->Restart());
  ExpectServedOn(accepted + 1, "/tmp/rec/after-restart");
}

}  // namespace
