// The process's signal policy, all of it here:
// - SIGTERM, SIGQUIT, SIGUSR1 and SIGUSR2 end the process with status 0 after
//   one log line naming the signal. They are blocked in every thread and taken
//   by one thread of their own (StartTerminationSignalThread), never by a
//   thread caught halfway through a log line.
// - SIGPIPE is blocked in the client's own threads and, from the first
//   command on, ignored: a broken socket shows up as a failed send.
// - SIGINT is left to whoever installs signal_handler (the HTTPS endpoint)
//   and fills shutdown_handler; it is kept off the endpoint's own thread.
// - Every command the daemon starts begins with default dispositions and an
//   empty mask (util::system_output, util::system_run).
#pragma once

#include <signal.h>

#include <chrono>
#include <functional>

// Called with the signal number by signal_handler. Empty until the HTTPS
// endpoint stores its loop-exit callable in it.
extern std::function<void(int)> shutdown_handler;

// Installs signalChildHandler for SIGTERM, SIGKILL (refused by the kernel),
// SIGQUIT, SIGUSR1, SIGUSR2 and SIGPIPE.
void setupSignal();

// Logs "Daemon Child Recv Signal:<sig>"; for SIGQUIT, SIGTERM, SIGKILL,
// SIGUSR1 and SIGUSR2 then flushes the logs and standard streams and ends the
// process with status 0 (without static destructors), otherwise returns.
void signalChildHandler(int sig);

// SIGTERM, SIGQUIT, SIGUSR1 and SIGUSR2.
sigset_t TerminationSignals();

// Blocks the termination signals in the calling thread (and the threads it
// starts later). Called first thing in main: a signal that came after the
// handler was installed but before the signal thread took over would run the
// handler on the main thread, perhaps in the middle of a log line, and glog's
// lock taken twice hangs or aborts the process. Blocked, it waits for the
// signal thread.
void BlockTerminationSignals();

// Blocks the termination signals in the calling thread and in every thread it
// starts later, and starts a thread that takes them with sigwait and hands
// each to signalChildHandler. Called once, from main, before any other thread
// exists. Children started later must unblock them again.
// `chore`, when given, runs on that thread at once and then every `period`
// between signals: the thread is idle otherwise and holds no lock.
void StartTerminationSignalThread(std::function<void()> chore = nullptr,
                                  std::chrono::seconds period = std::chrono::seconds(0));

// Blocks the termination signals and SIGPIPE (and SIGINT if asked) on the
// calling thread for its lifetime; threads started meanwhile keep them blocked
// for good.
class TerminationSignalsBlocked {
 public:
  explicit TerminationSignalsBlocked(bool sigintToo = false);
  ~TerminationSignalsBlocked();
  TerminationSignalsBlocked(const TerminationSignalsBlocked&) = delete;
  TerminationSignalsBlocked& operator=(const TerminationSignalsBlocked&) = delete;

 private:
  sigset_t old_;
};

// Forwards `sig` to shutdown_handler; throws std::bad_function_call when it is
// empty.
void signal_handler(int sig);
