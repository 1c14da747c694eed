// The real daemon in the sandbox against the test peer, one test per
// behaviour or fault: start-up and what it tells the service manager, the
// first run on a full installation, every command code, losing the peer in
// every way, termination and crash signals, and a broken installation.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>
#include <tuple>

#include "daemon_harness.h"
#include "sdp_paths.h"

namespace {

using namespace harness;
using sdppeer::EncodeFrame;
using sdppeer::EncodeHeader;
using sdppeer::Frame;
using Lines = std::vector<std::string>;
using Frames = std::vector<std::tuple<uint16_t, uint16_t, std::string>>;
namespace fs = std::filesystem;

constexpr uint16_t kRegister = 0x1005;
constexpr char kLost[] = "daemon_client recv message failed, wailt reconnect";
constexpr char kReadFailed[] = "read  package  failed";
constexpr char kShellResult[] = " got SANDBOX_S2B_OPENBSAPP message from server res:";

// The service manager's end of NOTIFY_SOCKET: each datagram and its sender.
class FakeServiceManager {
 public:
  static constexpr char kPath[] = "/tmp/notify.sock";
  FakeServiceManager() {
    sockaddr_un addr{AF_UNIX, {}};
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kPath);
    const int on = 1;
    EXPECT_TRUE(setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
                bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0);
  }
  ~FakeServiceManager() { close(fd_); }
  const Lines& Messages() {
    for (;;) {
      char buf[4096];
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
      iovec iov{buf, sizeof buf};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t n = recvmsg(fd_, &msg, 0);
      if (n < 0) return messages_;
      messages_.emplace_back(buf, static_cast<size_t>(n));
      const cmsghdr* c = CMSG_FIRSTHDR(&msg);
      senders.push_back(c ? reinterpret_cast<const ucred*>(CMSG_DATA(c))->pid : -1);
    }
  }
  bool WaitLast(const std::string& text, Millis timeout) {
    return WaitUntil([&] { return !Messages().empty() && messages_.back() == text; }, timeout);
  }
  std::vector<pid_t> senders;

 private:
  int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  Lines messages_;
};

// Attempt 1: no safespace.ini. 2: an empty id, the channel untouched. 3: an
// id but no peer. 4: the peer is there. Each failed attempt logs its cause
// and "init error...", 3 s apart; systemd hears each new state once and
// READY=1 only once registered, then the connection's ups and downs.
TEST(Startup, RetriesEveryThreeSecondsUntilIdAndPeerAreThereAndTellsSystemd) {
  PrepareInstallation("");
  FakeServiceManager manager;
  sdppeer::PeerServer peer;
  Daemon daemon({std::string("NOTIFY_SOCKET=") + FakeServiceManager::kPath});
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 1));
  WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 2));
  EXPECT_EQ(daemon.Count("Read sandbox id is :"), 1);
  EXPECT_EQ(daemon.Count("Init Socket ret:"), 0);
  WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=abc\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 15s, 3));
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  ASSERT_TRUE(peer.WaitFrame(kRegister, 15s).has_value());
  ASSERT_TRUE(daemon.WaitLog("init finish..", 10s));

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
  EXPECT_EQ(sequence, (Lines{"setupSignal done.", idError, "init error...", idError, "init error...",
                             std::string("initDaemonClient:") + sdp_paths::kDaemonSocket + " failed",
                             "init error...", "init finish.."}));
  ASSERT_EQ(times.size(), 5u);
  for (size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], 2900000) << "attempt " << i;
    EXPECT_LE(times[i] - times[i - 1], 4500000) << "attempt " << i;
  }

  const std::string registered = "READY=1\nSTATUS=registered with sandbox abc";
  ASSERT_TRUE(manager.WaitLast(registered, 10s));
  // The heartbeat thread, started just before READY=1, may say "registered" first.
  Lines seen = manager.Messages();
  seen.erase(std::remove(seen.begin(), seen.end(), "STATUS=registered with sandbox abc"), seen.end());
  EXPECT_EQ(seen,
            (Lines{std::string("STATUS=waiting for the sandbox id in ") + sdp_paths::kSafespaceIni,
                   std::string("STATUS=waiting for the peer's socket ") + sdp_paths::kDaemonSocket,
                   registered}));
  peer.StopListening();
  peer.CloseConnection();
  ASSERT_TRUE(manager.WaitLast("STATUS=connection to the peer lost, reconnecting", 10s));
  ASSERT_TRUE(peer.Restart());
  ASSERT_TRUE(manager.WaitLast("STATUS=registered with sandbox abc", 20s));
  for (pid_t sender : manager.senders) EXPECT_EQ(sender, daemon.pid());
  ExpectCleanStop(daemon);
}

