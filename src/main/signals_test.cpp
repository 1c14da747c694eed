#include "signals.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <functional>

#include "log_capture.h"
#include "sandbox_log.h"

namespace {

TEST(SignalHandle, WritesExactlySizeBytesAsOneErrorRecord) {
  testsupport::LogCapture logs;
  SignalHandle("*** SIGSEGV received\nnot this part", 20);
  ASSERT_EQ(logs.records().size(), 1u);
  EXPECT_EQ(logs.records()[0].severity, google::GLOG_ERROR);
  EXPECT_EQ(logs.records()[0].text, "*** SIGSEGV received");
}

TEST(SetupSignal, InstallsTheHandlerWithRestartForEveryTerminationSignalButSigint) {
  const int sigs[] = {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGINT};
  struct sigaction saved[6];
  for (int i = 0; i < 6; ++i) sigaction(sigs[i], nullptr, &saved[i]);
  testsupport::LogCapture logs;
  setupSignal();
  EXPECT_TRUE(logs.has("setupSignal done.", google::GLOG_INFO));
  for (int i = 0; i < 6; ++i) {
    struct sigaction now;
    ASSERT_EQ(sigaction(sigs[i], nullptr, &now), 0);
    // SIGINT belongs to the HTTPS endpoint. Without SA_RESTART a signal would
    // fail the blocked receive, and the channel would drop a healthy connection.
    if (sigs[i] == SIGINT) {
      EXPECT_EQ(now.sa_handler, saved[i].sa_handler);
    } else {
      EXPECT_EQ(now.sa_handler, &signalChildHandler) << sigs[i];
      EXPECT_TRUE(now.sa_flags & SA_RESTART) << sigs[i];
    }
    sigaction(sigs[i], &saved[i], nullptr);
  }
}

TEST(SignalHandler, ForwardsToShutdownHandlerAndThrowsWhenItIsEmpty) {
  shutdown_handler = nullptr;
  EXPECT_THROW(signal_handler(SIGINT), std::bad_function_call);
  int got = 0;
  shutdown_handler = [&got](int sig) { got = sig; };
  signal_handler(SIGINT);
  EXPECT_EQ(got, SIGINT);
  shutdown_handler = nullptr;
}

}  // namespace
