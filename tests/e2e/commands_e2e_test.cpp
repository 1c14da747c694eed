// The command loop of the real daemon, one run shared by every check: each
// command code's action and log lines, frames that must be ignored, the time
// limit on shell commands, the sampled heartbeat-reply line, and SIGPIPE.
//
// Every check sends its frames followed by a sentinel frame of an unknown
// code; since the loop handles frames one at a time, everything the check's
// frames caused is in the log once the sentinel's line is.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
using e2e::Daemon;
using sdppeer::PeerServer;

constexpr uint16_t kSentinelCode = 0x4242;
constexpr char kLoopFile[] = "tolvarind.cpp";  // source tag of the loop's own lines

class DaemonCommands : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    peer_ = new PeerServer();
    std::string error;
    if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) {
      setupError_ = "peer: " + error;
      return;
    }
    daemon_ = new Daemon();
    if (!daemon_->Started()) {
      setupError_ = "daemon did not start";
      return;
    }
    // A broken pipe before any command has run is only logged.
    if (!daemon_->WaitLog("setupSignal done.", 5s)) {
      setupError_ = "no \"setupSignal done.\"";
      return;
    }
    daemon_->Signal(SIGPIPE);
    // In the loop once the resource step (nothing to do here) is over.
    if (!daemon_->WaitLog("read userinfo failed!", 10s, 1, "error"))
      setupError_ = "never reached the loop";
  }

  static void TearDownTestSuite() {
    if (daemon_) {
      EXPECT_EQ(e2e::SanitizerReport(daemon_->Stderr()), "");
    }
    delete daemon_;
    delete peer_;
    daemon_ = nullptr;
    peer_ = nullptr;
  }

  void SetUp() override {
    ASSERT_EQ(setupError_, "");
    ASSERT_TRUE(daemon_->Running());
  }

  // Sends the frames and then the sentinel, waits for the sentinel's line, and
  // returns the loop's main-thread lines that came after the earlier ones,
  // sentinel line excluded.
  static std::vector<std::string> Exchange(
      const std::vector<std::tuple<uint16_t, uint16_t, std::string>>& frames,
      std::chrono::milliseconds timeout = 5s) {
    const size_t before = daemon_->MainThreadLog(kLoopFile).size();
    const std::string sentinel = " got message from server cmd 0x:4242";
    const int sentinels = daemon_->Count(sentinel);
    for (const auto& [m_cmd, s_cmd, body] : frames)
      EXPECT_TRUE(peer_->SendFrame(m_cmd, s_cmd, body));
    EXPECT_TRUE(peer_->SendFrame(2, kSentinelCode, ""));
    EXPECT_TRUE(daemon_->WaitLog(sentinel, timeout, sentinels + 1));
    std::vector<std::string> out;
    const auto lines = daemon_->MainThreadLog(kLoopFile);
    for (size_t i = before; i < lines.size() && lines[i].text != sentinel; ++i)
      out.push_back(lines[i].text);
    return out;
  }

  // The recorded call of `fake` whose arguments are `args`.
  static bool Called(const std::string& fake, const std::vector<std::string>& args) {
    for (const auto& call : e2e::RecordedCalls(fake))
      if (call == args) return true;
    return false;
  }

  static inline PeerServer* peer_ = nullptr;
  static inline Daemon* daemon_ = nullptr;
  static inline std::string setupError_;
};

struct CommandCase {
  uint16_t code;
  std::string body;
  std::vector<std::string> lines;  // the loop's lines for it, in order
  std::string fake;                // the fake it runs, if any ...
  std::vector<std::string> args;   // ... with these arguments
};