// Everything in place when the daemon starts: a desktop user, a resource, a
// policy item and a whitelist entry with their system launchers, a launcher
// of the client's own and one left by an earlier run; logs of an earlier run
// and of another program, each larger than the log budget (sparse).
class FirstRun : public SharedRun {
 protected:
  static constexpr char kOldOwnLog[] = "tolvarind.info.20200101-000000.7";
  static constexpr char kOtherLog[] = "ventrald.info.20200101-000000.7";

  static void SetUpTestSuite() {
    PrepareInstallation("abc");
    for (const char* name : {kOldOwnLog, kOtherLog}) {
      const std::string path = std::string(sdp_paths::kLogDir) + "/" + name;
      WriteFile(path, "");
      fs::resize_file(path, 200u << 20);
    }
    WriteFile(sdp_paths::kUserinfoIni,
              "[UserInfo]\nSysUserName=alice\n[Aum]\nweb1=https://web1.example/\n"
              "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
    MakeDirs("/home/alice/Desktop");
    WriteFile(sdp_paths::kResourceJson,
              R"({"GatewayConfig":[{"isCreateIconInSandbox":1,"AppName":"Web One","source":"web1"},)"
              R"({"isCreateIconInSandbox":0,"AppName":"Hidden","source":"web2"}]})");
    WriteFile(sdp_paths::kPolicyJson,
              R"({"policy":{"PolicySandBox":[{"policyname":"p1","policyid":"abc",)"
              R"("sandBox":{"boxAllowProcess":[)"
              R"({"value":"/usr/bin/gedit","id":"7","name":"Gedit","type":1}]}}]}})");
    WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/calc\n");
    WriteFile("/usr/share/applications/gedit.desktop", "[Desktop Entry]\nName=Gedit\n");
    WriteFile("/usr/share/applications/calc.desktop", "[Desktop Entry]\nName=Calc\n");
    WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client-tool.desktop",
              "[Desktop Entry]\nName=Client tool\n");
    WriteFile("/home/alice/Desktop/stale.desktop", "[Desktop Entry]\nName=Old\n");
    WriteFile(sdp_paths::kRecordOldAppNames, "/home/alice/Desktop/stale.desktop\n");
    Begin();
  }
};

TEST_F(FirstRun, RemovesItsOwnOldLogsOverTheBudgetAndNothingElse) {
  const std::string dir = std::string(sdp_paths::kLogDir) + "/";
  EXPECT_TRUE(WaitUntil([&] { return !Exists(dir + kOldOwnLog); }, 15s));
  EXPECT_TRUE(Exists(dir + kOtherLog));
  EXPECT_EQ(daemon_->Count(std::string("log directory over its budget, removed ") + kOldOwnLog), 1);
}

TEST_F(FirstRun, PlacesLaunchersBeforeTheFirstCommand) {
  const Lines placed = {"/home/alice/Desktop/calc.desktop", "/home/alice/Desktop/client-tool.desktop",
                        "/home/alice/Desktop/gedit.desktop", "/usr/share/applications/client-tool.desktop",
                        "/home/alice/Desktop/web1.desktop", "/usr/share/applications/web1.desktop"};
  EXPECT_EQ(daemon_->Count("deal user resource size:1", "error"), 1);
  const std::string record = ReadFile(sdp_paths::kRecordOldAppNames);
  for (const auto& path : placed) {
    EXPECT_TRUE(Exists(path)) << path;
    EXPECT_NE(record.find(path + "\n"), std::string::npos) << path;
  }
  // The old launchers go first; the whitelist's come before the resources'.
  EXPECT_FALSE(Exists("/home/alice/Desktop/stale.desktop"));
  EXPECT_EQ(record.find("stale"), std::string::npos);
  EXPECT_LT(record.find("gedit.desktop"), record.find("web1.desktop"));
  EXPECT_FALSE(Exists("/home/alice/Desktop/web2.desktop"));
  EXPECT_NE(ReadFile("/home/alice/Desktop/web1.desktop")
                .find("\nExec=/opt/apps/morvasta/dravinAum.sh web1\n"),
            std::string::npos);
}

