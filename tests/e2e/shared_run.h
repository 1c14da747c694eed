// One daemon run shared by the checks of a suite: the installation with
// sandbox id "abc", the peer listening, then the daemon. A suite's
// SetUpTestSuite() calls StartRun() and its own waits; a failure recorded with
// Fail() fails every check of the suite with its reason.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace e2e {

class SharedRun : public ::testing::Test {
 protected:
  static bool StartRun() {
    PrepareInstallation("abc");
    peer_ = std::make_unique<sdppeer::PeerServer>();
    std::string error;
    if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) return Fail("peer: " + error);
    daemon_ = std::make_unique<Daemon>();
    return daemon_->Started() || Fail("daemon did not start");
  }
  // In the command loop once the resource step (nothing to do without a
  // desktop user) is over.
  // The peer's side too: the daemon's connect() returns before the peer has
  // accepted, and a frame can only go out on an accepted connection.
  static bool WaitLoop() {
    return (daemon_->WaitLog("read userinfo failed!", std::chrono::seconds(30), 1, "error") &&
            peer_->WaitAccepted(1, std::chrono::seconds(5))) ||
           Fail("never in the loop");
  }
  static bool Fail(const std::string& why) {
    if (error_.empty()) error_ = why;
    return false;
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(daemon_ ? SanitizerReport(daemon_->Stderr()) : "", "");
    daemon_.reset();
    peer_.reset();
    error_.clear();
  }
  void SetUp() override {
    ASSERT_EQ(error_, "");
    ASSERT_TRUE(daemon_->Running());
  }

  static inline std::unique_ptr<sdppeer::PeerServer> peer_;
  static inline std::unique_ptr<Daemon> daemon_;
  static inline std::string error_;
};

}  // namespace e2e
