// The loopback HTTPS relay under load: wrk with keep-alive TLS against the
// daemon's endpoint (started with --https-endpoint), beside nginx with one
// worker serving a static page of the same bytes over TLS with the same
// certificate. Both listen on 127.0.0.1 inside the sandbox's own network
// namespace, so no traffic leaves the loopback interface. The runs go
// daemon, nginx, nginx, daemon so that a drift in the machine's load touches
// both alike.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "CSComm.h"
#include "bench_report.h"
#include "daemon_bench.h"
#include "daemon_harness.h"
#include "measure.h"
#include "sdp_paths.h"

using benchreport::Fmt;
using namespace std::chrono_literals;

namespace benchd {
namespace {

constexpr int kDaemonPort = 7103;  // the endpoint's port when syscfg.ini names none
constexpr int kNginxPort = 7443;
constexpr char kNginxDir[] = "/tmp/bench-nginx";
constexpr char kPage[] = "<html><body><p>https server</p></body></html>";
constexpr uint16_t kHttpsQuery = SDP_PROTO_HTTPS_QUERY;

bool Listening(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

using Load = figures::WrkReport;

// One wrk run of `seconds` against `url`: one thread, eight keep-alive connections.
Load RunWrk(const std::string& url, int seconds) {
  const std::string out = std::string(kNginxDir) + "/wrk.out";
  harness::Process wrk({"wrk", "-t1", "-c8", "-d" + std::to_string(seconds) + "s", "--latency", url},
                      out);
  if (!wrk.Started() ||
      !harness::WaitUntil([&] { return !wrk.Running(); }, std::chrono::seconds(seconds + 30), 50ms))
    return Load{};
  return figures::ParseWrk(ReadAll(out));
}

bool MakeCertificate() {
  harness::MakeDirs(sdp_paths::kCertDir);
  const std::string dir = sdp_paths::kCertDir;
  // The daemon looks for these names when certinfo.ini names none.
  const std::string cmd =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 "
      "-subj /CN=127.0.0.1 -keyout " + dir + "/SDProot.key -out " + dir +
      "/SDProot.crt 2>/dev/null";
  return std::system(cmd.c_str()) == 0;
}

void WriteNginxConfig() {
  const std::string dir = kNginxDir;
  const std::string certDir = sdp_paths::kCertDir;
  harness::MakeDirs(dir + "/www");
  harness::WriteFile(dir + "/www/index.html", kPage);
  // One worker, TLS 1.2 and later on P-256 with the daemon's certificate, no
  // access log (the daemon writes one line per request; nginx's log is off to
  // give the baseline its best figure), and no cap on requests per connection,
  // as the daemon has none.
  harness::WriteFile(dir + "/nginx.conf",
                      "worker_processes 1;\n"
                      "daemon off;\n"
                      "user root;\n"
                      "pid " + dir + "/nginx.pid;\n"
                      "error_log " + dir + "/error.log warn;\n"
                      "events { worker_connections 256; }\n"
                      "http {\n"
                      "  access_log off;\n"
                      "  client_body_temp_path " + dir + "/body;\n"
                      "  proxy_temp_path " + dir + "/proxy;\n"
                      "  fastcgi_temp_path " + dir + "/fastcgi;\n"
                      "  uwsgi_temp_path " + dir + "/uwsgi;\n"
                      "  scgi_temp_path " + dir + "/scgi;\n"
                      "  keepalive_requests 100000000;\n"
                      "  keepalive_timeout 60s;\n"
                      "  server {\n"
                      "    listen 127.0.0.1:" + std::to_string(kNginxPort) + " ssl;\n"
                      "    ssl_certificate " + certDir + "/SDProot.crt;\n"
                      "    ssl_certificate_key " + certDir + "/SDProot.key;\n"
                      "    ssl_protocols TLSv1.2 TLSv1.3;\n"
                      "    ssl_ecdh_curve prime256v1;\n"
                      "    location / { root " + dir + "/www; default_type text/html; }\n"
                      "  }\n"
                      "}\n");
}

}  // namespace

bool RunHttps(const Options& opt) {
  std::printf("\n== HTTPS relay: wrk, 1 thread, 8 keep-alive TLS connections, %d s per run ==\n",
              opt.httpsSeconds);
  harness::EmptyDir(kNginxDir);
  harness::MakeDirs(kNginxDir);
  if (!MakeCertificate()) {
    std::fprintf(stderr, "openssl could not make a certificate\n");
    return false;
  }
  WriteNginxConfig();

  const std::string daemonUrl = "https://127.0.0.1:" + std::to_string(kDaemonPort) + "/open?id=42";
  const std::string nginxUrl = "https://127.0.0.1:" + std::to_string(kNginxPort) + "/index.html?id=42";

  std::vector<Load> daemonRuns, nginxRuns;
  double daemonLogBps = 0;  // summed over the daemon's runs
  auto runDaemon = [&]() -> bool {
    Daemon d;
    if (!d.Start(false, {"--https-endpoint"}) ||
        !harness::WaitUntil([] { return Listening(kDaemonPort); }, 10000ms)) {
      std::fprintf(stderr, "the daemon's HTTPS endpoint did not come up\n");
      return false;
    }
    RunWrk(daemonUrl, 1);  // warm-up
    d.peer.ClearFrames();
    const uint64_t log0 = LogBytes(d.proc->pid()).first;
    Load l = RunWrk(daemonUrl, opt.httpsSeconds);
    // The request lines have a byte budget: the log grows by about 1 KiB/s.
    const double logBps =
        static_cast<double>(LogBytes(d.proc->pid()).first - log0) / opt.httpsSeconds;
    // Every answered request was relayed to the peer first.
    size_t relayed = 0;
    for (const auto& f : d.peer.Frames())
      if (f.s_cmd == kHttpsQuery) ++relayed;
    std::printf("daemon: %.0f requests/s, p50 %.3f ms, p99 %.3f ms, %ld requests, %zu relayed, "
                "%.0f B/s of log\n%s",
                l.rps, l.p50Ms, l.p99Ms, l.requests, relayed, logBps, l.errors.c_str());
    if (l.rps <= 0 || l.p99Ms < 0) return false;
    daemonRuns.push_back(l);
    daemonLogBps += logBps;
    return true;
  };
  auto runNginx = [&]() -> bool {
    harness::Process nginx({"nginx", "-p", kNginxDir, "-c", std::string(kNginxDir) + "/nginx.conf"},
                          std::string(kNginxDir) + "/nginx.out");
    if (!harness::WaitUntil([] { return Listening(kNginxPort); }, 10000ms)) {
      std::fprintf(stderr, "nginx did not come up:\n%s%s", ReadAll(std::string(kNginxDir) + "/nginx.out").c_str(),
                   ReadAll(std::string(kNginxDir) + "/error.log").c_str());
      return false;
    }
    RunWrk(nginxUrl, 1);
    Load l = RunWrk(nginxUrl, opt.httpsSeconds);
    std::printf("nginx:  %.0f requests/s, p50 %.3f ms, p99 %.3f ms, %ld requests\n%s", l.rps,
                l.p50Ms, l.p99Ms, l.requests, l.errors.c_str());
    nginx.Stop(SIGQUIT, 10000ms);
    if (l.rps <= 0 || l.p99Ms < 0) return false;
    nginxRuns.push_back(l);
    return true;
  };
  if (!runDaemon() || !runNginx() || !runNginx() || !runDaemon()) return false;

  auto mean = [](const std::vector<Load>& v, double Load::*m) {
    double s = 0;
    for (const auto& l : v) s += l.*m;
    return s / static_cast<double>(v.size());
  };
  const double dr = mean(daemonRuns, &Load::rps), nr = mean(nginxRuns, &Load::rps);
  const double d99 = mean(daemonRuns, &Load::p99Ms), n99 = mean(nginxRuns, &Load::p99Ms);
  std::printf("mean of two runs each: daemon %.0f req/s p99 %.3f ms; nginx %.0f req/s p99 %.3f ms; "
              "ratio %.2f\n",
              dr, d99, nr, n99, dr / nr);
  benchreport::Result("https", "seconds=" + std::to_string(opt.httpsSeconds) + " daemon_rps=" +
                                   Fmt("%.0f", dr) + " daemon_p99_ms=" + Fmt("%.3f", d99) +
                                   " nginx_rps=" + Fmt("%.0f", nr) + " nginx_p99_ms=" +
                                   Fmt("%.3f", n99) + " ratio=" + Fmt("%.2f", dr / nr) +
                                   " daemon_log_bps=" +
                                   Fmt("%.0f", daemonLogBps / daemonRuns.size()));
  benchreport::Verdict("https", dr >= 0.5 * nr, "daemon >= 0.5 x nginx requests/s");
  return true;
}

}  // namespace benchd