// A new address is seen only once the caches are cleared, after the fifth.
TEST_F(FirstRun, RegistersOnceThenHeartbeatsEveryThreeSecondsReprobingOnTheSixth) {
  auto reg = peer_->WaitFrame(kRegister, 8s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_EQ(reg->Bytes(), std::string("\0\0\x01\0\x05\x10\x09\0" "1005abc\n\0", 17));
  ASSERT_EQ(std::system("PATH=$PATH:/usr/sbin:/sbin; ip addr flush dev vtest0 && "
                        "ip addr add 10.0.0.7/24 dev vtest0 && "
                        "ip route add default via 10.0.0.1 dev vtest0 onlink"),
            0);
  auto beats = peer_->WaitFrames(6, 22s, [](const Frame& f) { return f.s_cmd == 0x1111; });
  ASSERT_EQ(beats.size(), 6u);
  for (size_t i = 0; i < beats.size(); ++i) {
    EXPECT_EQ(beats[i].Bytes().substr(0, 8), std::string("\0\0\x01\0\x11\x11\x0d\0", 8));
    EXPECT_EQ(beats[i].body, i < 5 ? "abc#10.0.0.5#" : "abc#10.0.0.7#") << "heartbeat " << i + 1;
    if (i > 0) {
      EXPECT_GE(beats[i].arrival - beats[i - 1].arrival, 2800ms) << "before heartbeat " << i + 1;
      EXPECT_LE(beats[i].arrival - beats[i - 1].arrival, 3800ms) << "before heartbeat " << i + 1;
    }
  }
  for (const auto& f : peer_->Frames()) EXPECT_EQ(f.connection, reg->connection);
  EXPECT_EQ(peer_->WaitFrames(2, 0ms, [](const Frame& f) { return f.s_cmd == kRegister; }).size(), 1u);
  EXPECT_EQ(daemon_->Count("init error..."), 0);
  // The log sweeps of these 20 s removed nothing, and that is no failure.
  EXPECT_EQ(daemon_->Count(std::string("log directory ") + sdp_paths::kLogDir, "warning"), 0);
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
    for (const auto& [m_cmd, s_cmd, body] : frames) EXPECT_TRUE(peer_->SendFrame(m_cmd, s_cmd, body));
    EXPECT_TRUE(peer_->SendFrame(2, 0x4242, ""));
    EXPECT_TRUE(daemon_->WaitLog(sentinel, timeout, sentinels + 1));
    Lines out;
    const auto lines = daemon_->MainThreadLog("tolvarind.cpp");
    for (size_t i = before; i < lines.size() && lines[i].text != sentinel; ++i)
      out.push_back(lines[i].text);
    return out;
  }
  static bool Called(const std::string& fake, const Lines& args) {
    const auto calls = RecordedCalls(fake);
    return std::find(calls.begin(), calls.end(), args) != calls.end();
  }
};

TEST_F(Commands, HeartbeatRepliesAreLoggedFirstSixthEleventh) {
  const std::string hb = " got message from server cmd 0x:1111", sampled = " got heatbeat message from server";
  Lines want;
  for (int i = 1; i <= 11; ++i) {
    want.push_back(hb);
    if (i % 5 == 1) want.push_back(sampled);
  }
  EXPECT_EQ(Exchange(Frames(11, {2, 0x1111, ""})), want);
  // The count goes on across batches: the 16th is the next one logged.
  EXPECT_EQ(Exchange(Frames(5, {2, 0x1111, "x"})),
            (Lines{hb, hb, hb, hb, hb, sampled}));
}

