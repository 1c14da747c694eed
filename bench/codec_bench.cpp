// Frame codec cost: SocketRWriter::SendMessage on one end of a connected
// Unix stream pair and TCP_Client::RecvMessage on the other, against a raw
// send/recv of the very same frame bytes over the same pair. One thread does
// both ends in turn, so each figure is the whole CPU cost of moving one frame
// and the ratio is free of scheduling between two threads.
//
// The pair is made the way the daemon makes it: TCP_Client::Init connects to a
// listener on a scratch socket path, and the accepted end plays the peer.
#include <benchmark/benchmark.h>
#include <glog/logging.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "CSComm.h"
#include "bench_report.h"
#include "stream_io.h"
#include "tcp_client.h"

namespace {

constexpr int kBodies[] = {0, 64, 1024, MAX_MSGLEN};

// One connected pair: `client` is a TCP_Client connected through Init, `peer`
// the accepted end.
class ChannelPair {
 public:
  ChannelPair() {
    char tmpl[] = "/tmp/tolvarind-codec-XXXXXX";
    if (!mkdtemp(tmpl)) Fail("mkdtemp");
    dir_ = tmpl;
    const std::string path = dir_ + "/peer.sock";
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 1) != 0)
      Fail("listen");
    Option opt;
    opt.clientType = CLIENT_TYPE_UNIX;
    opt.reconnect = 0;
    std::strncpy(opt.unixPath, path.c_str(), sizeof(opt.unixPath) - 1);
    if (client.Init(opt) <= 0) Fail("TCP_Client::Init");
    peer = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer < 0) Fail("accept");
    unlink(path.c_str());
    rmdir(dir_.c_str());
  }
  ~ChannelPair() {
    client.CloseConn();
    if (peer >= 0) close(peer);
    if (listen_fd_ >= 0) close(listen_fd_);
  }

  TCP_Client client;
  int peer = -1;

 private:
  [[noreturn]] static void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
  }
  std::string dir_;
  int listen_fd_ = -1;
};

ChannelPair& Pair() {
  static ChannelPair* pair = new ChannelPair();  // lives for the process
  return *pair;
}

void BM_Codec(benchmark::State& state) {
  const int body = static_cast<int>(state.range(0));
  ChannelPair& p = Pair();
  SocketRWriter writer;
  std::string payload(static_cast<size_t>(body), 'x');
  static sdpmsg_t msg;
  for (auto _ : state) {
    if (writer.SendMessage(p.peer, MCMD_FROM_DAEMON, SANDBOX_S2B_RESPONSE, payload.data(), body) !=
            body + SDPMSG_HEAD_LEN ||
        p.client.RecvMessage(&msg) != body) {
      state.SkipWithError("frame lost");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * (body + SDPMSG_HEAD_LEN));
}

// The floor: the same frame bytes, built once, pushed through one send and
// one receive loop over a socketpair of the same kind (AF_UNIX stream), with
// no framing, no locks and no clearing.
void BM_Raw(benchmark::State& state) {
  const int body = static_cast<int>(state.range(0));
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
    state.SkipWithError("socketpair");
    return;
  }
  static sdpmsg_t frame;
  static sdpmsg_t in;
  std::string payload(static_cast<size_t>(body), 'x');
  const size_t total = static_cast<size_t>(cscomm::BuildFrame(
      &frame, MCMD_FROM_DAEMON, SANDBOX_S2B_RESPONSE, payload.data(), body, nullptr));
  for (auto _ : state) {
    if (!benchio::SendAll(sv[0], reinterpret_cast<const char*>(&frame), total) ||
        !benchio::RecvAll(sv[1], reinterpret_cast<char*>(&in), total)) {
      state.SkipWithError("bytes lost");
      break;
    }
  }
  close(sv[0]);
  close(sv[1]);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(total));
}

void Bodies(benchmark::internal::Benchmark* b) {
  for (int body : kBodies) b->Arg(body);
}

BENCHMARK(BM_Codec)->Apply(Bodies);
BENCHMARK(BM_Raw)->Apply(Bodies);

// Passes every run on to the console and keeps the medians (or the single
// runs, without repetitions) for the ratio table.
class Collector : public benchmark::ConsoleReporter {
 public:
  // Plain text: the output is read from files and logs more than from terminals.
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
      const bool single = r.run_type == Run::RT_Iteration && r.repetitions <= 1;
      if (!median && !single) continue;
      auto it = r.counters.find("items_per_second");
      if (it == r.counters.end()) continue;
      fps[r.run_name.function_name][std::stoi(r.run_name.args)] = it->second.value;
    }
  }
  // function name -> body size -> frames per second
  std::map<std::string, std::map<int, double>> fps;
};

}  // namespace

int main(int argc, char** argv) {
  google::InitGoogleLogging(argv[0]);
  FLAGS_logtostderr = true;
  FLAGS_minloglevel = google::GLOG_WARNING;  // the connect's INFO lines are noise here

  // Medians of five runs unless the caller says otherwise: the machine is shared.
  std::vector<char*> args(argv, argv + argc);
  std::string reps = "--benchmark_repetitions=5";
  std::string aggr = "--benchmark_report_aggregates_only=true";
  bool has_reps = false;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--benchmark_repetitions", 23) == 0) has_reps = true;
  if (!has_reps) {
    args.push_back(reps.data());
    args.push_back(aggr.data());
  }
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  std::printf("\nFrame codec against raw send/recv (frames/s, %s)\n",
              has_reps ? "as run" : "median of 5");
  std::printf("%8s %14s %14s %7s\n", "body", "codec", "raw", "ratio");
  bool all_small_pass = true;
  bool any = false;
  for (int body : kBodies) {
    auto c = collector.fps["BM_Codec"].find(body);
    auto r = collector.fps["BM_Raw"].find(body);
    if (c == collector.fps["BM_Codec"].end() || r == collector.fps["BM_Raw"].end()) continue;
    any = true;
    const double ratio = c->second / r->second;
    std::printf("%8d %14.0f %14.0f %7.2f\n", body, c->second, r->second, ratio);
    benchreport::Result("codec", "body=" + std::to_string(body) +
                                     " codec_fps=" + benchreport::Fmt("%.0f", c->second) +
                                     " raw_fps=" + benchreport::Fmt("%.0f", r->second) +
                                     " ratio=" + benchreport::Fmt("%.2f", ratio));
    // Small bodies are every size short of the largest frame.
    if (body < MAX_MSGLEN && ratio < 0.5) all_small_pass = false;
  }
  if (!any) {
    std::printf("no codec/raw pair was measured\n");
    return 1;
  }
  benchreport::Verdict("codec", all_small_pass,
                       "codec >= 0.5 x raw frames/s for bodies of 0, 64 and 1024 bytes");
  return 0;
}
