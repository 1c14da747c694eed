// Start-up of the real daemon: the retry every 3 seconds while the sandbox id
// or the peer is missing, the registration, the heartbeat and its address
// cache, and the launchers placed before the first command.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
using e2e::Daemon;
using sdppeer::Frame;
using sdppeer::PeerServer;

constexpr uint16_t kRegister = 0x1005;
constexpr uint16_t kHeartbeat = 0x1111;

bool IsRegistration(const Frame& f) { return f.s_cmd == kRegister; }
bool IsHeartbeat(const Frame& f) { return f.s_cmd == kHeartbeat; }

std::vector<std::string> Texts(const std::vector<e2e::LogLine>& lines) {
  std::vector<std::string> out;
  for (const auto& l : lines) out.push_back(l.text);
  return out;
}

// ---------------------------------------------------------------------------

TEST(StartupRetries, RetriesEveryThreeSecondsUntilIdAndPeerAreThere) {
  e2e::PrepareInstallation("");  // no safespace.ini yet
  PeerServer peer;               // not listening yet
  Daemon daemon;
  ASSERT_TRUE(daemon.Started());
  const std::string idError = std::string("Read sandbox id error :") + sdp_paths::kSafespaceIni;

  // 1st attempt: no file.
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 1));
  EXPECT_EQ(daemon.Count(idError, "error"), 1);
  EXPECT_EQ(daemon.Count("Read sandbox id is :"), 0);

  // 2nd attempt: the key is there but empty; the channel is not touched.
  e2e::WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 2));
  EXPECT_EQ(daemon.Count(idError, "error"), 2);
  EXPECT_EQ(daemon.Count("Read sandbox id is :"), 1);
  EXPECT_EQ(daemon.Count("Init Socket ret:"), 0);

  // 3rd attempt: an id, but no peer listening.
  e2e::WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=abc\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 3));
  EXPECT_EQ(daemon.Count(std::string("initDaemonClient:") + sdp_paths::kDaemonSocket + " failed",
                         "error"),
            1);

  // 4th attempt: the peer is there.
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  auto reg = peer.WaitFrame(IsRegistration, 6s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_EQ(reg->body, std::string("1005abc\n\0", 9));
  ASSERT_TRUE(daemon.WaitLog("init finish..", 2s));
  EXPECT_EQ(daemon.Count("init error..."), 3);

  // Each failed attempt logs its cause, then "init error..."; attempts are
  // 3 seconds apart, the first one 3 seconds after start.
  std::vector<std::string> sequence;
  std::vector<int64_t> attempts;
  for (const auto& l : daemon.Log()) {
    if (l.text == "setupSignal done." || l.text == "init error..." || l.text == idError ||
        l.text.rfind("initDaemonClient:", 0) == 0 || l.text == "init finish..")
      sequence.push_back(l.text);
    if (l.text == "init error..." || l.text == "init finish..") attempts.push_back(l.micros);
  }
  EXPECT_EQ(sequence, (std::vector<std::string>{
                          "setupSignal done.", idError, "init error...", idError, "init error...",
                          std::string("initDaemonClient:") + sdp_paths::kDaemonSocket + " failed",
                          "init error...", "init finish.."}));
  ASSERT_EQ(attempts.size(), 4u);
  for (size_t i = 1; i < attempts.size(); ++i) {
    EXPECT_GE(attempts[i] - attempts[i - 1], 2900000) << "attempt " << i;
    EXPECT_LE(attempts[i] - attempts[i - 1], 4500000) << "attempt " << i;
  }
  EXPECT_EQ(e2e::SanitizerReport(daemon.Stderr()), "");
}

// ---------------------------------------------------------------------------
// Everything in place when the daemon starts: one run shared by the checks.

class DaemonStartup : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    e2e::PrepareInstallation("abc");
    PlaceLauncherInputs();
    peer_ = new PeerServer();
    std::string error;
    if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) {
      setupError_ = "peer: " + error;
      return;
    }
    daemon_ = new Daemon();
    if (!daemon_->Started()) setupError_ = "daemon did not start";
  }

  static void TearDownTestSuite() {
    if (daemon_) {
      const std::string report = e2e::SanitizerReport(daemon_->Stderr());
      EXPECT_EQ(report, "");
    }
    delete daemon_;
    delete peer_;
    daemon_ = nullptr;
    peer_ = nullptr;
  }

  void SetUp() override { ASSERT_EQ(setupError_, ""); }

  // A desktop user, a resource, a policy item and a whitelist entry with
  // their system entries, a launcher of the client's own, and a launcher left
  // by an earlier run.
  static void PlaceLauncherInputs() {
    e2e::WriteFile(sdp_paths::kUserinfoIni,
                   "[UserInfo]\nSysUserName=alice\n"
                   "[Aum]\nweb1=https://web1.example/\n"
                   "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
    e2e::MakeDirs("/home/alice/Desktop");
    e2e::WriteFile(sdp_paths::kResourceJson,
                   R"({"GatewayConfig":[)"
                   R"({"isCreateIconInSandbox":1,"AppName":"Web One","source":"web1"},)"
                   R"({"isCreateIconInSandbox":0,"AppName":"Hidden","source":"web2"}]})");
    e2e::WriteFile(sdp_paths::kPolicyJson,
                   R"({"policy":{"PolicySandBox":[{"policyname":"p1","policyid":"abc",)"
                   R"("sandBox":{"boxAllowProcess":[)"
                   R"({"value":"/usr/bin/gedit","id":"7","name":"Gedit","type":1}]}}]}})");
    e2e::WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/calc\n");
    e2e::WriteFile("/usr/share/applications/gedit.desktop", "[Desktop Entry]\nName=Gedit\n");
    e2e::WriteFile("/usr/share/applications/calc.desktop", "[Desktop Entry]\nName=Calc\n");
    e2e::WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client-tool.desktop",
                   "[Desktop Entry]\nName=Client tool\n", 0644);
    e2e::WriteFile("/home/alice/Desktop/stale.desktop", "[Desktop Entry]\nName=Old\n");
    e2e::WriteFile(sdp_paths::kRecordOldAppNames, "/home/alice/Desktop/stale.desktop\n");
  }

  static inline PeerServer* peer_ = nullptr;
  static inline Daemon* daemon_ = nullptr;
  static inline std::string setupError_;
};