TEST_F(Commands, EachCommandCodeDoesWhatItsEntrySaysAndOtherMainCommandsNothing) {
  const std::string illegal = " got SANDBOX_A2F_ILLEGAL message from server msg:";
  const std::string url = "https://portal.example/login?user=alice";
  const Lines notify = {"notify-send", "-i", "info", "-t", "5000", "非法访问"};
  const struct {
    uint16_t main, code;
    std::string body;
    Lines then, call;  // lines after the code's line; the fake run and its arguments
  } cases[] = {
      {2, 0x301, "printf 'hi there'", {kShellResult + std::string("1 hi there")}, {}},
      // ls lists its own descriptors: the standard three and the directory it
      // reads. Anything more was left open by the daemon.
      {2, 0x301, "ls /proc/self/fd | tr '\\n' ' '", {kShellResult + std::string("1 0 1 2 3 ")}, {}},
      {2, 0x303, "ignored", {" got SANDBOX_S2B_RESPONSE message from server"}, {}},
      // The script ran, yet the result is 1: never read as success.
      {2, 0x306, url,
       {" got SANDBOX_S2B_OPEN_DRAVIN_PORTAL message from server", "open solmeri req: " + url,
        "open solmeri res: 1"},
       {"dravinSSO.sh", url}},
      {2, 0x501, "gedit", {illegal + "gedit"}, {"gedit不属于应用白名单"}},
      {2, 0x501, std::string("a\0b", 3), {illegal + "a"}, {"a不属于应用白名单"}},
      {2, 0x1001, "--title hi you", {" got SANDBOX_TO_LOCAL message from server"},
       {"sdpPopup.sh", "--title", "hi", "you"}},
      {2, 0x1012, "x", {" got SDP_PROTO_OPEN_SANDBOX message from server"}, {}},
      {2, 0x1013, "x", {" got SDP_PROTO_CLOSE_SANDBOX message from server"}, {}},
      {2, 0x0, "x", {}, {}},
      {2, 0x1005, "1005abc\n", {}, {}},
      {2, 0x1113, "id=1", {}, {}},
      {2, 0xabcd, "", {}, {}},
      {1, 0x301, "touch /tmp/rec/from-cmd-1", {}, {}},
      {1, 0x306, "https://portal.example/cmd1", {}, {}},
      {0, 0x303, "", {}, {}},
      {3, 0x1012, "", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.main << " 0x" << std::hex << c.code << " " << c.body);
    std::stringstream first;
    first << " got message from server cmd 0x:" << std::hex << c.code;
    Lines want = c.main == 2 ? Lines{first.str()} : Lines{};
    want.insert(want.end(), c.then.begin(), c.then.end());
    EXPECT_EQ(Exchange({{c.main, c.code, c.body}}), want);
    Lines call = c.call;
    if (c.code == 0x501) call.insert(call.begin(), notify.begin(), notify.end());
    EXPECT_TRUE(call.empty() || Called(call[0], Lines(call.begin() + 1, call.end())));
  }
  EXPECT_FALSE(Exists("/tmp/rec/from-cmd-1"));
  EXPECT_FALSE(Called("dravinSSO.sh", {"https://portal.example/cmd1"}));
  // The pop-up fake marks its end 0.4 s after its call: had the loop not
  // waited for it, the sentinel's line would have come first.
  EXPECT_EQ(RecordedCalls("sdpPopup.sh").size(), 1u);
  bool popupEnded = false;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/tmp/rec/sdpPopup.sh", ec))
    popupEnded |= e.path().extension() == ".done";
  EXPECT_TRUE(popupEnded);
}

// The shell sees the bodies unquoted (the peer is trusted): a body that reads
// the shell's own command line shows the exact text the daemon formatted.
TEST_F(Commands, PortalAndNotificationCommandLinesKeepTheirDoubleBlanks) {
  const std::string portal = "; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/portal.cmdline; true";
  const std::string notify = "x; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/notify.cmdline; true #";
  Exchange({{2, 0x306, portal}, {2, 0x501, notify}});
  EXPECT_EQ(ReadFile("/tmp/rec/portal.cmdline"),
            "/bin/sh\n-c\n/opt/apps/morvasta/dravinSSO.sh  " + portal + "\n");
  EXPECT_EQ(ReadFile("/tmp/rec/notify.cmdline"),
            "/bin/sh\n-c\nnotify-send -i info -t 5000  非法访问  " + notify + "不属于应用白名单\n");
}

