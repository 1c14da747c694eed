#include "signals.h"

#include <glog/logging.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>

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
  if (sig == SIGQUIT || sig == SIGTERM || sig == SIGKILL || sig == SIGUSR1 || sig == SIGUSR2)
    std::exit(0);
}

void signal_handler(int sig) { shutdown_handler(sig); }
