// tolvarind: the desktop-session client of the peer daemon. Sets up logging
// and signals, retries the client's start-up every 3 seconds until it works,
// then hands the thread to the command loop.
#include <glog/logging.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "sandbox_log.h"
#include "signals.h"
#include "tolvarind.h"

int main(int argc, char** argv) {
  BlockTerminationSignals();  // until the signal thread takes them (signals.h)
  // Opt-in: the loopback HTTPS endpoint, which the start-up sequence never runs.
  bool https_endpoint = false;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--https-endpoint") == 0) https_endpoint = true;
  SandboxLOG logging(argc > 0 && argv[0] ? argv[0] : "tolvarind");
  setupSignal();
  // The signal thread also keeps the log directory within its budget.
  StartTerminationSignalThread(SweepLogDirectory, kLogSweepInterval);
  auto client = std::make_unique<tolvarind>();
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    if (client->init()) break;
    LOG(INFO) << "init error...";
  }
  if (https_endpoint) client->StartHttpsEndpointThread();
  client->run();
  if (https_endpoint) {
    // The endpoint's thread cannot be stopped from here and may still relay
    // through the client, and neither the client nor glog may be torn down
    // under it or the heartbeat: end the process as a termination signal does.
    google::FlushLogFiles(google::GLOG_INFO);
    std::fflush(nullptr);
    std::_Exit(0);
  }
  client.reset();
  return 0;
}
