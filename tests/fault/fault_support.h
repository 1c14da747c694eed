// What the fault-injection tests share on top of the end-to-end harness
// (tests/e2e/daemon_harness.h): one daemon run against the test peer.
//
// REQUIRES: the process is in the sandbox (sandbox_main).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "daemon_harness.h"
#include "peer_server.h"

namespace fault {

using namespace std::chrono_literals;
using e2e::Millis;

// Scratch directory of the tests (a sandbox tmpfs).
inline constexpr char kScratch[] = "/tmp/fault";

// The test peer listening on the daemon's socket and the daemon started
// against it. Start() waits for the registration and then for a first
// command to run: commands are taken only once the desktop is prepared.
class DaemonRun {
 public:
  // "" on success, else what went wrong.
  std::string Start(Millis loopTimeout = 20s);
  // Sends a shell command touching kScratch/<name>; true once it ran.
  bool RunsCommand(const std::string& name, Millis timeout = 10s);
  // Sanitizer reports in the daemon's standard error ("" when none).
  std::string SanitizerReport() const;

  sdppeer::PeerServer& peer() { return *peer_; }
  e2e::Daemon& daemon() { return *daemon_; }

 private:
  std::unique_ptr<sdppeer::PeerServer> peer_;
  std::unique_ptr<e2e::Daemon> daemon_;
};

// One daemon for a whole suite, checked for sanitizer reports at its end.
class DaemonSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    run_ = new DaemonRun();
    setupError_ = run_->Start();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(run_->SanitizerReport(), "");
    delete run_;
  }
  void SetUp() override {
    ASSERT_EQ(setupError_, "");
    ASSERT_TRUE(run_->daemon().Running());
  }

  static inline DaemonRun* run_ = nullptr;
  static inline std::string setupError_;
};

// The desktop user every launcher test uses.
inline constexpr char kDesktop[] = "/home/alice/Desktop";
// Writes userinfo.ini naming the user, with `aumLines` ("source=address\n"...)
// in its [Aum] section and a jump browser, and creates the desktop directory.
void PrepareDesktopUser(const std::string& aumLines);

}  // namespace fault
