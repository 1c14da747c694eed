// The command loop of the real daemon, one run shared by every check. Each
// check sends its frames and then a sentinel of an unknown code; the loop
// handles frames one at a time, so all the check's frames caused is in the
// log once the sentinel's line is.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "shared_run.h"

namespace {

using namespace std::chrono_literals;
using Frames = std::vector<std::tuple<uint16_t, uint16_t, std::string>>;
using Lines = std::vector<std::string>;

class DaemonCommands : public e2e::SharedRun {
 protected:
  // A broken pipe before any command has run is only logged. Sent once the
  // main thread waits in the loop's receive: its handler logs, and on a thread
  // caught inside a log line it would wait for glog's lock for ever.
  static void SetUpTestSuite() {
    StartRun() && WaitLoop() && daemon_->Signal(SIGPIPE) &&
        (daemon_->WaitLog("Daemon Child Recv Signal:13", 10s) || Fail("SIGPIPE not logged"));
  }

  // Sends the frames and the sentinel; returns the loop's main-thread lines
  // they caused, sentinel line excluded.
  static Lines Exchange(const Frames& frames, std::chrono::milliseconds timeout = 5s) {
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

bool Called(const std::string& fake, const Lines& args) {
  const auto calls = e2e::RecordedCalls(fake);
  return std::find(calls.begin(), calls.end(), args) != calls.end();
}

TEST_F(DaemonCommands, EachCommandCodeDoesWhatItsEntrySays) {
  const std::string shell = " got SANDBOX_S2B_OPENBSAPP message from server res:";
  const std::string illegal = " got SANDBOX_A2F_ILLEGAL message from server msg:";
  const std::string url = "https://portal.example/login?user=alice";
  const Lines notify = {"notify-send", "-i", "info", "-t", "5000", "非法访问"};
  // Each frame's first line names its code; `then` are the lines after it,
  // `call` the fake it runs and that fake's arguments.
  const struct {
    uint16_t code;
    std::string body;
    Lines then, call;
  } cases[] = {
      {0x301, "printf 'hi there'", {shell + "1 hi there"}, {}},
      // ls lists its own descriptors: the standard three and the directory it
      // reads. Anything more was left open by the daemon.
      {0x301, "ls /proc/self/fd | tr '\\n' ' '", {shell + "1 0 1 2 3 "}, {}},
      {0x303, "ignored", {" got SANDBOX_S2B_RESPONSE message from server"}, {}},
      // The script ran, yet the result is 1: never read as success.
      {0x306,
       url,
       {" got SANDBOX_S2B_OPEN_DRAVIN_PORTAL message from server", "open solmeri req: " + url,
        "open solmeri res: 1"},
       {"dravinSSO.sh", url}},
      {0x501, "gedit", {illegal + "gedit"}, {"gedit不属于应用白名单"}},
      {0x501, std::string("a\0b", 3), {illegal + "a"}, {"a不属于应用白名单"}},
      {0x1001,
       "--title hi you",
       {" got SANDBOX_TO_LOCAL message from server"},
       {"sdpPopup.sh", "--title", "hi", "you"}},
      {0x1012, "x", {" got SDP_PROTO_OPEN_SANDBOX message from server"}, {}},
      {0x1013, "x", {" got SDP_PROTO_CLOSE_SANDBOX message from server"}, {}},
      {0x0, "x", {}, {}},
      {0x1005, "1005abc\n", {}, {}},
      {0x1113, "id=1", {}, {}},
      {0xabcd, "", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "code 0x" << std::hex << c.code << " body " << c.body);
    std::stringstream first;
    first << " got message from server cmd 0x:" << std::hex << c.code;
    Lines want = {first.str()};
    want.insert(want.end(), c.then.begin(), c.then.end());
    EXPECT_EQ(Exchange({{2, c.code, c.body}}), want);
    Lines call = c.call;
    if (c.code == 0x501) call.insert(call.begin(), notify.begin(), notify.end());
    EXPECT_TRUE(call.empty() || Called(call[0], Lines(call.begin() + 1, call.end())));
  }
  // The pop-up fake marks its end 0.4 s after its call: had the loop not
  // waited for it, the sentinel's line would have come first.
  bool popupEnded = false;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/tmp/rec/sdpPopup.sh", ec))
    popupEnded |= e.path().extension() == ".done";
  EXPECT_TRUE(popupEnded);
}

// The shell sees the bodies unquoted (the peer is trusted): a body that reads
// the shell's own command line shows the exact text the daemon formatted.
TEST_F(DaemonCommands, PortalAndNotificationCommandLinesKeepTheirDoubleBlanks) {
  const std::string portal = "; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/portal.cmdline; true";
  const std::string notify =
      "x; tr '\\0' '\\n' < /proc/$$/cmdline > /tmp/rec/notify.cmdline; true #";
  Exchange({{2, 0x306, portal}, {2, 0x501, notify}});
  EXPECT_EQ(e2e::ReadFile("/tmp/rec/portal.cmdline"),
            "/bin/sh\n-c\n/opt/apps/morvasta/dravinSSO.sh  " + portal + "\n");
  EXPECT_EQ(e2e::ReadFile("/tmp/rec/notify.cmdline"),
            "/bin/sh\n-c\nnotify-send -i info -t 5000  非法访问  " + notify + "不属于应用白名单\n");
}

TEST_F(DaemonCommands, ShellCommandIsKilledAfterThreeSecondsAndTheLoopGoesOn) {
  const auto start = std::chrono::steady_clock::now();
  const auto lines = Exchange(
      {{2, 0x301, "sleep 4; touch /tmp/rec/late"}, {2, 0x301, "touch /tmp/rec/next"}}, 10s);
  const auto took = std::chrono::steady_clock::now() - start;
  const std::string got = " got message from server cmd 0x:301";
  EXPECT_EQ(lines, (Lines{got, " got SANDBOX_S2B_OPENBSAPP message from server res:-4 ", got,
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

TEST_F(DaemonCommands, FramesOfOtherMainCommandsAreIgnoredSilently) {
  EXPECT_EQ(Exchange({{1, 0x301, "touch /tmp/rec/from-cmd-1"},
                      {1, 0x306, "https://portal.example/cmd1"},
                      {0, 0x303, ""},
                      {3, 0x1012, ""}}),
            Lines{});
  EXPECT_FALSE(e2e::Exists("/tmp/rec/from-cmd-1"));
  EXPECT_FALSE(Called("dravinSSO.sh", {"https://portal.example/cmd1"}));
}

TEST_F(DaemonCommands, HeartbeatRepliesAreLoggedFirstSixthEleventh) {
  const std::string hb = " got message from server cmd 0x:1111";
  const std::string sampled = " got heatbeat message from server";
  Lines want;
  for (int i = 1; i <= 11; ++i) {
    want.push_back(hb);
    if (i % 5 == 1) want.push_back(sampled);
  }
  EXPECT_EQ(Exchange(Frames(11, {2, 0x1111, ""})), want);
  // The count goes on across batches: the 16th is the next one logged.
  EXPECT_EQ(Exchange(Frames(5, {2, 0x1111, "ignored"})), (Lines{hb, hb, hb, hb, hb, sampled}));
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

}  // namespace
