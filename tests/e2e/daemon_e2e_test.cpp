// The real daemon in the sandbox against the test peer: start-up on an
// installation completed step by step and what it tells the service manager
// and the peer, every command code, garbage where a frame should be, and
// termination and crash signals.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>
#include <tuple>

#include "daemon_harness.h"
#include "sdp_paths.h"

namespace {

using namespace harness;
using namespace sdppeer;
using Lines = std::vector<std::string>;
using Frames = std::vector<std::tuple<uint16_t, uint16_t, std::string>>;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr char kLost[] = "daemon_client recv message failed, wailt reconnect";
constexpr char kReadFailed[] = "read  package  failed";
constexpr char kShellResult[] = " got SANDBOX_S2B_OPENBSAPP message from server res:";

// Attempt 1: no safespace.ini. 2: an empty id, the channel untouched. 3: an id
// but no peer. 4: the peer is there. Each failed attempt logs its cause and
// "init error...", 3 s apart; the service manager hears each new state once
// and READY=1 only once registered, then the connection's ups and downs. An
// old log of the daemon's, larger than the log budget (sparse), goes.
TEST(Startup, RetriesUntilIdAndPeerAreThereThenRegistersHeartbeatsAndReconnects) {
  PrepareInstallation("");
  const std::string logs = std::string(sdp_paths::kLogDir) + "/";
  const std::string oldLog = "tolvarind.info.20200101-000000.7";
  WriteFile(logs + oldLog, "");
  fs::resize_file(logs + oldLog, 200u << 20);
  // The service manager's end of NOTIFY_SOCKET: the next message, "" after 20 s.
  const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval limit{20, 0};
  sockaddr_un addr{AF_UNIX, "/tmp/notify.sock"};
  ASSERT_TRUE(bind(notify, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
              setsockopt(notify, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0);
  const auto heard = [&] {
    char buf[4096];
    return std::string(buf, static_cast<size_t>(std::max<ssize_t>(recv(notify, buf, 4096, 0), 0)));
  };
  DaemonRun run;
  ASSERT_EQ(run.Start({"NOTIFY_SOCKET=/tmp/notify.sock"}), "");
  run.peer->StopListening();  // back for the fourth attempt
  Daemon& daemon = *run.daemon;
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 1));
  WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 2));
  EXPECT_EQ(daemon.Count("Read sandbox id is :"), 1);
  EXPECT_EQ(daemon.Count("Init Socket ret:"), 0);
  WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=abc\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 3));
  ASSERT_TRUE(run.peer->Restart());
  const auto reg = run.peer->WaitFrame(0x1005, 15s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_EQ(reg->Bytes(), std::string("\0\0\x01\0\x05\x10\x09\0", 8) + "1005abc\n" + '\0');

  // A new address is seen only once the caches are cleared, after the fifth.
  ASSERT_EQ(std::system("PATH=$PATH:/usr/sbin:/sbin; ip addr flush dev vtest0 && "
                        "ip addr add 10.0.0.7/24 dev vtest0 && "
                        "ip route add default via 10.0.0.1 dev vtest0 onlink"),
            0);
  auto beats = run.peer->WaitFrames(6, 22s, [](const Frame& f) { return f.s_cmd == 0x1111; });
  ASSERT_EQ(beats.size(), 6u);
  for (size_t i = 0; i < beats.size(); ++i) {
    SCOPED_TRACE("heartbeat " + std::to_string(i + 1));
    EXPECT_EQ(beats[i].Bytes().substr(0, 8), std::string("\0\0\x01\0\x11\x11\x0d\0", 8));
    EXPECT_EQ(beats[i].body, i < 5 ? "abc#10.0.0.5#" : "abc#10.0.0.7#");
    EXPECT_EQ(beats[i].connection, reg->connection);
    EXPECT_NEAR((beats[i].arrival - beats[0].arrival) / 1ms, 3300.0 * i, 500.0 * i);
  }
  EXPECT_TRUE(WaitUntil([&] { return !Exists(logs + oldLog); }, 15s));
  EXPECT_EQ(daemon.Count("log directory over its budget, removed " + oldLog), 1);

  const std::string idError = std::string("Read sandbox id error :") + sdp_paths::kSafespaceIni;
  Lines sequence;
  std::vector<int64_t> times;
  for (const auto& l : daemon.Log()) {
    const bool mark =
        l.text == "setupSignal done." || l.text == "init error..." || l.text == "init finish..";
    if (mark || l.text == idError || l.text.rfind("initDaemonClient:", 0) == 0)
      sequence.push_back(l.text);
    if (mark) times.push_back(l.micros);
  }
  EXPECT_EQ(sequence,
            (Lines{"setupSignal done.", idError, "init error...", idError, "init error...",
                   std::string("initDaemonClient:") + sdp_paths::kDaemonSocket + " failed",
                   "init error...", "init finish.."}));
  ASSERT_EQ(times.size(), 5u);
  for (size_t i = 1; i < times.size(); ++i)
    EXPECT_NEAR(times[i] - times[i - 1], 3700000, 800000) << "attempt " << i;
  EXPECT_EQ(heard(),
            std::string("STATUS=waiting for the sandbox id in ") + sdp_paths::kSafespaceIni);
  EXPECT_EQ(heard(),
            std::string("STATUS=waiting for the peer's socket ") + sdp_paths::kDaemonSocket);
  // The heartbeat thread, started just before READY=1, may say "registered" first.
  const std::string registered = "STATUS=registered with sandbox abc";
  std::string ready = heard();
  EXPECT_EQ(ready == registered ? heard() : ready, "READY=1\n" + registered);

  // Away for seconds: the loss is reported at once, then about once a second,
  // never at every turn of the loop (which once wrote some 1,500 lines a second).
  const int attempts = daemon.Count("try connect to server");
  const auto away = Clock::now();
  run.peer->StopListening();
  run.peer->CloseConnection();
  EXPECT_EQ(heard(), "STATUS=connection to the peer lost, reconnecting");
  ASSERT_TRUE(daemon.WaitLog("try connect to server", 8s, attempts + 3));
  ASSERT_TRUE(run.peer->Restart());
  ASSERT_TRUE(run.peer->WaitAccepted(2, 3s));
  const double seconds = std::chrono::duration<double>(Clock::now() - away).count();
  EXPECT_GE(daemon.Count(kLost, "error"), 1);
  EXPECT_LE(daemon.Count(kLost, "error"), seconds + 2) << "in " << seconds << " s without the peer";
  EXPECT_EQ(heard(), registered);
  EXPECT_EQ(daemon.Count(std::string("log directory ") + sdp_paths::kLogDir, "warning"), 0);
  ExpectCleanStop(daemon);
  close(notify);
}

