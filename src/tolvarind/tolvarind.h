// The client object: one per process, built by the entry point. It reads the
// sandbox id, connects to the peer daemon, registers, keeps a heartbeat going
// from a thread of its own, prepares the desktop's launchers and then carries
// out the commands the peer pushes, one at a time, on the calling thread.
//
// Threads: init(), run() and everything they call run on the main thread. The
// detached heartbeat thread started by a successful init() calls
// SendHeartBeat() and is the only writer of m_ipv4, m_ipv6 and m_heartCount
// from then on; it reads m_sandboxId, which nothing writes after init()
// returned true. The two threads share the channel, whose separate read and
// write locks keep a blocked receive from holding up a heartbeat.
//
// Signals: the threads init() starts (heartbeat, channel reconnection) and the
// HTTPS endpoint's thread keep the termination signals and SIGPIPE blocked;
// the process's signal thread takes the termination signals (signals.h holds
// the whole policy).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

class TCP_Client;
struct bufferevent;
struct event_base;
struct evhttp_request;

class tolvarind {
 public:
  tolvarind();
  // Stops the heartbeat thread, closes the channel and frees it.
  ~tolvarind();
  tolvarind(const tolvarind&) = delete;
  tolvarind& operator=(const tolvarind&) = delete;

  // Reads the sandbox id, connects, registers and starts the heartbeat thread;
  // true when all of it worked. May be called again after a false result.
  bool init();
  // Sends the registration frame; the channel's send result (negative on failure).
  int RegisterToDaemon();
  // One heartbeat, probing the addresses when their cache is empty.
  void SendHeartBeat();
  // Prepares the desktop once, then receives and dispatches for ever. Returns
  // only when the channel is unusable on entry.
  void run();

  // Opens the portal through the SSO script. True only when the command's
  // result is 0, which a command that ran never gives: in practice false.
  bool OpenSolmeriUrl(const std::string& url);
  // Tells the desktop user that `msg` is not on the application whitelist.
  void HandleIllegalMessage(const std::string& msg);
  // Rebuilds the resource launchers from the resource list.
  void DealUserInfoIni();


  // The loopback HTTPS endpoint that relays request queries to the peer; not
  // started by the start-up sequence. Defined in https_server.cpp.
  int start_https_server();
  static struct bufferevent* create_ssl_bufferevent(struct event_base* base, void* arg);
  static void handle_https_request(struct evhttp_request* req, void* arg);
  // Runs start_https_server on a detached thread that, like the client's
  // other threads, leaves the termination signals to the main thread, and
  // SIGINT too, whose handler must not run on the loop's own thread.
  void StartHttpsEndpointThread();

  // Why the last start-up attempt did not trust the peer's directory, one of
  // its files or the peer itself; "" when nothing was refused. Any thread.
  std::string Refusal() const;

  // Limits of the HTTPS endpoint against a local user who would exhaust it.
  // Set before start_https_server().
  struct HttpsLimits {
    // A connection must complete its TLS handshake and a request within this
    // time of connecting, and each next request within it of the previous one.
    std::chrono::milliseconds requestDeadline{10000};
    int maxConnections = 64;
    // How long the listener rests after an accept error (EMFILE, ENOBUFS...).
    std::chrono::milliseconds acceptPause{1000};
  };
  void SetHttpsLimits(const HttpsLimits& limits) { m_httpsLimits = limits; }

  static constexpr std::chrono::seconds kHeartbeatInterval{3};

 private:
  void HeartbeatLoop();
  bool StartHeartbeat();
  // False when the thread did not end within `timeout` (a send blocked in it).
  bool StopHeartbeat(std::chrono::milliseconds timeout);
  void SetRefusal(const std::string& why);

  std::unique_ptr<TCP_Client> m_tcpClient;
  char m_sandboxId[1024];
  std::string m_ipv4;  // cached heartbeat addresses; empty means probe again
  std::string m_ipv6;
  int m_heartCount;  // heartbeats sent since the caches were last cleared

  // Stopping the detached heartbeat thread, for the destructor and for exit.
  std::atomic<bool> m_beatStop{false};     // asks the thread to end
  std::atomic<bool> m_beatRunning{false};  // the thread has not ended yet
  std::mutex m_beatMutex;                  // only for m_beatCv's wait
  std::condition_variable m_beatCv;        // cuts the 3-second wait short

  mutable std::mutex m_refusalMutex;  // guards m_refusal
  std::string m_refusal;
  HttpsLimits m_httpsLimits;
};
