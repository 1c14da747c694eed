#include "signals.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <string>

#include "log_capture.h"
#include "sandbox_log.h"

namespace {

TEST(SignalHandle, WritesExactlySizeBytesAsOneErrorRecord) {
  testsupport::LogCapture logs;
  const char report[] = "*** SIGSEGV received\nnot this part";
  SignalHandle(report, 20);
  ASSERT_EQ(logs.records().size(), 1u);
  EXPECT_EQ(logs.records()[0].severity, google::GLOG_ERROR);
  EXPECT_EQ(logs.records()[0].text, "*** SIGSEGV received");
}

TEST(SetupSignal, InstallsTheHandlerWithRestartForEveryTerminationSignal) {
  struct sigaction saved[5];
  const int sigs[] = {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE};
  for (int i = 0; i < 5; ++i) sigaction(sigs[i], nullptr, &saved[i]);
  struct sigaction interruptBefore;
  sigaction(SIGINT, nullptr, &interruptBefore);

  testsupport::LogCapture logs;
  setupSignal();
  EXPECT_TRUE(logs.has("setupSignal done.", google::GLOG_INFO));
  for (int i = 0; i < 5; ++i) {
    struct sigaction now;
    ASSERT_EQ(sigaction(sigs[i], nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, &signalChildHandler) << sigs[i];
    // Without SA_RESTART a signal would fail the blocked receive, and the
    // channel would drop a healthy connection.
    EXPECT_TRUE(now.sa_flags & SA_RESTART) << sigs[i];
  }
  // SIGINT belongs to the HTTPS endpoint.
  struct sigaction interrupt;
  sigaction(SIGINT, nullptr, &interrupt);
  EXPECT_EQ(interrupt.sa_handler, interruptBefore.sa_handler);

  for (int i = 0; i < 5; ++i) sigaction(sigs[i], &saved[i], nullptr);
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
