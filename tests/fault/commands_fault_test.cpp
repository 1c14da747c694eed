// Many commands, slow commands and commands whose programs are missing, on one
// daemon run: every command is handled once, in the order sent; commands that
// arrive while a long one runs wait for it; a missing script or notify-send
// fails only its own command; a command whose output never ends is cut at its
// limit and its output's memory given back; and after a thousand commands the
// daemon holds exactly the descriptors, threads and child processes it held
// before.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "fault_support.h"
#include "sdp_paths.h"

#ifndef FAULT_DAEMON_THREADS
#define FAULT_DAEMON_THREADS 3
#endif
#ifndef FAULT_SANITIZED
#define FAULT_SANITIZED 0
#endif
#ifndef FAULT_COMMANDS
#define FAULT_COMMANDS 1000
#endif

namespace {

using namespace std::chrono_literals;
using sdppeer::Frame;

constexpr char kLoopFile[] = "tolvarind.cpp";  // source tag of the loop's lines
constexpr char kGotPrefix[] = " got message from server cmd 0x:";

std::string Hex(uint16_t code) {
  std::ostringstream s;
  s << std::hex << code;
  return s.str();
}

int LineCount(const std::string& path) {
  const std::string text = e2e::ReadFile(path);
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

class CommandFlood : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    run_ = new fault::DaemonRun();
    setupError_ = run_->Start();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(run_->SanitizerReport(), "");
    delete run_;
    run_ = nullptr;
  }
  void SetUp() override {
    ASSERT_EQ(setupError_, "");
    ASSERT_TRUE(run_->daemon().Running());
  }

  // The codes of the loop's " got message" lines, after the first `skip`.
  static std::vector<std::string> HandledCodes(size_t skip) {
    std::vector<std::string> codes;
    size_t seen = 0;
    for (const auto& l : run_->daemon().MainThreadLog(kLoopFile)) {
      if (l.text.compare(0, sizeof(kGotPrefix) - 1, kGotPrefix) != 0) continue;
      if (seen++ >= skip) codes.push_back(l.text.substr(sizeof(kGotPrefix) - 1));
    }
    return codes;
  }

  static inline fault::DaemonRun* run_ = nullptr;
  static inline std::string setupError_;
};