TEST_F(Commands, ShellCommandIsKilledAfterThreeSecondsAndEndlessOutputIsCut) {
  const auto start = std::chrono::steady_clock::now();
  const auto lines =
      Exchange({{2, 0x301, "sleep 4; touch /tmp/rec/late"}, {2, 0x301, "touch /tmp/rec/next"}}, 10s);
  const auto took = std::chrono::steady_clock::now() - start;
  const std::string got = " got message from server cmd 0x:301";
  EXPECT_EQ(lines, (Lines{got, kShellResult + std::string("-4 "), got, kShellResult + std::string("1 ")}));
  EXPECT_GE(took, 2900ms);
  EXPECT_LE(took, 6s);
  EXPECT_GE(daemon_->Count("Child process timed out.", "error"), 1);
  // Had the shell only been left behind, it would touch the file at 4 s.
  EXPECT_FALSE(WaitUntil([] { return Exists("/tmp/rec/late"); },
                         std::chrono::duration_cast<Millis>(start + 5s - std::chrono::steady_clock::now())));
  // Killed (-4), or, when the closed pipe ended it first, reaped (1).
  Exchange({{2, 0x301, "yes"}}, 20s);
  EXPECT_EQ(daemon_->Count(kShellResult + std::string("-4 y\ny\n")) +
                daemon_->Count(kShellResult + std::string("1 y\ny\n")),
            1);
}

TEST_F(Commands, SigpipeIsLoggedUntilTheFirstCommandThenIgnored) {
  EXPECT_EQ(daemon_->Count("Daemon Child Recv Signal:13"), 1);  // the one sent at start-up
  ASSERT_TRUE(daemon_->Signal(SIGPIPE));
  Exchange({{2, 0x303, ""}});
  EXPECT_TRUE(daemon_->Running());
  EXPECT_EQ(daemon_->Count("Daemon Child Recv Signal:13"), 1);
}

// `size` pseudo-random bytes with every frame the daemon would find in them
// turned away from main command 2 (garbage never runs) and none longer than
// the largest.
std::string Garbage(uint32_t seed, size_t size) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (auto& c : bytes) c = static_cast<char>(gen() & 0xff);
  for (size_t off = 0; off + 8 <= bytes.size();) {
    if (bytes[off + 2] == 2 && bytes[off + 3] == 0) bytes[off + 2] = 3;
    bytes[off + 7] &= 0x7f;
    off += 8 + (static_cast<uint8_t>(bytes[off + 6]) | static_cast<uint8_t>(bytes[off + 7]) << 8);
  }
  return bytes;
}

// Every way of losing the peer: it sends what is no frame, it goes away for
// seconds. The daemon logs why, reports the loss calmly, comes back without
// registering again, and serves commands on the new connection.
class PeerLoss : public SharedRun {
 protected:
  static void SetUpTestSuite() {
    PrepareInstallation("abc");
    Begin();
  }
  static void ExpectServedOn(uint64_t count, const std::string& name) {
    ASSERT_TRUE(peer_->WaitAccepted(count, 3s)) << "no reconnection";
    ASSERT_TRUE(run_.NextHeartbeat().has_value());
    EXPECT_EQ(peer_->WaitFrames(2, 0ms, [](const Frame& f) { return f.s_cmd == kRegister; }).size(), 1u);
    EXPECT_TRUE(run_.RunsCommand(name));
  }
};

TEST_F(PeerLoss, GarbageDropsTheConnectionAndNothingInItRuns) {
  const std::string cmd = EncodeFrame(2, 0x301, "touch /tmp/rec/never");
  const std::string head = "read pack head failed:", body = "read pack body failed:";
  struct Case {
    std::string name, bytes;
    bool daemonCloses;    // else the peer closes after sending
    std::string logLine;  // the ERROR line the daemon writes for it
  };
  std::vector<Case> cases = {
      {"one byte of a header", cmd.substr(0, 1), false, head},
      {"whole frame then a cut header", EncodeFrame(2, 0x303, "") + cmd.substr(0, 3), false, head},
      {"one byte over the largest", EncodeHeader(0, 2, 4097, 64504), true, "got error message:2 4097 0 64504"},
      {"length 65535 with a body", EncodeHeader(7, 2, 0x301, 65535) + std::string(3000, 'x'), true,
       "got error message:2 769 7 65535"},
      {"header alone", EncodeHeader(0, 2, 0x301, 40), false, body},
      {"half of the largest frame", EncodeHeader(0, 2, 0x301, 64503) + std::string(40000, ' '), false, body},
  };
  for (uint32_t seed : {1u, 2u, 3u, 4u})
    cases.push_back({"random, seed " + std::to_string(seed),
                     Garbage(seed, seed == 4 ? 100000 : 64 << (3 * seed)), false, "read pack "});
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const uint64_t accepted = peer_->AcceptedCount();
    const int failures = daemon_->Count(kReadFailed, "error"), lines = daemon_->Count(c.logLine, "error"),
              lost = daemon_->Count(kLost, "error");
    const bool sent = peer_->SendRaw(c.bytes, 10s);  // the daemon may drop it before it took all
    if (!c.daemonCloses) {
      ASSERT_TRUE(sent);
      peer_->CloseConnection();
    }
    EXPECT_TRUE(daemon_->WaitLog(kReadFailed, 3s, failures + 1, "error"));
    EXPECT_GE(daemon_->Count(c.logLine, "error"), lines + 1) << c.logLine;
    EXPECT_TRUE(daemon_->WaitLog(kLost, 5s, lost + 1, "error"));
    ExpectServedOn(accepted + 1, "after-garbage-" + std::to_string(n++));
  }
  EXPECT_FALSE(Exists("/tmp/rec/never"));
}