// The command loop, no desktop user. Each check sends its frames and then a
// sentinel of an unknown code; the loop handles frames one at a time, so all
// the check's frames caused is in the log once the sentinel's line is.
class Commands : public SharedRun {
 protected:
  // A broken pipe before any command ran is only logged. Sent while the main
  // thread waits in the loop's receive: the handler logs, and on a thread
  // caught inside a log line it would wait for glog's lock for ever.
  static void SetUpTestSuite() {
    PrepareInstallation("abc");
    Begin() && daemon_->Signal(SIGPIPE) &&
        (daemon_->WaitLog("Daemon Child Recv Signal:13", 10s) || Fail("SIGPIPE not logged"));
  }

  // The loop's main-thread lines the frames caused, sentinel line excluded.
  static Lines Exchange(const Frames& frames, Millis timeout = 5s) {
    const std::string sentinel = " got message from server cmd 0x:4242";
    const size_t before = daemon_->MainThreadLog("tolvarind.cpp").size();
    const int sentinels = daemon_->Count(sentinel);
    for (const auto& [m_cmd, s_cmd, body] : frames)
      EXPECT_TRUE(peer_->SendFrame(m_cmd, s_cmd, body));
    EXPECT_TRUE(peer_->SendFrame(2, 0x4242, ""));
    EXPECT_TRUE(daemon_->WaitLog(sentinel, timeout, sentinels + 1));
    Lines out;
    const auto lines = daemon_->MainThreadLog("tolvarind.cpp");
    for (size_t i = before; i < lines.size() && lines[i].text != sentinel; ++i)
      out.push_back(lines[i].text);
    return out;
  }
};
// Losing the peer to garbage, on a run of its own.
using PeerLoss = Commands;