TEST_F(CommandFlood, ThousandMixedCommandsRunOnceInOrderWithFlatFootprint) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  ASSERT_TRUE(peer.WaitFrame(0x1111, 5s));
  const fault::Footprint base = fault::SettledFootprint(daemon.pid());
  std::printf("idle daemon: %s\n", fault::Describe(base).c_str());
  ASSERT_EQ(base.threads, FAULT_DAEMON_THREADS) << fault::Describe(base);
  ASSERT_EQ(base.children, 0) << fault::Describe(base);

  const std::string order = std::string(fault::kScratch) + "/order";
  const size_t handledBefore = HandledCodes(0).size();
  const size_t ssoBefore = e2e::RecordedCalls("dravinSSO.sh").size();
  const size_t notifyBefore = e2e::RecordedCalls("notify-send").size();
  const int beatLinesBefore = daemon.Count(" got heatbeat message from server");

  // Ten kinds in turn; each batch of fifty ends with a shell command, whose
  // line in `order` shows that the whole batch was handled.
  std::vector<std::string> sentCodes;
  int shells = 0, portals = 0, illegals = 0, beats = 0;
  constexpr int kBatch = 50;
  for (int i = 0; i < FAULT_COMMANDS; ++i) {
    uint16_t code;
    std::string body;
    switch (i % 10) {
      case 0: code = 0x501, body = "app" + std::to_string(i), ++illegals; break;
      case 1: code = 0x306, body = "https://portal/" + std::to_string(i), ++portals; break;
      case 2: code = 0x1111, ++beats; break;
      case 3: code = 0x303; break;
      case 4: code = i % 20 == 4 ? 0x1012 : 0x1013; break;
      case 5: code = 0x0777; break;  // no such command
      default: code = 0x301, body = "echo " + std::to_string(shells++) + " >> " + order;
    }
    ASSERT_TRUE(peer.SendFrame(2, code, body)) << "command " << i;
    sentCodes.push_back(Hex(code));
    if ((i + 1) % kBatch != 0 && i + 1 != FAULT_COMMANDS) continue;
    ASSERT_TRUE(e2e::WaitUntil([&] { return LineCount(order) == shells; }, 60s))
        << "batch ending at command " << i << ": " << LineCount(order) << " of " << shells;
    if ((i + 1) % (5 * kBatch) == 0 || i + 1 == FAULT_COMMANDS) {
      const fault::Footprint now = fault::WaitFootprint(daemon.pid(), base, 3s);
      ASSERT_EQ(now, base) << "after " << i + 1 << " commands: " << fault::Describe(now)
                           << "\n" << fault::DescriptorList(daemon.pid());
    }
  }

  std::string want;
  for (int n = 0; n < shells; ++n) want += std::to_string(n) + "\n";
  EXPECT_EQ(e2e::ReadFile(order), want);
  EXPECT_EQ(HandledCodes(handledBefore), sentCodes);
  EXPECT_EQ(e2e::RecordedCalls("dravinSSO.sh").size() - ssoBefore, static_cast<size_t>(portals));
  EXPECT_EQ(e2e::RecordedCalls("notify-send").size() - notifyBefore,
            static_cast<size_t>(illegals));
  // One heartbeat-reply line in five; the count runs on from earlier replies.
  EXPECT_GE(daemon.Count(" got heatbeat message from server") - beatLinesBefore, beats / 5);
  EXPECT_LE(daemon.Count(" got heatbeat message from server") - beatLinesBefore, beats / 5 + 1);
}

struct LongCase {
  const char* name;
  uint16_t code;
  const char* body;
  const char* doneLine;  // the loop's line once the long command is over
};

TEST_F(CommandFlood, CommandsSentDuringALongOneWaitForItAndRunInOrder) {
  const LongCase cases[] = {
      {"shell command cut at its limit", 0x301, "sleep 10",
       " got SANDBOX_S2B_OPENBSAPP message from server res:-4"},
      {"pop-up script of three seconds", 0x1001, "slow", " got SANDBOX_TO_LOCAL message from server"},
  };
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  e2e::WriteFile(sdp_paths::kPopupScript, "#!/bin/sh\nsleep 3\n", 0755);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string queued = std::string(fault::kScratch) + "/queued-" + std::to_string(c.code);
    const size_t handledBefore = HandledCodes(0).size();
    ASSERT_TRUE(peer.SendFrame(2, c.code, c.body));
    const std::vector<std::pair<uint16_t, std::string>> followUps = {
        {0x301, "echo 0 >> " + queued}, {0x501, "queued-app"}, {0x301, "echo 1 >> " + queued},
        {0x1012, ""},                   {0x301, "echo 2 >> " + queued}};
    for (const auto& [code, body] : followUps) ASSERT_TRUE(peer.SendFrame(2, code, body));

    // Nothing behind the long command runs while it runs...
    EXPECT_FALSE(e2e::WaitUntil([&] { return e2e::Exists(queued); }, 2s));
    // ...and afterwards everything does, in the order sent.
    ASSERT_TRUE(e2e::WaitUntil([&] { return LineCount(queued) == 3; }, 15s));
    EXPECT_EQ(e2e::ReadFile(queued), "0\n1\n2\n");

    std::vector<std::string> want = {Hex(c.code)};
    for (const auto& f : followUps) want.push_back(Hex(f.first));
    EXPECT_EQ(HandledCodes(handledBefore), want);
    // The first follow-up is taken only after the long command's last line,
    // about three seconds after the long command was taken.
    const auto lines = daemon.MainThreadLog(kLoopFile);
    int64_t longTaken = -1, longDone = -1, nextTaken = -1;
    size_t got = 0;
    for (const auto& l : lines) {
      const bool isGot = l.text.compare(0, sizeof(kGotPrefix) - 1, kGotPrefix) == 0;
      if (isGot && got++ == handledBefore) longTaken = l.micros;
      else if (isGot && got == handledBefore + 2) nextTaken = l.micros;
      if (longTaken >= 0 && longDone < 0 && l.text.compare(0, std::strlen(c.doneLine), c.doneLine) == 0)
        longDone = l.micros;
    }
    ASSERT_GE(longTaken, 0);
    ASSERT_GE(longDone, 0) << c.doneLine;
    ASSERT_GE(nextTaken, 0);
    EXPECT_LE(longDone, nextTaken);
    EXPECT_GE(nextTaken - longTaken, 2900000);
  }
  e2e::PrepareInstallation("abc");  // the recording pop-up fake again
}

