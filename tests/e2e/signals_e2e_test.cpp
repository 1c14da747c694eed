// How the real daemon ends: a termination signal, in the command loop or in
// the wait before start-up, leaves one line naming it and exit status 0; a
// crash leaves glog's report in the ERROR log and ends by the signal.
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

TEST(DaemonSignals, TerminationExitsWithStatusZeroAfterOneLineAndACrashIsReported) {
  e2e::PrepareInstallation("abc");
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  const struct {
    int sig;
    bool inLoop;  // else during the wait before the first start-up attempt
  } cases[] = {{SIGTERM, true},  {SIGQUIT, true},  {SIGUSR1, true},
               {SIGUSR2, true}, {SIGTERM, false}, {SIGSEGV, false}};
  // All run at once.
  std::vector<std::unique_ptr<e2e::Daemon>> daemons;
  for (size_t i = 0; i < std::size(cases); ++i) {
    daemons.push_back(std::make_unique<e2e::Daemon>());
    ASSERT_TRUE(daemons.back()->Started());
  }
  for (int inLoop = 0; inLoop < 2; ++inLoop)
    for (size_t i = 0; i < std::size(cases); ++i) {
      if (cases[i].inLoop != bool(inLoop)) continue;
      ASSERT_TRUE(inLoop ? daemons[i]->WaitLog("read userinfo failed!", 12s, 1, "error")
                         : daemons[i]->WaitLog("setupSignal done.", 5s));
      ASSERT_TRUE(daemons[i]->Signal(cases[i].sig));
    }
  // ThreadSanitizer holds an asynchronous signal until the thread it hit
  // leaves its blocking call; a frame the daemons drop (main command 1) gives
  // the receiving thread that moment. Without it, the frames change nothing.
  EXPECT_TRUE(e2e::WaitUntil(
      [&] {
        peer.SendFrame(1, 0x303, "", 100ms);
        for (auto& d : daemons)
          if (d->Running()) return false;
        return true;
      },
      10s));

  for (size_t i = 0; i < std::size(cases); ++i) {
    const int sig = cases[i].sig;
    SCOPED_TRACE(testing::Message() << "signal " << sig << (cases[i].inLoop ? " in loop" : ""));
    e2e::Daemon& d = *daemons[i];
    const auto status = d.WaitExit(0ms);
    ASSERT_TRUE(status.has_value());
    if (sig == SIGSEGV) {  // glog's handler reports, then lets the signal end it
      EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGSEGV) << *status;
      EXPECT_GE(d.Count("*** SIGSEGV", "error"), 1);
      continue;
    }
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    EXPECT_EQ(d.Count("Daemon Child Recv Signal:" + std::to_string(sig)), 1);
    EXPECT_EQ(d.Count("Daemon Child Recv Signal:"), 1);
    EXPECT_EQ(d.Count("init finish.."), cases[i].inLoop ? 1 : 0);
    EXPECT_EQ(e2e::SanitizerReport(d.Stderr()), "");
  }
}

}  // namespace
