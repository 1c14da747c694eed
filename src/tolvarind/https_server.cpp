// The loopback HTTPS endpoint of the client object: a TLS server on 127.0.0.1
// that relays the query string of every request to the peer daemon and answers
// with a fixed page. The start-up sequence never runs it; a caller gives it a
// thread of its own (the executable's --https-endpoint switch does).
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/event_compat.h>
#include <event2/http.h>
#include <event2/listener.h>
#include <event2/thread.h>
#include <glog/logging.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "CSComm.h"
#include "inifile.h"
#include "payloads.h"
#include "sdp_paths.h"
#include "signals.h"
#include "tcp_client.h"
#include "tolvarind.h"

namespace {

template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* p) const {
    Free(p);
  }
};
using EventBasePtr = std::unique_ptr<event_base, FreeWith<event_base_free>>;
using EvhttpPtr = std::unique_ptr<evhttp, FreeWith<evhttp_free>>;
using UriPtr = std::unique_ptr<evhttp_uri, FreeWith<evhttp_uri_free>>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, FreeWith<BIO_free>>;
using X509Ptr = std::unique_ptr<X509, FreeWith<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using FilePtr = std::unique_ptr<FILE, FreeWith<fclose>>;

constexpr char kListenAddress[] = "127.0.0.1";
constexpr int kDefaultPort = 7103;
// Fixed in this product; a "GMSSL" protocol would read the "GMCert" section.
constexpr char kProtocol[] = "TLSSL";
constexpr int kNameSize = 1024;
// One more than the largest query relayed; the writer cuts anything above its
// own frame limit with a WARNING.
constexpr int kQueryBufferSize = 64511;
constexpr char kReplyPage[] = "<html><body><p>https server</p></body></html>";
// What one request may make the event loop hold: its request line (a query is
// relayed up to kQueryBufferSize - 1 characters, the rest of a longer one is
// cut anyway) and headers, and a body, which nothing reads. Larger requests
// are refused by libevent with an error status before the handler runs.
constexpr size_t kMaxHeadersSize = 128 * 1024;
constexpr size_t kMaxBodySize = 64 * 1024;

// Any local program decides how many lines a request writes and how long they
// are, so their bytes are bounded: on average 1 KiB a second, with bursts of
// 8 KiB and one line more (a longer line waits its turn rather than never
// appearing). A line left out is left out whole; the request is served the
// same.
LineBudget g_requestLog(1024, 8192);
// A line's cost: its text and glog's header, in each file it goes to (an
// ERROR line goes to the WARNING and INFO files as well). Event loop only.
bool MayLog(size_t textLength, int files) {
  return g_requestLog.Take(static_cast<double>(textLength + 64) * files);
}

// Installs signal_handler for SIGINT for one run of the endpoint. On the way
// out the earlier SIGINT action comes back before shutdown_handler is emptied,
// so a late SIGINT reaches neither the ended loop nor an empty handler.
class SigintScope {
 public:
  SigintScope() {
    struct sigaction act {};
    act.sa_handler = signal_handler;
    sigemptyset(&act.sa_mask);
    act.sa_flags = 0;
    sigaction(SIGINT, &act, &previous_);
  }
  ~SigintScope() {
    sigaction(SIGINT, &previous_, nullptr);
    shutdown_handler = nullptr;
  }
  SigintScope(const SigintScope&) = delete;
  SigintScope& operator=(const SigintScope&) = delete;

 private:
  struct sigaction previous_ {};
};

// What keeps a local user from exhausting the endpoint, for one run of it:
// every TLS connection is counted from its SSL object's birth to its death,
// must finish its handshake and a request within the deadline (and each next
// request within it of the previous one), and while the count is at the cap
// or an accept error is being waited out the listener does not accept.
// Loop thread only.
class ConnectionGuard {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ConnectionGuard(const tolvarind::HttpsLimits& limits) : limits_(limits) {}
  ~ConnectionGuard() {
    Detach();
    for (Conn* c : conns_) c->guard = nullptr;  // only if freed after us; never in practice
  }
  ConnectionGuard(const ConnectionGuard&) = delete;
  ConnectionGuard& operator=(const ConnectionGuard&) = delete;