// The shell sees the bodies unquoted (the peer is trusted): a body that reads
// the shell's own command line shows the exact text the daemon formatted.
TEST_F(Commands, BodiesKeepTheirDoubleBlanksThenSigpipeIsIgnoredAndHeartbeatLinesAreSampled) {
  const std::string portal = "; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/portal.cmdline; true";
  const std::string notify =
      "x; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/notify.cmdline; true #";
  Exchange({{2, 0x306, portal}, {2, 0x501, notify}});
  EXPECT_EQ(ReadFile("/tmp/rec/portal.cmdline"),
            "/bin/sh\n-c\n/opt/apps/morvasta/dravinSSO.sh  " + portal + "\n");
  EXPECT_EQ(ReadFile("/tmp/rec/notify.cmdline"),
            "/bin/sh\n-c\nnotify-send -i info -t 5000  非法访问  " + notify + "不属于应用白名单\n");

  // Logged at start-up, ignored once a command ran.
  ASSERT_TRUE(daemon_->Signal(SIGPIPE));
  const std::string hb = " got message from server cmd 0x:1111";
  const std::string sampled = " got heatbeat message from server";
  Lines want;
  for (int i = 1; i <= 11; ++i) {
    want.push_back(hb);
    if (i % 5 == 1) want.push_back(sampled);
  }
  EXPECT_EQ(Exchange(Frames(11, {2, 0x1111, ""})), want);
  // The count goes on across batches: the 16th is the next one logged.
  EXPECT_EQ(Exchange(Frames(5, {2, 0x1111, "x"})), (Lines{hb, hb, hb, hb, hb, sampled}));
  EXPECT_EQ(daemon_->Count("Daemon Child Recv Signal:13"), 1);
}

TEST_F(Commands, EachCodeDoesWhatItsEntrySaysOtherMainCommandsNothingAndShellsAreCut) {
  const std::string illegal = " got SANDBOX_A2F_ILLEGAL message from server msg:";
  const std::string url = "https://portal.example/login?user=alice";
  const std::string popup = " got SANDBOX_TO_LOCAL message from server";
  const Lines portal = {" got SANDBOX_S2B_OPEN_DRAVIN_PORTAL message from server",
                        "open solmeri req: " + url, "open solmeri res: 1"};
  const Lines notify = {"notify-send", "-i", "info", "-t", "5000", "非法访问"};
  // Main command, code, body; the lines after the code's line; the fake run and its arguments.
  const std::tuple<int, int, std::string, Lines, Lines> cases[] = {
      {2, 0x301, "printf 'hi there'", {kShellResult + std::string("1 hi there")}, {}},
      // ls lists its own descriptors: the standard three and the directory it
      // reads. Anything more was left open by the daemon.
      {2, 0x301, "ls /proc/self/fd | tr '\\n' ' '", {kShellResult + std::string("1 0 1 2 3 ")}, {}},
      {2, 0x303, "ignored", {" got SANDBOX_S2B_RESPONSE message from server"}, {}},
      // The script ran, yet the result is 1: never read as success.
      {2, 0x306, url, portal, {"dravinSSO.sh", url}},
      {2, 0x501, "gedit", {illegal + "gedit"}, {"gedit不属于应用白名单"}},
      {2, 0x501, std::string("a\0b", 3), {illegal + "a"}, {"a不属于应用白名单"}},
      {2, 0x1001, "--title hi you", {popup}, {"sdpPopup.sh", "--title", "hi", "you"}},
      {2, 0x1012, "x", {" got SDP_PROTO_OPEN_SANDBOX message from server"}, {}},
      {2, 0x1013, "x", {" got SDP_PROTO_CLOSE_SANDBOX message from server"}, {}},
      {2, 0x0, "x", {}, {}},
      {2, 0x1005, "1005abc\n", {}, {}},
      {2, 0xabcd, "", {}, {}},
      {1, 0x301, "touch /tmp/rec/from-cmd-1", {}, {}},
      {0, 0x303, "", {}, {}},
      {3, 0x1012, "", {}, {}},
  };
  for (const auto& [main, code, body, then, called] : cases) {
    SCOPED_TRACE(testing::Message() << main << " 0x" << std::hex << code << " " << body);
    char first[64];
    std::snprintf(first, sizeof first, " got message from server cmd 0x:%x", code);
    Lines want = main == 2 ? Lines{first} : Lines{};
    want.insert(want.end(), then.begin(), then.end());
    EXPECT_EQ(Exchange({{main, code, body}}), want);
    Lines call = called;
    if (code == 0x501) call.insert(call.begin(), notify.begin(), notify.end());
    const auto calls = call.empty() ? std::vector<Lines>{} : RecordedCalls(call[0]);
    EXPECT_TRUE(call.empty() ||
                std::count(calls.begin(), calls.end(), Lines(call.begin() + 1, call.end())));
  }
  EXPECT_FALSE(Exists("/tmp/rec/from-cmd-1"));
  // The pop-up fake leaves "<record>.done" 0.4 s after its call: had the loop
  // not waited for it, the sentinel's line would have come first.
  EXPECT_EQ(std::distance(fs::directory_iterator("/tmp/rec/sdpPopup.sh"), {}), 2);

  // Killed at 3 s; had the shell only been left behind, it would touch the file at 4 s.
  const auto start = Clock::now();
  EXPECT_EQ(Exchange({{2, 0x301, "sleep 4; touch /tmp/rec/late"}}, 10s),
            (Lines{" got message from server cmd 0x:301", kShellResult + std::string("-4 ")}));
  EXPECT_NEAR((Clock::now() - start) / 1ms, 4450, 1550);
  EXPECT_EQ(daemon_->Count("Child process timed out.", "error"), 1);
  EXPECT_FALSE(WaitUntil([] { return Exists("/tmp/rec/late"); }, 2s));
  // Endless output: killed (-4), or, when the closed pipe ended it first, reaped (1).
  Exchange({{2, 0x301, "yes"}}, 20s);
  EXPECT_EQ(daemon_->Count(kShellResult + std::string("-4 y\ny\n")) +
                daemon_->Count(kShellResult + std::string("1 y\ny\n")),
            1);
}

