// ventrald-sim: plays the peer daemon `ventrald` for a tolvarind client, by hand
// or from a script (tools/demo). The protocol side is the shared test peer
// (sdppeer); this file only wires it to the command language and the terminal.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "CSComm.h"
#include "frame_text.h"
#include "peer_server.h"
#include "sdp_paths.h"
#include "sim_command.h"

namespace {

using ventraldsim::Command;
using ventraldsim::CommandKind;
using Clock = std::chrono::steady_clock;

std::atomic<bool> g_stop{false};

void OnStopSignal(int) { g_stop = true; }

// Whole lines, from the peer's I/O thread and the main thread, each stamped
// with the seconds since the start.
class Printer {
 public:
  void Line(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    std::printf("[%7.3f] %s\n", Elapsed(), text.c_str());
    std::fflush(stdout);
  }
  void Error(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    std::fflush(stdout);
    std::fprintf(stderr, "[%7.3f] ventrald-sim: %s\n", Elapsed(), text.c_str());
    std::fflush(stderr);
  }
  void Raw(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
  }

 private:
  double Elapsed() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

  std::mutex mu_;  // guards stdout and stderr
  const Clock::time_point start_ = Clock::now();
};

// True when a live server already answers on `path`: listening there would
// unlink its socket and steal its clients.
bool SomeoneListens(const std::string& path) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) return false;
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool live = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return live;
}

// The socket's directory (/tmp/.sdp_cfs by default) may not exist yet.
bool EnsureParentDir(const std::string& path, std::string* error) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return true;
  std::string dir = path.substr(0, slash);
  if (mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) return true;
  *error = "cannot create " + dir + ": " + std::strerror(errno);
  return false;
}

// Sleeps in short slices so that SIGINT/SIGTERM end a long wait at once.
void SleepFor(double seconds) {
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(seconds));
  while (Clock::now() < until) {
    if (g_stop) return;
    auto slice = std::min<Clock::duration>(until - Clock::now(), std::chrono::milliseconds(50));
    std::this_thread::sleep_for(slice);
  }
}

// The newest connection whose arrival has been printed. wait-client waits for
// it, so that "client #N connected" is always printed before what is sent to N.
class ClientWatch {
 public:
  void Announced(uint64_t id) {
    std::lock_guard<std::mutex> lock(mu_);
    announced_ = id;
    cv_.notify_all();
  }
  // True once the peer's current connection has been announced.
  bool Wait(const sdppeer::PeerServer& peer, double seconds) {
    const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(seconds));
    std::unique_lock<std::mutex> lock(mu_);
    while (!g_stop) {
      uint64_t current = peer.CurrentConnection();
      if (current != 0 && announced_ >= current) return true;
      if (Clock::now() >= until) return false;
      cv_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return false;
  }

 private:
  std::mutex mu_;  // guards announced_
  std::condition_variable cv_;
  uint64_t announced_ = 0;
};

// Runs one command; false when it failed (the failure is printed).
bool Execute(const Command& c, sdppeer::PeerServer& peer, ClientWatch& watch, Printer& out) {
  const std::string conn = "#" + std::to_string(peer.CurrentConnection());
  switch (c.kind) {
    case CommandKind::kNothing:
    case CommandKind::kQuit:
      return true;
    case CommandKind::kHelp:
      out.Raw(ventraldsim::CommandHelp());
      return true;
    case CommandKind::kWait:
      SleepFor(c.seconds);  // cut short by a stop signal, which is no failure
      return true;
    case CommandKind::kWaitClient:
      if (watch.Wait(peer, c.seconds)) return true;
      if (!g_stop)
        out.Error("wait-client: no client connected within " + std::to_string(c.seconds) + " s");
      return false;
    case CommandKind::kClose:
      if (!peer.Connected()) {
        out.Error("close: no client connected");
        return false;
      }
      peer.CloseConnection();
      out.Line("-> " + conn + " closed the connection");
      return true;
    case CommandKind::kSend:
    case CommandKind::kSendHeader: {
      if (!peer.Connected()) {
        out.Error(c.name + ": no client connected; nothing sent (wait-client waits for one)");
        return false;
      }
      bool sent = c.kind == CommandKind::kSend
                      ? peer.SendFrame(c.m_cmd, c.s_cmd, c.body)
                      : peer.SendRaw(sdppeer::EncodeHeader(0, c.m_cmd, c.s_cmd, c.msglen));
      if (!sent) {
        out.Error(c.name + ": send to client " + conn + " failed");
        return false;
      }
      if (c.kind == CommandKind::kSend)
        out.Line("-> " + conn + " " + c.name + " " +
                 ventraldsim::DescribeSent(c.m_cmd, c.s_cmd, c.body));
      else
        out.Line("-> " + conn + " " + c.name + " m_cmd " + std::to_string(c.m_cmd) + " s_cmd " +
                 std::to_string(c.s_cmd) + ", header only, announcing " + std::to_string(c.msglen) +
                 " bytes");
      return true;
    }
  }
  return false;
}

