#include "signals.h"

#include <glog/logging.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>

std::function<void(int)> shutdown_handler;

void setupSignal() {
  struct sigaction act;
  std::memset(&act, 0, sizeof(act));
  act.sa_handler = signalChildHandler;
  sigemptyset(&act.sa_mask);
  act.sa_flags = SA_RESTART;
  // Results ignored. SIGKILL cannot be caught and that call always fails;
  // it is kept on purpose, as the list of signals the client answers to.
  sigaction(SIGTERM, &act, nullptr);
  sigaction(SIGKILL, &act, nullptr);
  sigaction(SIGQUIT, &act, nullptr);
  sigaction(SIGUSR1, &act, nullptr);
  sigaction(SIGUSR2, &act, nullptr);
  sigaction(SIGPIPE, &act, nullptr);
  LOG(INFO) << "setupSignal done.";
}

void signalChildHandler(int sig) {
  // Not async-signal-safe, accepted on purpose: the line tells who stopped
  // the client.
  LOG(INFO) << "Daemon Child Recv Signal:" << sig;
  if (sig == SIGQUIT || sig == SIGTERM || sig == SIGKILL || sig == SIGUSR1 || sig == SIGUSR2) {
    // Not exit(): the other threads go on running, and static destructors,
    // glog's lock among them, would be torn down under them. What exit would
    // do that matters, the logs and standard streams on disk, is done here.
    google::FlushLogFiles(google::GLOG_INFO);
    std::fflush(nullptr);
    std::_Exit(0);
  }
}

void signal_handler(int sig) { shutdown_handler(sig); }

TerminationSignalsBlocked::TerminationSignalsBlocked(bool sigintToo) {
  sigset_t set = TerminationSignals();
  sigaddset(&set, SIGPIPE);
  if (sigintToo) sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, &old_);
}

TerminationSignalsBlocked::~TerminationSignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, &old_, nullptr);
}

sigset_t TerminationSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2}) sigaddset(&set, sig);
  return set;
}

void BlockTerminationSignals() {
  const sigset_t set = TerminationSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void StartTerminationSignalThread(std::function<void()> chore, std::chrono::seconds period) {
  // glog takes a lock for every line and aborts when a thread takes it twice:
  // a handler that logs on a thread the signal caught in the middle of a line
  // ends the process with SIGABRT instead of status 0. Blocked everywhere and
  // taken here, a termination signal runs the handler on a thread that holds
  // nothing, and its line waits for the one in progress.
  const sigset_t set = TerminationSignals();
  BlockTerminationSignals();
  try {
    std::thread([set, chore = std::move(chore), period] {
      // Every other signal is for the rest of the process: a crash signal
      // sent from outside must reach a thread that is not parked in sigwait.
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      auto due = std::chrono::steady_clock::now();
      for (;;) {
        int sig = 0;
        if (!chore) {
          if (sigwait(&set, &sig) == 0) signalChildHandler(sig);
          continue;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= due) {
          chore();
          due = now + std::max(period, std::chrono::seconds(1));
          continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(due - now).count();
        const timespec wait{static_cast<time_t>(left / 1000000000),
                            static_cast<long>(left % 1000000000)};
        sig = sigtimedwait(&set, nullptr, &wait);
        if (sig > 0) signalChildHandler(sig);
      }
    }).detach();
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // the handler on any thread, as before
  }
}