// Each piece of garbage: the daemon logs why, drops the connection, comes back
// without registering again, and serves commands on the new connection;
// nothing in the garbage runs. A frame in pieces is one command.
TEST_F(PeerLoss, GarbageDropsTheConnectionNothingInItRunsAndAFrameInPiecesIsOneCommand) {
  const std::string frame = EncodeFrame(2, 0x301, "touch /tmp/rec/pieces");
  const size_t cuts[] = {0, 3, 8, 12, 20, frame.size()};  // the header cut in two, then the body
  for (size_t k = 0; k + 1 < std::size(cuts); ++k) {
    ASSERT_TRUE(peer_->SendRaw(frame.substr(cuts[k], cuts[k + 1] - cuts[k])));
    std::this_thread::sleep_for(150ms);  // pacing: each piece is its own read
  }
  EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/rec/pieces"); }, 5s));
  EXPECT_EQ(peer_->AcceptedCount(), 1u);
  EXPECT_EQ(daemon_->Count(kReadFailed, "error"), 0);

  const std::string cmd = EncodeFrame(2, 0x301, "touch /tmp/rec/never");
  const std::string head = "read pack head failed:", body = "read pack body failed:";
  // What is sent, and the ERROR line the daemon writes for it. A frame too
  // long for the daemon's record ends the stream at its header.
  const std::string cases[][3] = {
      {"whole frame then a cut header", EncodeFrame(2, 0x303, "") + cmd.substr(0, 3), head},
      {"one byte over the largest", EncodeHeader(0, 2, 4097, 64504),
       "got error message:2 4097 0 64504"},
      {"length 65535 with a body", EncodeHeader(7, 2, 0x301, 65535) + std::string(3000, 'x'),
       "got error message:2 769 7 65535"},
      {"header alone", EncodeHeader(0, 2, 0x301, 40), body},
      {"half of the largest frame", EncodeHeader(0, 2, 0x301, 64503) + std::string(40000, ' '),
       body},
  };
  for (const auto& [name, bytes, logLine] : cases) {
    SCOPED_TRACE(name);
    const uint64_t accepted = peer_->AcceptedCount();
    const int failures = daemon_->Count(kReadFailed, "error"),
              lines = daemon_->Count(logLine, "error");
    peer_->SendRaw(bytes, 10s);  // the daemon may drop it before it took all
    peer_->CloseConnection();
    EXPECT_TRUE(daemon_->WaitLog(kReadFailed, 3s, failures + 1, "error"));
    EXPECT_EQ(daemon_->Count(logLine, "error"), lines + 1) << logLine;
    ASSERT_TRUE(peer_->WaitAccepted(accepted + 1, 3s)) << "no reconnection";
    EXPECT_TRUE(run_.RunsCommand("after-garbage"));
  }
  EXPECT_GE(daemon_->Count(kLost, "error"), static_cast<int>(std::size(cases)));
  EXPECT_EQ(peer_->WaitFrames(2, 0ms, [](const Frame& f) { return f.s_cmd == 0x1005; }).size(), 1u);
  EXPECT_FALSE(Exists("/tmp/rec/never"));
}

