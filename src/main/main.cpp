// tolvarind: the desktop-session client of the peer daemon. Sets up logging
// and signals, retries the client's start-up every 3 seconds until it works,
// then hands the thread to the command loop.
#include <glog/logging.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "sandbox_log.h"
#include "signals.h"
#include "tolvarind.h"

namespace {

// The client, for the exit path of the termination handler, which leaves
// main's objects alive but destroys glog's: the heartbeat must be quiet first.
std::atomic<tolvarind*> g_client{nullptr};

void QuiesceClientAtExit() {
  if (tolvarind* client = g_client.load()) client->QuiesceHeartbeat();
}

}  // namespace

int main(int argc, char** argv) {
  SandboxLOG logging(argc > 0 && argv[0] ? argv[0] : "tolvarind");
  setupSignal();
  auto client = std::make_unique<tolvarind>();
  g_client = client.get();
  std::atexit(QuiesceClientAtExit);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    if (client->init()) break;
    LOG(INFO) << "init error...";
  }
  client->run();
  g_client = nullptr;
  client.reset();
  return 0;
}
