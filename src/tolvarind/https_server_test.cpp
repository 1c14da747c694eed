// The loopback HTTPS endpoint against a real TLS client, inside the test
// sandbox, with the test peer standing in for ventrald on its socket.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <fstream>
#include <future>
#include <sstream>

#include "CSComm.h"
#include "daemon_harness.h"
#include "log_capture.h"
#include "sandbox.h"
#include "sdp_paths.h"
#include "signals.h"
#include "tolvarind.h"

namespace {
using namespace harness;
using SslCtxPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using SslPtr = std::unique_ptr<SSL, decltype(&SSL_free)>;

constexpr char kPage[] = "<html><body><p>https server</p></body></html>";

std::string Get(const std::string& target, const std::string& headers = "") {
  return "GET " + target + " HTTP/1.1\r\n" + headers +
         "Host: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

// A TCP socket whose reads give up after 3 s.
int Socket() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval tv{3, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return fd;
}

// `fd` connected to port 7103 of `ip`, or -errno (and `fd` closed).
int Connect(int fd = Socket(), const char* ip = "127.0.0.1") {
  sockaddr_in addr{AF_INET, htons(7103), {}, {}};
  inet_pton(AF_INET, ip, &addr.sin_addr);
  const int err = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? 0 : errno;
  if (err != 0) close(fd);
  return err != 0 ? -err : fd;
}

bool Listening() {
  const int fd = Connect();
  return fd >= 0 && close(fd) == 0;
}

// Whether the server closes `fd` before its read limit (end of stream or reset); closes it.
bool Closed(int fd) {
  char c;
  const ssize_t n = recv(fd, &c, 1, 0);
  const bool reset = n < 0 && errno == ECONNRESET;
  close(fd);
  return n == 0 || reset;
}

// All the server sent until it closed or stayed quiet, or "refused <OpenSSL reason>" when
// the handshake failed. The client's security level is 0: any refusal is the server's.
std::string Fetch(const std::string& request, int version = 0, const char* groups = nullptr) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_set_security_level(ctx.get(), 0);
  SSL_CTX_set_min_proto_version(ctx.get(), version);
  SSL_CTX_set_max_proto_version(ctx.get(), version);
  if (groups != nullptr) SSL_CTX_set1_groups_list(ctx.get(), groups);
  const int fd = Connect();
  SslPtr ssl(SSL_new(ctx.get()), SSL_free);
  SSL_set_fd(ssl.get(), fd);
  std::string text;
  if (SSL_connect(ssl.get()) != 1) {
    text = "refused " + std::to_string(ERR_GET_REASON(ERR_peek_last_error()));
  } else {
    SSL_write(ssl.get(), request.data(), static_cast<int>(request.size()));
    char buf[16384];
    for (int n; (n = SSL_read(ssl.get(), buf, sizeof buf)) > 0;) text.append(buf, n);
  }
  ERR_clear_error();
  ssl.reset();
  close(fd);
  return text;
}

// What the kernel holds in the listener's queue, not yet taken by the endpoint.
int AcceptQueue() {
  std::stringstream table;
  table << std::ifstream("/proc/net/tcp").rdbuf();
  const std::string key = "0100007F:1BBF 00000000:0000 0A 00000000:";
  const size_t at = table.str().find(key);
  return at == std::string::npos ? -1 : std::stoi(table.str().substr(at + key.size(), 8), 0, 16);
}

class HttpsEndpointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A fresh pair under the default names on every run; never a file from the tree.
    const std::string dir = sdp_paths::kCertDir;
    MakeDirs(dir);
    ASSERT_EQ(std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                           "-days 1 -subj /CN=127.0.0.1 -keyout " +
                           dir + "/SDProot.key -out " + dir + "/SDProot.crt 2>/dev/null")
                              .c_str()),
              0);
    WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=sbx\n");
    ASSERT_TRUE(peer_.Listen(sdp_paths::kDaemonSocket));
    ASSERT_TRUE(client_.init());
    ASSERT_TRUE(peer_.WaitFrame(SDP_PROTO_REGISTER, 5s));  // in before the slate is wiped
    peer_.ClearFrames();
  }
  void Start() {
    endpoint_ = std::async(std::launch::async, [this] { return client_.start_https_server(); });
    ASSERT_TRUE(WaitUntil(Listening, 5s));
  }
  // SIGINT to the process, as an operator stops it: the loop's result, -100 if it did not end.
  int Interrupt() {
    if (endpoint_.wait_for(0s) != std::future_status::ready) kill(getpid(), SIGINT);
    return endpoint_.wait_for(5s) == std::future_status::ready ? endpoint_.get() : -100;
  }
  void TearDown() override {
    if (endpoint_.valid()) Interrupt();
  }
  testsupport::LogCapture log_;
  sdppeer::PeerServer peer_;
  tolvarind client_;
  std::future<int> endpoint_;
};

