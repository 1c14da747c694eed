// How the real daemon ends: each termination signal leaves one line naming it
// and an exit status of 0; a crash leaves glog's report in the ERROR log.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
using e2e::Daemon;
using sdppeer::PeerServer;

class DaemonSignals : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    peer_ = new PeerServer();
    if (!peer_->Listen(sdp_paths::kDaemonSocket)) peer_ok_ = false;
  }
  static void TearDownTestSuite() {
    delete peer_;
    peer_ = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(peer_ok_); }

  static inline PeerServer* peer_ = nullptr;
  static inline bool peer_ok_ = true;
};

TEST_F(DaemonSignals, TerminationSignalsExitWithStatusZeroAfterOneLine) {
  const int signals[] = {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2};
  // All four run at once, each until it waits in its receive loop.
  std::vector<std::unique_ptr<Daemon>> daemons;
  for (size_t i = 0; i < std::size(signals); ++i) {
    daemons.push_back(std::make_unique<Daemon>());
    ASSERT_TRUE(daemons.back()->Started());
  }
  for (auto& d : daemons) ASSERT_TRUE(d->WaitLog("read userinfo failed!", 10s, 1, "error"));

  for (size_t i = 0; i < std::size(signals); ++i) ASSERT_TRUE(daemons[i]->Signal(signals[i]));
  // ThreadSanitizer holds an asynchronous signal until the thread it hit
  // leaves its blocking call; a frame the daemons drop (main command 1) gives
  // the receiving thread that moment. Without it, the frames change nothing.
  EXPECT_TRUE(e2e::WaitUntil(
      [&] {
        peer_->SendFrame(1, 0x303, "", 100ms);
        for (auto& d : daemons)
          if (d->Running()) return false;
        return true;
      },
      10s));

  for (size_t i = 0; i < std::size(signals); ++i) {
    SCOPED_TRACE(testing::Message() << "signal " << signals[i]);
    Daemon& d = *daemons[i];
    auto status = d.WaitExit(0ms);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    const std::string line = "Daemon Child Recv Signal:" + std::to_string(signals[i]);
    EXPECT_EQ(d.Count(line), 1);
    EXPECT_EQ(d.Count("Daemon Child Recv Signal:"), 1);
    EXPECT_EQ(e2e::SanitizerReport(d.Stderr()), "");
  }
}

TEST_F(DaemonSignals, SignalDuringStartUpSleepAlsoExitsCleanly) {
  Daemon d;
  ASSERT_TRUE(d.Started());
  ASSERT_TRUE(d.WaitLog("setupSignal done.", 5s));
  ASSERT_TRUE(d.Signal(SIGTERM));
  auto status = d.WaitExit(5s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_EQ(d.Count("Daemon Child Recv Signal:15"), 1);
  EXPECT_EQ(d.Count("init finish.."), 0);
}

TEST_F(DaemonSignals, CrashReportGoesToTheErrorLog) {
  Daemon d;
  ASSERT_TRUE(d.Started());
  ASSERT_TRUE(d.WaitLog("setupSignal done.", 5s));
  ASSERT_TRUE(d.Signal(SIGSEGV));
  auto status = d.WaitExit(10s);
  ASSERT_TRUE(status.has_value());
  // glog's handler reports, then lets the signal end the process.
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(WTERMSIG(*status), SIGSEGV);
  bool report = false;
  for (const auto& l : d.Log("error"))
    if (l.severity == 'E' && l.text.rfind("*** SIGSEGV", 0) == 0) report = true;
  EXPECT_TRUE(report);
}

}  // namespace