void InstallStopHandlers() {
  struct sigaction sa {};
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: a blocked read of stdin returns at once
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = "ventrald-sim";
  ventraldsim::OptionsResult parsed =
      ventraldsim::ParseOptions(argc, argv, sdp_paths::kDaemonSocket);
  if (!parsed.ok) {
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", program.c_str(), parsed.error.c_str(),
                 program.c_str());
    return 2;
  }
  const ventraldsim::Options& opt = parsed.options;
  if (opt.help) {
    std::fputs(ventraldsim::Usage(program, sdp_paths::kDaemonSocket).c_str(), stdout);
    return 0;
  }

  std::string error;
  if (SomeoneListens(opt.socket_path)) {
    std::fprintf(stderr,
                 "%s: something already listens on %s (a real ventrald?); not taking it over\n",
                 program.c_str(), opt.socket_path.c_str());
    return 1;
  }
  if (!EnsureParentDir(opt.socket_path, &error)) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), error.c_str());
    return 1;
  }

  InstallStopHandlers();
  Printer out;
  ClientWatch watch;
  sdppeer::PeerServer peer;
  const bool show_heartbeats = opt.show_heartbeats;
  peer.SetConnectionCallback([&out, &watch](uint64_t id, bool connected) {
    out.Line("client #" + std::to_string(id) + (connected ? " connected" : " disconnected"));
    if (connected) watch.Announced(id);
  });
  peer.SetFrameCallback([&out, &peer, show_heartbeats](const sdppeer::Frame& f) {
    // Printed here and forgotten: the peer would otherwise keep every frame.
    peer.ClearFrames();
    if (!show_heartbeats && f.s_cmd == SDP_PROTO_HEARTBEAT) return;
    out.Line("<- #" + std::to_string(f.connection) + " " +
             ventraldsim::DescribeReceived(f.m_cmd, f.s_cmd, f.body));
  });
  if (!peer.Listen(opt.socket_path, &error)) {
    std::fprintf(stderr, "%s: cannot listen on %s: %s\n", program.c_str(), opt.socket_path.c_str(),
                 error.c_str());
    return 1;
  }
  out.Line("listening on " + opt.socket_path);

  bool all_ok = true;
  if (!opt.commands.empty()) {
    for (const Command& c : opt.commands) {
      if (g_stop || c.kind == CommandKind::kQuit) break;
      all_ok = Execute(c, peer, watch, out) && all_ok;
    }
  } else {
    if (isatty(STDIN_FILENO)) out.Raw("Type 'help' for the commands, 'quit' to stop.\n");
    char* line = nullptr;
    size_t cap = 0;
    while (!g_stop) {
      ssize_t n = getline(&line, &cap, stdin);
      if (n < 0) break;  // end of input, or a stop signal interrupted the read
      ventraldsim::ParseResult p = ventraldsim::ParseCommandLine(std::string(line, n));
      if (!p.ok) {
        out.Error(p.error);
        all_ok = false;
        continue;
      }
      if (p.command.kind == CommandKind::kQuit) break;
      all_ok = Execute(p.command, peer, watch, out) && all_ok;
    }
    std::free(line);
  }
  if (g_stop) out.Line("stopped by signal");
  peer.StopListening();
  return all_ok ? 0 : 1;
}