TEST_F(PeerLoss, FrameArrivingInPiecesIsOneCommandOnTheSameConnection) {
  const std::string frame = EncodeFrame(2, 0x301, "touch /tmp/rec/pieces");
  const uint64_t conn = peer_->CurrentConnection();
  const int failures = daemon_->Count(kReadFailed, "error");
  const size_t cuts[] = {0, 3, 8, 12, 20, frame.size()};  // the header cut in two, then the body
  for (size_t k = 0; k + 1 < std::size(cuts); ++k) {
    ASSERT_TRUE(peer_->SendRaw(frame.substr(cuts[k], cuts[k + 1] - cuts[k])));
    std::this_thread::sleep_for(150ms);  // pacing: each piece is its own read
  }
  EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/rec/pieces"); }, 5s));
  EXPECT_EQ(peer_->CurrentConnection(), conn);
  EXPECT_EQ(daemon_->Count(kReadFailed, "error"), failures);
}

// The loss is reported at once, then about once a second, never at every
// turn of the loop (which once wrote some 1,500 lines a second).
TEST_F(PeerLoss, PeerAwayForSecondsIsReportedCalmlyAndFollowedByReconnection) {
  const uint64_t accepted = peer_->AcceptedCount();
  const int attempts = daemon_->Count("try connect to server"), lostBefore = daemon_->Count(kLost, "error");
  const auto away = std::chrono::steady_clock::now();
  peer_->StopListening();
  peer_->CloseConnection();
  ASSERT_TRUE(daemon_->WaitLog("try connect to server", 8s, attempts + 3));
  EXPECT_GE(daemon_->Count("anetUnixConnect failed:", "error"), 1);
  EXPECT_EQ(peer_->AcceptedCount(), accepted);
  ASSERT_TRUE(peer_->Restart());
  ASSERT_TRUE(peer_->WaitAccepted(accepted + 1, 3s));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - away).count();
  ExpectServedOn(accepted + 1, "after-restart");
  const int lost = daemon_->Count(kLost, "error") - lostBefore;
  EXPECT_GE(lost, 1);
  EXPECT_LE(lost, seconds + 2) << "in " << seconds << " s without the peer";
}