  // Starts watching `listener` (may be null: nothing bound).
  void Attach(event_base* base, evconnlistener* listener) {
    sweep_ = evtimer_new(base, &ConnectionGuard::OnSweep, this);
    resume_ = evtimer_new(base, &ConnectionGuard::OnResume, this);
    listener_ = listener;
    if (listener_ == nullptr) return;
    std::lock_guard<std::mutex> lock(registryMutex_);
    Registry()[listener_] = this;
    evconnlistener_set_error_cb(listener_, &ConnectionGuard::OnAcceptError);
  }
  // Before the server (and its listener) is freed, while the base still is:
  // connections freed from here on are only forgotten.
  void Detach() {
    if (listener_ != nullptr) {
      std::lock_guard<std::mutex> lock(registryMutex_);
      Registry().erase(listener_);
    }
    listener_ = nullptr;
    for (event** ev : {&sweep_, &resume_})
      if (*ev != nullptr) {
        event_free(*ev);
        *ev = nullptr;
      }
  }

  // A new TLS connection; it is forgotten when `ssl` is freed.
  void Opened(SSL* ssl, bufferevent* bev) {
    Conn* c = new Conn{this, bev, Clock::now() + limits_.requestDeadline, nullptr};
    conns_.insert(c);
    SSL_set_ex_data(ssl, SslIndex(), c);
    Arm();
    UpdateListener();
  }

  // A request arrived on the connection of `ssl`: its deadline starts again.
  // `unanswered`: the request is deliberately left without an answer; when
  // the deadline passes, the connection is freed with it.
  static void RequestSeen(SSL* ssl, evhttp_connection* unanswered) {
    auto* c = static_cast<Conn*>(SSL_get_ex_data(ssl, SslIndex()));
    if (c == nullptr || c->guard == nullptr) return;
    c->deadline = Clock::now() + c->guard->limits_.requestDeadline;
    c->unanswered = unanswered;
    c->guard->Arm();
  }