// One line naming the signal and status 0, or glog's crash report. In the
// loop the main thread waits in a receive: glog's crash handler logs, and on
// a thread caught inside a log line it would wait for glog's lock for ever.
// Under a flood of frames the loop logs two lines a frame, so a termination
// signal finds it inside a line about every other time.
TEST(Termination, TerminationExitsWithStatusZeroAfterOneLineEvenMidLineAndACrashIsReported) {
  PrepareInstallation("abc");
  PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  std::string batch;
  for (int i = 0; i < 1000; ++i) batch += EncodeFrame(2, 0x303, "");
  enum When { kBeforeLoop, kInLoop, kFlooded };
  const std::pair<int, When> cases[] = {{SIGTERM, kBeforeLoop}, {SIGSEGV, kInLoop},
                                        {SIGTERM, kFlooded},    {SIGQUIT, kFlooded},
                                        {SIGUSR1, kFlooded},    {SIGUSR2, kFlooded}};
  for (const auto& [sig, when] : cases) {
    SCOPED_TRACE(testing::Message() << "signal " << sig << " case " << when);
    Daemon daemon;
    ASSERT_TRUE(when == kBeforeLoop ? daemon.WaitLog("setupSignal done.", 5s)
                                    : daemon.WaitLog("read userinfo failed!", 12s, 1, "error"));
    // ThreadSanitizer holds an asynchronous signal until the thread it hit
    // leaves its blocking call; frames the daemon drops (main command 1) give
    // the receiving thread that moment.
    const std::string frames = when == kFlooded ? batch : EncodeFrame(1, 0x303, "");
    std::atomic<bool> stop{false};
    std::thread flood([&] {
      for (; !stop; std::this_thread::sleep_for(when == kFlooded ? 0ms : 100ms))
        peer.SendRaw(frames, 2s);
    });
    EXPECT_TRUE(when != kFlooded ||
                daemon.WaitLog(" got message from server cmd 0x:303", 30s, 200));
    EXPECT_TRUE(daemon.Signal(sig));
    const auto status = daemon.WaitExit(30s);
    stop = true;
    flood.join();
    ASSERT_TRUE(status.has_value()) << "still running";
    if (sig == SIGSEGV) {  // glog's handler reports, then lets the signal end it
      EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGSEGV) << *status;
      EXPECT_GE(daemon.Count("*** SIGSEGV", "error"), 1);
    } else {
      EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
      EXPECT_EQ(daemon.Count("Daemon Child Recv Signal:" + std::to_string(sig)), 1);
      EXPECT_EQ(daemon.Count("Daemon Child Recv Signal:"), 1);
      EXPECT_EQ(daemon.Count("init finish.."), when == kBeforeLoop ? 0 : 1);
      EXPECT_EQ(daemon.Report(), "");
    }
    ASSERT_TRUE(peer.WaitDisconnected(5s));
  }
}

// A bare installation: no log directory, no scripts, no notify-send. The
// daemon registers, heartbeats, comes back after a loss and runs commands; a
// missing program fails only its own command, and nothing makes the log
// directory for it.
TEST(BrokenInstallation, RunsWithoutLogDirectoryScriptsOrNotifySend) {
  PrepareInstallation("abc");
  for (const std::string& path :
       {std::string(sdp_paths::kSsoScript), std::string(sdp_paths::kPopupScript),
        std::string(kFakeBinDir) + "/notify-send"})
    ASSERT_EQ(unlink(path.c_str()), 0) << path;
  ASSERT_EQ(rmdir(sdp_paths::kLogDir), 0);
  DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  ASSERT_TRUE(run.peer->WaitFrame(0x1005, 10s).has_value());
  ASSERT_TRUE(run.RunsCommand("ready", 30s));
  ASSERT_TRUE(run.NextHeartbeat().has_value());
  for (const auto& [m, code, body] :
       Frames{{2, 0x306, "https://portal"}, {2, 0x1001, "t b"}, {2, 0x501, "app"}})
    ASSERT_TRUE(run.peer->SendFrame(m, code, body));
  EXPECT_TRUE(run.RunsCommand("bare"));
  run.peer->CloseConnection();
  ASSERT_TRUE(run.peer->WaitAccepted(2, 3s));
  EXPECT_TRUE(run.RunsCommand("bare-again"));
  EXPECT_FALSE(Exists(sdp_paths::kLogDir));
  ExpectCleanStop(*run.daemon);
}

}  // namespace