// All run at once; the one signalled in the wait before start-up comes first.
// The others are signalled in the loop, where the main thread waits in a
// receive: glog's crash handler logs, and on a thread caught inside a log
// line it would wait for glog's lock for ever.
TEST(Termination, TerminationExitsWithStatusZeroAfterOneLineAndACrashIsReported) {
  PrepareInstallation("abc");
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  const struct {
    int sig;
    bool inLoop;
  } cases[] = {{SIGTERM, false}, {SIGSEGV, true}, {SIGTERM, true},
               {SIGQUIT, true},  {SIGUSR1, true}, {SIGUSR2, true}};
  std::vector<Daemon> daemons(std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(cases[i].inLoop ? daemons[i].WaitLog("read userinfo failed!", 12s, 1, "error")
                                : daemons[i].WaitLog("setupSignal done.", 5s));
    ASSERT_TRUE(daemons[i].Signal(cases[i].sig));
  }
  // ThreadSanitizer holds an asynchronous signal until the thread it hit
  // leaves its blocking call; a frame the daemons drop (main command 1) gives
  // the receiving thread that moment.
  EXPECT_TRUE(WaitUntil(
      [&] {
        peer.SendFrame(1, 0x303, "", 100ms);
        return std::none_of(daemons.begin(), daemons.end(), [](Daemon& d) { return d.Running(); });
      },
      30s));
  for (size_t i = 0; i < std::size(cases); ++i) {
    const int sig = cases[i].sig;
    SCOPED_TRACE(testing::Message() << "signal " << sig << (cases[i].inLoop ? " in loop" : ""));
    const auto status = daemons[i].WaitExit(0ms);
    ASSERT_TRUE(status.has_value());
    if (sig == SIGSEGV) {  // glog's handler reports, then lets the signal end it
      EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGSEGV) << *status;
      EXPECT_GE(daemons[i].Count("*** SIGSEGV", "error"), 1);
      continue;
    }
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    EXPECT_EQ(daemons[i].Count("Daemon Child Recv Signal:" + std::to_string(sig)), 1);
    EXPECT_EQ(daemons[i].Count("Daemon Child Recv Signal:"), 1);
    EXPECT_EQ(daemons[i].Count("init finish.."), cases[i].inLoop ? 1 : 0);
    EXPECT_EQ(daemons[i].Report(), "");
  }
}

// Under a flood of frames the loop logs two lines a frame, so a termination
// signal finds it inside a line about every other time; three daemons in turn
// make a miss unlikely. One line naming the signal, and status 0.
TEST(Termination, TerminationInTheMiddleOfALogLineStillExitsWithStatusZero) {
  PrepareInstallation("abc");
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  std::string batch;
  for (int i = 0; i < 1000; ++i) batch += EncodeFrame(2, 0x303, "");
  for (int round = 1; round <= 3; ++round) {
    Daemon daemon;
    ASSERT_TRUE(daemon.WaitLog("read userinfo failed!", 12s, 1, "error"));
    std::atomic<bool> stop{false};
    std::thread flood([&] {
      while (!stop && peer.SendRaw(batch, 2s)) {
      }
    });
    const bool flooding = daemon.WaitLog(" got message from server cmd 0x:303", 30s, 200);
    const bool signalled = daemon.Signal(SIGTERM);
    const auto status = daemon.WaitExit(30s);
    stop = true;
    flood.join();
    ASSERT_TRUE(flooding && signalled);
    ASSERT_TRUE(status.has_value()) << "still running after SIGTERM";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    EXPECT_EQ(daemon.Count("Daemon Child Recv Signal:"), 1);
    EXPECT_EQ(daemon.Count("Daemon Child Recv Signal:15"), 1);
    EXPECT_EQ(daemon.Report(), "");
    ASSERT_TRUE(peer.WaitDisconnected(5s));
  }
}

TEST(BrokenInstallation, RunsWithoutLogDirectoryScriptsOrNotifySend) {
  PrepareInstallation("abc");
  for (const std::string& path : {std::string(sdp_paths::kSsoScript), std::string(sdp_paths::kPopupScript),
                                 std::string(kFakeBinDir) + "/notify-send"})
    ASSERT_EQ(unlink(path.c_str()), 0) << path;
  ASSERT_EQ(rmdir(sdp_paths::kLogDir), 0);
  DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  // No log to wait on: the registration, then a command that ran, mark the loop.
  ASSERT_TRUE(run.peer->WaitFrame(kRegister, 10s).has_value());
  ASSERT_TRUE(run.RunsCommand("ready", 30s));
  ASSERT_TRUE(run.NextHeartbeat().has_value());
  for (const auto& [m, code, body] : Frames{{2, 0x306, "https://portal"}, {2, 0x1001, "title body"}, {2, 0x501, "app"}})
    ASSERT_TRUE(run.peer->SendFrame(m, code, body));
  EXPECT_TRUE(run.RunsCommand("bare"));
  const uint64_t accepted = run.peer->AcceptedCount();
  run.peer->CloseConnection();
  ASSERT_TRUE(run.peer->WaitAccepted(accepted + 1, 3s));
  EXPECT_TRUE(run.RunsCommand("bare-again"));
  EXPECT_FALSE(Exists(sdp_paths::kLogDir));
  ExpectCleanStop(*run.daemon);
}

}  // namespace