  static int SslIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, &OnSslFree);
    return index;
  }
  static int CtxIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
  }

 private:
  struct Conn {
    ConnectionGuard* guard;
    bufferevent* bev;
    Clock::time_point deadline;
    evhttp_connection* unanswered;
  };

  static void OnSslFree(void*, void* ptr, CRYPTO_EX_DATA*, int, long, void*) {
    auto* c = static_cast<Conn*>(ptr);
    if (c == nullptr) return;
    if (c->guard != nullptr) {
      c->guard->conns_.erase(c);
      c->guard->UpdateListener();
    }
    delete c;
  }

  // The listener accepts while there is room and no accept error is waited out.
  void UpdateListener() {
    if (listener_ == nullptr) return;
    const bool accept = !errorPaused_ && static_cast<int>(conns_.size()) < limits_.maxConnections;
    if (accept == accepting_) return;
    accepting_ = accept;
    if (accept)
      evconnlistener_enable(listener_);
    else
      evconnlistener_disable(listener_);
  }

  // The sweep runs at the earliest deadline; no timer while nothing is open,
  // so that a loop with nothing bound still ends at once.
  void Arm() {
    if (sweep_ == nullptr || conns_.empty()) return;
    Clock::time_point first = Clock::time_point::max();
    for (const Conn* c : conns_) first = std::min(first, c->deadline);
    if (first == Clock::time_point::max()) return;
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(
        std::max(first - Clock::now(), Clock::duration::zero()));
    const timeval tv{static_cast<time_t>(wait.count() / 1000000),
                     static_cast<suseconds_t>(wait.count() % 1000000)};
    evtimer_add(sweep_, &tv);
  }

  static void OnSweep(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<ConnectionGuard*>(arg);
    const auto now = Clock::now();
    std::vector<Conn*> due;
    for (Conn* c : self->conns_)
      if (c->deadline <= now) due.push_back(c);
    for (Conn* c : due) {
      if (self->conns_.count(c) == 0) continue;  // freed by an earlier one's close
      c->deadline = Clock::time_point::max();    // once; it goes when its SSL is freed
      // A null event callback: the server has already let go of the
      // connection and its buffer event only waits to be finalised.
      bufferevent_event_cb eventcb = nullptr;
      bufferevent_getcb(c->bev, nullptr, nullptr, &eventcb, nullptr);
      if (eventcb == nullptr) continue;
      if (c->unanswered != nullptr) {
        // A time-out would drop the request from its connection and leak it;
        // freeing the connection frees the request with it.
        evhttp_connection* conn = c->unanswered;
        c->unanswered = nullptr;
        evhttp_connection_free(conn);
      } else {
        // The server's own time-out path: it closes the connection.
        bufferevent_trigger_event(c->bev, BEV_EVENT_READING | BEV_EVENT_TIMEOUT, 0);
      }
    }
    self->Arm();
  }

  // The listener's argument belongs to the server: the guard is looked up.
  static std::map<evconnlistener*, ConnectionGuard*>& Registry() {
    static auto* registry = new std::map<evconnlistener*, ConnectionGuard*>;
    return *registry;
  }

  static void OnAcceptError(evconnlistener* listener, void*) {
    const int err = EVUTIL_SOCKET_ERROR();
    ConnectionGuard* self = nullptr;
    {
      std::lock_guard<std::mutex> lock(registryMutex_);
      auto it = Registry().find(listener);
      if (it != Registry().end()) self = it->second;
    }
    if (self == nullptr || self->resume_ == nullptr) return;
    // Level-triggered: left enabled, the listener would fail again at once,
    // for ever, at full speed. One line per pause.
    LOG(ERROR) << "accept failed: " << strerror(err) << ", listener paused";
    self->errorPaused_ = true;
    self->UpdateListener();
    const auto pause =
        std::chrono::duration_cast<std::chrono::microseconds>(self->limits_.acceptPause);
    const timeval tv{static_cast<time_t>(pause.count() / 1000000),
                     static_cast<suseconds_t>(pause.count() % 1000000)};
    evtimer_add(self->resume_, &tv);
  }

  static void OnResume(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<ConnectionGuard*>(arg);
    self->errorPaused_ = false;
    self->UpdateListener();
  }

  static inline std::mutex registryMutex_;  // guards Registry()
  const tolvarind::HttpsLimits limits_;
  std::set<Conn*> conns_;
  evconnlistener* listener_ = nullptr;
  event* sweep_ = nullptr;
  event* resume_ = nullptr;
  bool accepting_ = true;
  bool errorPaused_ = false;
};

// SIGINT may land on any thread of the daemon; with libevent's locking on, a
// loop exit asked for from another thread wakes the loop at once.
void UseLibeventThreads() {
  static const int once = evthread_use_pthreads();
  (void)once;
}

// OpenSSL's *_file loaders open with plain fopen(), and the endpoint runs
// beside a thread that forks shell commands: read the PEM through a
// close-on-exec stream instead. Same parsing, same password callback.
BioPtr OpenPem(const char* path, FilePtr& file) {
  file.reset(fopen(path, "re"));
  return BioPtr(file ? BIO_new_fp(file.get(), BIO_NOCLOSE) : nullptr);
}

void UseCertificatePem(SSL_CTX* ctx, const char* path) {
  FilePtr file;
  BioPtr bio = OpenPem(path, file);
  if (!bio) return;
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, SSL_CTX_get_default_passwd_cb(ctx),
                                 SSL_CTX_get_default_passwd_cb_userdata(ctx)));
  if (cert) SSL_CTX_use_certificate(ctx, cert.get());
}

void UsePrivateKeyPem(SSL_CTX* ctx, const char* path) {
  FilePtr file;
  BioPtr bio = OpenPem(path, file);
  if (!bio) return;
  PkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, SSL_CTX_get_default_passwd_cb(ctx),
                                      SSL_CTX_get_default_passwd_cb_userdata(ctx)));
  if (key) SSL_CTX_use_PrivateKey(ctx, key.get());
}

