// tolvarind: the desktop-session client of the peer daemon. Sets up logging
// and signals, retries the client's start-up every 3 seconds until it works,
// then hands the thread to the command loop.
#include <glog/logging.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "sandbox_log.h"
#include "signals.h"
#include "tolvarind.h"

namespace {

// The client, for exit after main returns with the HTTPS endpoint's thread
// still running: static destructors, glog's among them, must not run under a
// heartbeat.
std::atomic<tolvarind*> g_client{nullptr};

void QuiesceClientAtExit() {
  if (tolvarind* client = g_client.load()) client->QuiesceHeartbeat();
}

}  // namespace

int main(int argc, char** argv) {
  // Opt-in: the loopback HTTPS endpoint, which the start-up sequence never runs.
  bool https_endpoint = false;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--https-endpoint") == 0) https_endpoint = true;
  SandboxLOG logging(argc > 0 && argv[0] ? argv[0] : "tolvarind");
  setupSignal();
  // The signal thread also keeps the log directory within its budget.
  StartTerminationSignalThread(SweepLogDirectory, kLogSweepInterval);
  auto client = std::make_unique<tolvarind>();
  g_client = client.get();
  std::atexit(QuiesceClientAtExit);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    if (client->init()) break;
    LOG(INFO) << "init error...";
  }
  if (https_endpoint) client->StartHttpsEndpointThread();
  client->run();
  if (https_endpoint) {
    // The endpoint's thread cannot be stopped from here and may still relay
    // through the client: keep it (and its heartbeat quiesced at exit) until
    // the process ends.
    (void)client.release();
    return 0;
  }
  g_client = nullptr;
  client.reset();
  return 0;
}