TEST_F(DaemonCommands, EachCommandCodeDoesWhatItsEntrySays) {
  const CommandCase cases[] = {
      {0x301,
       "printf 'hi there'",
       {" got message from server cmd 0x:301",
        " got SANDBOX_S2B_OPENBSAPP message from server res:1 hi there"},
       "",
       {}},
      {0x303,
       "ignored",
       {" got message from server cmd 0x:303", " got SANDBOX_S2B_RESPONSE message from server"},
       "",
       {}},
      {0x306,
       "https://portal.example/login?user=alice",
       {" got message from server cmd 0x:306",
        " got SANDBOX_S2B_OPEN_DRAVIN_PORTAL message from server",
        "open solmeri req: https://portal.example/login?user=alice",
        // The script ran, yet the result is 1: never read as success.
        "open solmeri res: 1"},
       "dravinSSO.sh",
       {"https://portal.example/login?user=alice"}},
      {0x501,
       "gedit",
       {" got message from server cmd 0x:501",
        " got SANDBOX_A2F_ILLEGAL message from server msg:gedit"},
       "notify-send",
       {"-i", "info", "-t", "5000", "非法访问", "gedit不属于应用白名单"}},
      {0x1001,
       "--title hello world",
       {" got message from server cmd 0x:1001", " got SANDBOX_TO_LOCAL message from server"},
       "sdpPopup.sh",
       {"--title", "hello", "world"}},
      {0x1012,
       "x",
       {" got message from server cmd 0x:1012", " got SDP_PROTO_OPEN_SANDBOX message from server"},
       "",
       {}},
      {0x1013,
       "x",
       {" got message from server cmd 0x:1013", " got SDP_PROTO_CLOSE_SANDBOX message from server"},
       "",
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "code 0x" << std::hex << c.code);
    EXPECT_EQ(Exchange({{2, c.code, c.body}}), c.lines);
    if (!c.fake.empty()) {
      EXPECT_TRUE(Called(c.fake, c.args));
    }
    // The pop-up fake marks its end 0.4 s after recording its call: had the
    // loop not waited for it, the sentinel would have come first.
    if (c.code == 0x1001) {
      EXPECT_TRUE(e2e::CallEnded(c.fake, c.args));
    }
  }
}

TEST_F(DaemonCommands, IllegalMessageStopsAtTheFirstNul) {
  const auto lines = Exchange({{2, 0x501, std::string("a\0b", 3)}});
  EXPECT_EQ(lines,
            (std::vector<std::string>{" got message from server cmd 0x:501",
                                      " got SANDBOX_A2F_ILLEGAL message from server msg:a"}));
  EXPECT_TRUE(Called("notify-send", {"-i", "info", "-t", "5000", "非法访问", "a不属于应用白名单"}));
}

// The shell sees the bodies unquoted (the peer is trusted): a body that reads
// the shell's own command line shows the exact text the daemon formatted.
TEST_F(DaemonCommands, PortalAndNotificationCommandLinesKeepTheirDoubleBlanks) {
  const std::string portalBody =
      "; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/portal.cmdline; true";
  const std::string notifyBody =
      "x; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/notify.cmdline; true #";
  Exchange({{2, 0x306, portalBody}, {2, 0x501, notifyBody}});
  EXPECT_EQ(e2e::ReadFile("/tmp/rec/portal.cmdline"),
            "/bin/sh\n-c\n/opt/apps/morvasta/dravinSSO.sh  " + portalBody + "\n");
  EXPECT_EQ(
      e2e::ReadFile("/tmp/rec/notify.cmdline"),
      "/bin/sh\n-c\nnotify-send -i info -t 5000  非法访问  " + notifyBody + "不属于应用白名单\n");
}

TEST_F(DaemonCommands, ShellCommandIsKilledAfterThreeSecondsAndTheLoopGoesOn) {
  const auto start = std::chrono::steady_clock::now();
  const auto lines = Exchange(
      {{2, 0x301, "sleep 4; touch /tmp/rec/late"}, {2, 0x301, "touch /tmp/rec/next"}}, 10s);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(lines,
            (std::vector<std::string>{" got message from server cmd 0x:301",
                                      " got SANDBOX_S2B_OPENBSAPP message from server res:-4 ",
                                      " got message from server cmd 0x:301",
                                      " got SANDBOX_S2B_OPENBSAPP message from server res:1 "}));
  EXPECT_GE(took, 2900ms);
  EXPECT_LE(took, 6s);
  EXPECT_TRUE(e2e::Exists("/tmp/rec/next"));
  EXPECT_GE(daemon_->Count("Child process timed out.", "error"), 1);
  // Had the shell only been left behind, it would touch the file at 4 s.
  EXPECT_FALSE(e2e::WaitUntil([] { return e2e::Exists("/tmp/rec/late"); },
                              std::chrono::duration_cast<std::chrono::milliseconds>(
                                  start + 5s - std::chrono::steady_clock::now())));
}