// "<cert dir>/<name>", where the name comes from certinfo.ini or `def`.
std::string CertFilePath(const char* section, const char* key, const char* def) {
  char name[kNameSize] = {};
  ReadStringFromIni(sdp_paths::kCertinfoIni, section, key, name, sizeof name, def);
  std::string path = std::string(sdp_paths::kCertDir) + "/" + name;
  if (path.size() >= kNameSize) path.resize(kNameSize - 1);
  return path;
}

}  // namespace

int tolvarind::start_https_server() {
  // The owners come before the SIGINT scope: SIGINT gets its earlier action
  // back, and shutdown_handler lets go of the base, before any of them is freed
  // (server, context, then base). The guard outlives them all: the last SSL
  // objects are freed with the base.
  ConnectionGuard guard(m_httpsLimits);
  EventBasePtr base;
  SslCtxPtr ctx;
  EvhttpPtr http;
  SigintScope sigint;
  struct DetachFirst {  // the guard's timers and listener go before the server
    ConnectionGuard& guard;
    ~DetachFirst() { guard.Detach(); }
  } detachFirst{guard};
  LOG(INFO) << "Comm::start_https_server";

  UseLibeventThreads();
  base.reset(event_init());
  if (!base) {
    LOG(ERROR) << "Failed to init libevent.";
    return -1;
  }
  shutdown_handler = [&base](int) { event_base_loopexit(base.get(), nullptr); };

  ctx.reset(SSL_CTX_new(TLS_server_method()));
  if (!ctx) {
    LOG(ERROR) << "Failed to create SSL context.";
    return -1;
  }
  SSL_CTX_set_options(ctx.get(), SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
  // Ephemeral ECDH on P-256 only. This is what the temporary-ECDH control does
  // with a P-256 key (it keeps just the key's curve as the group list), without
  // the EC_KEY calls that OpenSSL 3 deprecates.
  int curve = NID_X9_62_prime256v1;
  SSL_CTX_set1_groups(ctx.get(), &curve, 1);

  LOG(INFO) << "Current encryption protocol is:" << kProtocol;
  const char* section = strstr(kProtocol, "GMSSL") != nullptr ? "GMCert" : "Cert";
  const std::string cert = CertFilePath(section, "CliCertName", "SDProot.crt");
  LOG(INFO) << "client cert:" << cert;
  const std::string key = CertFilePath(section, "CliKeyName", "SDProot.key");
  LOG(INFO) << "client key:" << key;
  // A missing or unreadable file shows up only through the key check below.
  UseCertificatePem(ctx.get(), cert.c_str());
  UsePrivateKeyPem(ctx.get(), key.c_str());
  if (SSL_CTX_check_private_key(ctx.get()) != 1) {
    LOG(ERROR) << "Failed to load private key file.";
    return -1;
  }
  // A stale entry would make the first handshake's error check misread it.
  ERR_clear_error();

  http.reset(evhttp_new(base.get()));
  if (!http) {
    LOG(ERROR) << "Failed to init http server.";
    return -1;
  }
  SSL_CTX_set_ex_data(ctx.get(), ConnectionGuard::CtxIndex(), &guard);
  evhttp_set_max_headers_size(http.get(), kMaxHeadersSize);
  evhttp_set_max_body_size(http.get(), kMaxBodySize);
  evhttp_set_bevcb(http.get(), create_ssl_bufferevent, ctx.get());
  evhttp_set_gencb(http.get(), handle_https_request, this);

  int port = kDefaultPort;
  ReadIntFromIni(sdp_paths::kSyscfgIni, "Pelgrane", "vrekhttpsport", port, kDefaultPort);
  struct evhttp_bound_socket* bound =
      evhttp_bind_socket_with_handle(http.get(), kListenAddress, static_cast<uint16_t>(port));
  if (bound == nullptr) {
    // Deliberately not fatal: the loop then has nothing to wait for and ends.
    LOG(ERROR) << "Failed to bind to port";
  }
  guard.Attach(base.get(), bound != nullptr ? evhttp_bound_socket_get_listener(bound) : nullptr);
  // An answer leaves as two TLS records (head, then page); with Nagle's
  // algorithm the second waits for the client's delayed ACK, about 40 ms per
  // request on a kept-alive connection. Accepted sockets inherit the option.
  evhttp_foreach_bound_socket(
      http.get(),
      [](struct evhttp_bound_socket* bound, void*) {
        const int one = 1;
        setsockopt(evhttp_bound_socket_get_fd(bound), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      },
      nullptr);
  if (event_base_dispatch(base.get()) != 0) LOG(ERROR) << "Failed to run message loop.";
  std::cout << "Exiting." << std::endl;
  return 0;
}

struct bufferevent* tolvarind::create_ssl_bufferevent(struct event_base* base, void* arg) {
  SSL* ssl = SSL_new(static_cast<SSL_CTX*>(arg));
  if (ssl == nullptr) {
    // Only when memory runs out. evhttp then reads this connection as plain
    // HTTP, and has no way to be told not to: handle_https_request drops it.
    LOG(ERROR) << "Failed to create SSL object.";
    return nullptr;
  }
  struct bufferevent* bev = bufferevent_openssl_socket_new(
      base, -1, ssl, BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE | BEV_OPT_DEFER_CALLBACKS);
  auto* guard = static_cast<ConnectionGuard*>(
      SSL_CTX_get_ex_data(static_cast<SSL_CTX*>(arg), ConnectionGuard::CtxIndex()));
  if (bev != nullptr && guard != nullptr) guard->Opened(ssl, bev);
  return bev;
}

void tolvarind::handle_https_request(struct evhttp_request* req, void* arg) {
  // A connection without its TLS layer (see create_ssl_bufferevent) is closed
  // unanswered, and nothing it asked for reaches the peer. Freeing the
  // connection here is what libevent itself does when it cannot answer.
  struct evhttp_connection* conn = evhttp_request_get_connection(req);
  SSL* ssl = conn != nullptr ? bufferevent_openssl_get_ssl(evhttp_connection_get_bufferevent(conn))
                             : nullptr;
  if (ssl == nullptr) {
    LOG(ERROR) << "not a TLS connection, closed";
    if (conn != nullptr) evhttp_connection_free(conn);
    return;
  }
  ConnectionGuard::RequestSeen(ssl, nullptr);
  auto* self = static_cast<tolvarind*>(arg);
  if (self == nullptr) {
    LOG(ERROR) << "got client failed";
    return;
  }
  UriPtr uri(evhttp_uri_parse(evhttp_request_get_uri(req)));
  if (!uri) {
    if (MayLog(40, 3)) LOG(ERROR) << "It's not a good URI. Sending BADREQUEST";
    evhttp_send_error(req, HTTP_BADREQUEST, nullptr);
    return;
  }
  const char* query = evhttp_uri_get_query(uri.get());
  if (query == nullptr) {
    // Deliberately unanswered: the request stays open until the client leaves
    // or, at the latest, until its deadline closes the connection.
    if (MayLog(16, 3)) LOG(ERROR) << "got query failed";
    ConnectionGuard::RequestSeen(ssl, conn);
    return;
  }
  if (MayLog(10 + strlen(query), 1)) LOG(INFO) << "got query:" << query;

  // Relayed raw (never URL-decoded), with its NUL; the reply does not depend on
  // whether the peer got it.
  char text[kQueryBufferSize] = {};
  snprintf(text, sizeof text, "%s", query);
  self->m_tcpClient->SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HTTPS_QUERY, text,
                                 static_cast<int>(strlen(text)) + 1);

  struct evbuffer* out = evhttp_request_get_output_buffer(req);
  if (out == nullptr) {
    LOG(ERROR) << "evhttp_request_get_output_buffer faild";
    return;
  }
  evbuffer_add(out, kReplyPage, sizeof kReplyPage - 1);
  evhttp_send_reply(req, HTTP_OK, "OK", out);
}