TEST_F(CommandFlood, MissingScriptsAndNotifySendFailOnlyTheirOwnCommand) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  ASSERT_EQ(unlink(sdp_paths::kSsoScript), 0);
  ASSERT_EQ(unlink(sdp_paths::kPopupScript), 0);
  ASSERT_EQ(unlink((std::string(e2e::kFakeBinDir) + "/notify-send").c_str()), 0);
  const int portalResults = daemon.Count("open solmeri res: 1");
  const int popups = daemon.Count(" got SANDBOX_TO_LOCAL message from server");
  const std::string touched = std::string(fault::kScratch) + "/after-missing";

  ASSERT_TRUE(peer.SendFrame(2, 0x306, "https://portal/missing"));
  ASSERT_TRUE(peer.SendFrame(2, 0x1001, "title body"));
  ASSERT_TRUE(peer.SendFrame(2, 0x501, "missing-app"));
  ASSERT_TRUE(peer.SendFrame(2, 0x301, "touch " + touched));
  EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 15s));
  EXPECT_TRUE(daemon.Running());
  // The shell reports the missing program; the daemon only logs the result.
  EXPECT_EQ(daemon.Count("open solmeri res: 1"), portalResults + 1);
  EXPECT_EQ(daemon.Count(" got SANDBOX_TO_LOCAL message from server"), popups + 1);
  EXPECT_EQ(daemon.Count(" got SANDBOX_A2F_ILLEGAL message from server msg:missing-app"), 1);
  e2e::PrepareInstallation("abc");
}

long StatusKb(pid_t pid, const char* field) {
  const std::string status = e2e::ReadFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find(field);
  return at == std::string::npos ? -1 : std::stol(status.substr(at + std::strlen(field)));
}

TEST_F(CommandFlood, EndlessOutputIsCutAtTheLimitAndItsMemoryGoesBack) {
  auto& peer = run_->peer();
  auto& daemon = run_->daemon();
  const long before = StatusKb(daemon.pid(), "VmRSS:");
  const std::string touched = std::string(fault::kScratch) + "/after-yes";
  ASSERT_TRUE(peer.SendFrame(2, 0x301, "yes"));
  ASSERT_TRUE(peer.SendFrame(2, 0x301, "touch " + touched));
  EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 20s));
  EXPECT_TRUE(daemon.Running());
  EXPECT_GE(daemon.Count(" got SANDBOX_S2B_OPENBSAPP message from server res:-4"), 1);
  const long peak = StatusKb(daemon.pid(), "VmHWM:");
  const long after = StatusKb(daemon.pid(), "VmRSS:");
  std::printf("resident: %ld kB before, %ld kB at the peak, %ld kB after\n", before, peak, after);
#if !FAULT_SANITIZED  // a sanitizer's allocator keeps freed memory in quarantine
  EXPECT_LT(after, before + 20 * 1024);
#endif
}

}  // namespace