TEST_F(DaemonStartup, RegistersOnceWithIdLineFeedAndNul) {
  auto reg = peer_->WaitFrame(IsRegistration, 8s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_EQ(reg->Bytes(), std::string("\0\0\x01\0\x05\x10\x09\0"
                                      "1005abc\n\0",
                                      17));
  // Heartbeats follow on the same connection; nothing registers again.
  ASSERT_EQ(peer_->WaitFrames(2, 8s, IsHeartbeat).size(), 2u);
  int registrations = 0;
  for (const auto& f : peer_->Frames()) {
    if (IsRegistration(f)) ++registrations;
    EXPECT_EQ(f.connection, reg->connection);
  }
  EXPECT_EQ(registrations, 1);
  EXPECT_EQ(daemon_->Count("Read sandbox id is :abc"), 1);
  EXPECT_EQ(daemon_->Count("init error..."), 0);
}

TEST_F(DaemonStartup, HeartbeatsEveryThreeSecondsAndReprobeAddressesOnTheSixth) {
  auto first = peer_->WaitFrame(IsHeartbeat, 8s);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->m_cmd, 1);
  EXPECT_EQ(first->body, "abc#10.0.0.5#");
  EXPECT_EQ(first->msglen, 13);

  // A new address now is seen only when the caches are cleared, after the
  // fifth heartbeat.
  ASSERT_TRUE(e2e::Ip("addr flush dev vtest0"));
  ASSERT_TRUE(e2e::Ip("addr add 10.0.0.7/24 dev vtest0"));
  ASSERT_TRUE(e2e::Ip("route add default via 10.0.0.1 dev vtest0 onlink"));

  auto beats = peer_->WaitFrames(6, 22s, IsHeartbeat);
  ASSERT_EQ(beats.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(beats[i].body, "abc#10.0.0.5#") << "heartbeat " << i + 1;
  EXPECT_EQ(beats[5].body, "abc#10.0.0.7#");
  for (size_t i = 1; i < beats.size(); ++i) {
    const auto gap = beats[i].arrival - beats[i - 1].arrival;
    EXPECT_GE(gap, 2800ms) << "before heartbeat " << i + 1;
    EXPECT_LE(gap, 3800ms) << "before heartbeat " << i + 1;
  }
  EXPECT_GE(daemon_->Count("send heart beat"), 6);
}

TEST_F(DaemonStartup, PlacesLaunchersBeforeTheFirstCommand) {
  // The last start-up line: the resources have been dealt with.
  ASSERT_TRUE(daemon_->WaitLog("deal user resource size:1", 10s, 1, "error"));
  const std::vector<std::string> placed = {
      "/home/alice/Desktop/calc.desktop",  "/home/alice/Desktop/client-tool.desktop",
      "/home/alice/Desktop/gedit.desktop", "/usr/share/applications/client-tool.desktop",
      "/home/alice/Desktop/web1.desktop",  "/usr/share/applications/web1.desktop"};
  for (const auto& path : placed) EXPECT_TRUE(e2e::Exists(path)) << path;
  EXPECT_FALSE(e2e::Exists("/home/alice/Desktop/stale.desktop"));
  EXPECT_FALSE(e2e::Exists("/home/alice/Desktop/web2.desktop"));

  EXPECT_EQ(e2e::ReadFile("/home/alice/Desktop/gedit.desktop"), "[Desktop Entry]\nName=Gedit\n");
  EXPECT_EQ(e2e::FileMode("/home/alice/Desktop/client-tool.desktop"), 0755);
  const std::string web1 = e2e::ReadFile("/home/alice/Desktop/web1.desktop");
  EXPECT_NE(web1.find("\nExec=/opt/apps/morvasta/dravinAum.sh web1\n"), std::string::npos) << web1;
  EXPECT_NE(web1.find("\nName=Web One\n"), std::string::npos) << web1;
  EXPECT_EQ(e2e::ReadFile("/usr/share/applications/web1.desktop"), web1);

  // The record holds the whitelist launchers and then the resource ones: the
  // old launchers were cleared before either was placed.
  const std::string record = e2e::ReadFile(sdp_paths::kRecordOldAppNames);
  for (const auto& path : placed) EXPECT_NE(record.find(path + "\n"), std::string::npos) << path;
  EXPECT_EQ(record.find("stale"), std::string::npos);
  EXPECT_LT(record.find("gedit.desktop"), record.find("web1.desktop"));

  const auto errors = Texts(daemon_->Log("error"));
  const auto begin = std::find(errors.begin(), errors.end(), "deal user resource begin");
  ASSERT_NE(begin, errors.end());
  EXPECT_NE(std::find(begin, errors.end(), "deal user resource size:1"), errors.end());
  EXPECT_EQ(daemon_->Count("rm file:/home/alice/Desktop/stale.desktop"), 1);
}

}  // namespace