TEST_F(DaemonCommands, FramesOfMainCommandOneAreIgnoredSilently) {
  const auto lines = Exchange({{1, 0x301, "touch /tmp/rec/from-cmd-1"},
                               {1, 0x306, "https://portal.example/cmd1"},
                               {0, 0x303, ""},
                               {3, 0x1012, ""}});
  EXPECT_EQ(lines, std::vector<std::string>{});
  EXPECT_FALSE(e2e::Exists("/tmp/rec/from-cmd-1"));
  EXPECT_FALSE(Called("dravinSSO.sh", {"https://portal.example/cmd1"}));
}

TEST_F(DaemonCommands, UnknownCodesLogOnlyTheirCodeInHex) {
  const auto lines =
      Exchange({{2, 0x0, "x"}, {2, 0x1005, "1005abc\n"}, {2, 0xabcd, ""}, {2, 0x1113, "id=1"}});
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                " got message from server cmd 0x:0", " got message from server cmd 0x:1005",
                " got message from server cmd 0x:abcd", " got message from server cmd 0x:1113"}));
}

TEST_F(DaemonCommands, HeartbeatRepliesAreLoggedFirstSixthEleventh) {
  const std::string hb = " got message from server cmd 0x:1111";
  const std::string sampled = " got heatbeat message from server";
  std::vector<std::tuple<uint16_t, uint16_t, std::string>> eleven(11, {2, 0x1111, ""});
  std::vector<std::string> want;
  for (int i = 1; i <= 11; ++i) {
    want.push_back(hb);
    if (i % 5 == 1) want.push_back(sampled);
  }
  EXPECT_EQ(Exchange(eleven), want);
  // The count goes on across batches: the 16th is the next one logged.
  std::vector<std::tuple<uint16_t, uint16_t, std::string>> five(5, {2, 0x1111, "ignored"});
  EXPECT_EQ(Exchange(five), (std::vector<std::string>{hb, hb, hb, hb, hb, sampled}));
}

TEST_F(DaemonCommands, SigpipeIsLoggedUntilTheFirstCommandThenIgnored) {
  // The one sent during start-up, before any command ran.
  EXPECT_EQ(daemon_->Count("Daemon Child Recv Signal:13"), 1);
  Exchange({{2, 0x301, "true"}});
  ASSERT_TRUE(daemon_->Signal(SIGPIPE));
  Exchange({{2, 0x303, ""}});
  EXPECT_TRUE(daemon_->Running());
  EXPECT_EQ(daemon_->Count("Daemon Child Recv Signal:13"), 1);
}

TEST_F(DaemonCommands, CommandsInheritNoDescriptorOfTheDaemon) {
  // ls lists its own descriptors: the three standard ones and the directory
  // it reads. Anything else was left open by the daemon.
  const auto lines = Exchange({{2, 0x301, "ls -l /proc/self/fd/"}});
  ASSERT_EQ(lines.size(), 2u);
  const std::string& listing = lines[1];
  std::set<int> fds;
  std::stringstream in(listing);
  std::string row;
  while (std::getline(in, row)) {
    const size_t arrow = row.find(" -> ");
    if (arrow == std::string::npos) continue;
    const size_t space = row.rfind(' ', arrow - 1);
    fds.insert(std::stoi(row.substr(space + 1, arrow - space - 1)));
  }
  EXPECT_EQ(fds, (std::set<int>{0, 1, 2, 3})) << listing;
  EXPECT_EQ(listing.find("socket:"), std::string::npos) << listing;
  EXPECT_EQ(listing.find(sdp_paths::kLogDir), std::string::npos) << listing;
}

}  // namespace