// TLS 1.2 and later with P-256 only, on loopback only. Requests of up to 128 KiB
// of request line and headers (line ends not counted) and 64 KiB of body reach
// the handler; one byte more is refused by libevent before it runs.
TEST_F(HttpsEndpointTest, ServesTlsOnLoopbackAndRelaysEachRawQuery) {
  Start();
  EXPECT_EQ(Fetch(Get("/tls?v"), TLS1_1_VERSION),
            "refused " + std::to_string(SSL_R_TLSV1_ALERT_PROTOCOL_VERSION));
  EXPECT_EQ(Fetch(Get("/tls?v"), TLS1_3_VERSION, "X25519"),
            "refused " + std::to_string(SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE));
  EXPECT_EQ(Connect(Socket(), testsupport::kSandboxIpv4), -ECONNREFUSED);

  const std::string q(64510, 'q'), ok = "HTTP/1.1 200 OK", big = "HTTP/1.1 413";
  const auto post = [](size_t length, const std::string& body) {
    return "POST /?body HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
           std::to_string(length) + "\r\n\r\n" + body;
  };
  // The other lines of the request take 57 bytes.
  const auto pad = [](size_t total) { return "X-Pad: " + std::string(total - 57, 'p') + "\r\n"; };
  const struct {
    std::string request, status, frame, log;
    int version = 0;  // any
  } cases[] = {
      {Get("/tls?v"), ok, std::string("v\0", 2), "got query:v", TLS1_2_VERSION},
      {Get("/tls?v"), ok, std::string("v\0", 2), "", TLS1_3_VERSION},
      {Get("/"), "", "", "got query failed"},  // left unanswered
      {Get("/x?a<b"), "HTTP/1.1 400", "", "It's not a good URI. Sending BADREQUEST"},
      {Get("/open?id=42"), ok, std::string("id=42\0", 6), "got query:id=42"},
      {Get("/?"), ok, std::string(1, '\0'), "got query:"},
      {Get("/?a%20b"), ok, std::string("a%20b\0", 6), "got query:a%20b"},  // raw, never decoded
      {post(65536, std::string(65536, 'b')), ok, std::string("body\0", 5), "got query:body"},
      {post(65537, ""), big, "", ""},
      {Get("/?hdr", pad(128 * 1024)), ok, std::string("hdr\0", 4), "got query:hdr"},
      {Get("/?hdr", pad(128 * 1024 + 1)), "HTTP/1.1 400", "", ""},
      {Get("/?" + q), ok, q.substr(0, 64503),
       "warning msglen:64511 over max msglen:64503 cut message m_cmd:1 s_cmd:4371"},
      // That long line spent the request log's budget for the next minute.
      {Get("/?after"), ok, std::string("after\0", 6), ""},
  };
  std::vector<std::string> frames;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request.substr(0, 30));
    const std::string text = Fetch(c.request, c.version);
    EXPECT_EQ(text.substr(0, c.status.size()), c.status);
    EXPECT_EQ(text.empty(), c.status.empty());
    EXPECT_EQ(text.rfind(kPage) == text.size() - strlen(kPage), c.status == ok);
    EXPECT_TRUE(c.log.empty() || log_.has(c.log)) << c.log;
    if (!c.frame.empty()) frames.push_back(c.frame);
  }
  EXPECT_EQ(log_.count_prefix("got query:"), 2 + 6);
  std::vector<std::string> relayed;
  for (const auto& f : peer_.WaitFrames(frames.size(), 5s, [](const sdppeer::Frame& f) {
         return f.s_cmd == SDP_PROTO_HTTPS_QUERY && f.m_cmd == MCMD_TO_DAEMON;
       }))
    relayed.push_back(f.body);
  EXPECT_EQ(relayed, frames);
  EXPECT_EQ(Interrupt(), 0);
  struct sigaction now;  // the earlier SIGINT action is back
  EXPECT_TRUE(sigaction(SIGINT, nullptr, &now) == 0 && now.sa_handler == SIG_DFL);
}

