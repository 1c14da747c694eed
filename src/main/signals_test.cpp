#include "signals.h"

#include <gtest/gtest.h>

namespace {

// SIGINT belongs to the HTTPS endpoint. Without SA_RESTART a signal would fail
// the blocked receive, and the channel would drop a healthy connection.
TEST(Signals, HandlersAndMasksCoverTheTerminationSignalsAndSigpipe) {
  setupSignal();
  for (int sig : {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGINT, SIGHUP}) {
    const bool handled = sig != SIGINT && sig != SIGHUP;
    struct sigaction now;
    sigaction(sig, nullptr, &now);
    EXPECT_EQ(now.sa_handler == &signalChildHandler && (now.sa_flags & SA_RESTART) != 0, handled)
        << sig;
    signal(sig, SIG_DFL);
    for (bool sigintToo : {false, true}) {
      sigset_t mask;
      {
        TerminationSignalsBlocked blocked(sigintToo);
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
      }
      EXPECT_EQ(sigismember(&mask, sig), handled || (sig == SIGINT && sigintToo)) << sig;
      pthread_sigmask(SIG_BLOCK, nullptr, &mask);
      EXPECT_EQ(sigismember(&mask, sig), 0) << sig;  // as it was before
    }
  }
}

}  // namespace