// A port in use is deliberately not fatal (the loop has nothing to wait for);
// a missing key is. Either way a later SIGINT must not reach the ended loop.
TEST_F(HttpsEndpointTest, FailedSetUpEndsTheRunAndDropsTheHandler) {
  WriteFile(sdp_paths::kSyscfgIni, "[Pelgrane]\nvrekhttpsport=7199\n");
  const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{AF_INET, htons(7199), {htonl(INADDR_LOOPBACK)}, {}};
  ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr) | listen(holder, 1), 0);
  EXPECT_EQ(client_.start_https_server(), 0);
  close(holder);
  const auto texts = log_.texts();
  const auto bound = std::find(texts.begin(), texts.end(), "Failed to bind to port");
  EXPECT_NE(std::find(bound, texts.end(), "Failed to run message loop."), texts.end());
  EXPECT_FALSE(shutdown_handler);
  WriteFile(sdp_paths::kCertinfoIni, "[Cert]\nCliKeyName=absent.key\n");
  EXPECT_EQ(client_.start_https_server(), -1);
  EXPECT_TRUE(log_.has("client key:/opt/apps/morvasta/certs/absent.key"));
  EXPECT_TRUE(log_.has("Failed to load private key file.", google::GLOG_ERROR));
  EXPECT_FALSE(shutdown_handler);
}

// A local user cannot exhaust the endpoint: idle and surplus connections are
// closed by their deadline or wait outside, accept errors pause the listener instead of
// spinning, and the endpoint serves afterwards.
TEST_F(HttpsEndpointTest, IdleSlowAndSurplusConnectionsCannotExhaustTheEndpoint) {
  client_.SetHttpsLimits({1000ms, 64, 300ms});
  Start();
  ASSERT_TRUE(WaitUntil([] { return AcceptQueue() == 0; }, 5s));  // the probe is gone

  // 66 idle connections: 64 taken, two left waiting by the kernel; each closed
  // by its deadline, before any handshake.
  std::vector<int> idle;
  for (int i = 0; i < 66; ++i) idle.push_back(Connect());
  EXPECT_TRUE(WaitUntil([] { return AcceptQueue() == 2; }, 5s)) << AcceptQueue();
  for (int fd : idle) EXPECT_TRUE(Closed(fd));

  // Accept fails for want of descriptors: the listener rests, one line a pause
  // (a listener left enabled would fail and log at full speed).
  std::vector<int> waiting;
  for (int i = 0; i < 3; ++i) waiting.push_back(Socket());
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = dup(0);  // no new descriptor anywhere in the process
  close(static_cast<int>(tight.rlim_cur));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  for (int fd : waiting) EXPECT_EQ(Connect(fd), fd);
  sleep(1);  // a window of about three pauses; nothing may allocate a descriptor in it
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  const int paused = log_.count_prefix("accept failed: Too many open files, listener paused");
  EXPECT_TRUE(paused >= 1 && paused <= 5) << paused;
  for (int fd : waiting) EXPECT_TRUE(Closed(fd));  // taken after the pause, closed by the deadline
  EXPECT_NE(Fetch(Get("/after?ok=1")).find(kPage), std::string::npos);
}

// Only with its switch does the daemon run the endpoint; there the first
// SIGINT stops the endpoint and the second, its default action back, ends it.
TEST_F(HttpsEndpointTest, DaemonRunsTheEndpointOnlyWithItsSwitch) {
  Process plain({TOLVARIND_EXE}), served({TOLVARIND_EXE, "--https-endpoint"});
  const auto endsBySigint = [](Process& p) {
    const auto status = p.Signal(SIGINT) ? p.WaitExit(5s) : std::nullopt;
    return status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGINT;
  };
  EXPECT_TRUE(WaitUntil(Listening, 15s));
  EXPECT_NE(Fetch(Get("/d?x=1")).find(kPage), std::string::npos);
  EXPECT_TRUE(endsBySigint(plain));
  served.Signal(SIGINT);
  EXPECT_TRUE(WaitUntil([] { return !Listening(); }, 5s));
  EXPECT_TRUE(served.Running());
  EXPECT_TRUE(endsBySigint(served));
}

// The heartbeat thread is stopped and waited for before the channel goes;
// only a send stuck for good may keep the channel (leaked on purpose).
TEST_F(HttpsEndpointTest, DestroyingAClientStopsItsHeartbeatBeforeTheChannel) {
  {
    tolvarind other;
    ASSERT_TRUE(other.init());
  }
  EXPECT_FALSE(log_.has("heart beat thread still sending, channel kept"));
}

}  // namespace
