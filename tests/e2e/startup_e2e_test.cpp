// Start-up of the real daemon: the retries while the sandbox id or the peer
// is missing, the registration, the heartbeat and its address cache, and the
// launchers placed before the first command.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "shared_run.h"

namespace {

using namespace std::chrono_literals;
using sdppeer::Frame;

constexpr uint16_t kRegister = 0x1005;
bool IsHeartbeat(const Frame& f) { return f.s_cmd == 0x1111; }

TEST(StartupRetries, RetriesEveryThreeSecondsUntilIdAndPeerAreThere) {
  e2e::PrepareInstallation("");  // no safespace.ini yet
  sdppeer::PeerServer peer;      // not listening yet
  e2e::Daemon daemon;
  ASSERT_TRUE(daemon.Started());
  // Attempt 1: no file. Attempt 2: an empty id, and the channel is not touched.
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 1));
  e2e::WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 2));
  EXPECT_EQ(daemon.Count("Read sandbox id is :"), 1);
  EXPECT_EQ(daemon.Count("Init Socket ret:"), 0);
  // Attempt 3: an id but no peer. Attempt 4: the peer is there.
  e2e::WriteFile(sdp_paths::kSafespaceIni, "[SafeWorkSpace]\nSandboxID=abc\n");
  ASSERT_TRUE(daemon.WaitLog("init error...", 6s, 3));
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  ASSERT_TRUE(peer.WaitFrame(kRegister, 6s).has_value());
  ASSERT_TRUE(daemon.WaitLog("init finish..", 2s));

  // Each failed attempt logs its cause, then "init error..."; the first
  // attempt ends 3 s after start, the others 3 s apart.
  const std::string idError = std::string("Read sandbox id error :") + sdp_paths::kSafespaceIni;
  std::vector<std::string> sequence;
  std::vector<int64_t> times;
  for (const auto& l : daemon.Log()) {
    const bool mark =
        l.text == "setupSignal done." || l.text == "init error..." || l.text == "init finish..";
    if (mark || l.text == idError || l.text.rfind("initDaemonClient:", 0) == 0)
      sequence.push_back(l.text);
    if (mark) times.push_back(l.micros);
  }
  EXPECT_EQ(sequence, (std::vector<std::string>{
                          "setupSignal done.", idError, "init error...", idError, "init error...",
                          std::string("initDaemonClient:") + sdp_paths::kDaemonSocket + " failed",
                          "init error...", "init finish.."}));
  ASSERT_EQ(times.size(), 5u);
  for (size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], 2900000) << "attempt " << i;
    EXPECT_LE(times[i] - times[i - 1], 4500000) << "attempt " << i;
  }
  EXPECT_EQ(e2e::SanitizerReport(daemon.Stderr()), "");
}

// Everything in place when the daemon starts.
class DaemonStartup : public e2e::SharedRun {
 protected:
  // A desktop user, a resource, a policy item and a whitelist entry with their
  // system launchers, a launcher of the client's own, and one left by an
  // earlier run; logs of an earlier run and of another program, each larger
  // than the daemon's log budget (sparse).
  static void SetUpTestSuite() {
    for (const char* name : {kOldOwnLog, kOtherLog}) {
      const std::string path = std::string(sdp_paths::kLogDir) + "/" + name;
      e2e::WriteFile(path, "");
      std::filesystem::resize_file(path, 200u << 20);
    }
    e2e::WriteFile(sdp_paths::kUserinfoIni,
                   "[UserInfo]\nSysUserName=alice\n[Aum]\nweb1=https://web1.example/\n"
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
                   "[Desktop Entry]\nName=Client tool\n");
    e2e::WriteFile("/home/alice/Desktop/stale.desktop", "[Desktop Entry]\nName=Old\n");
    e2e::WriteFile(sdp_paths::kRecordOldAppNames, "/home/alice/Desktop/stale.desktop\n");
    StartRun();
  }

  static constexpr char kOldOwnLog[] = "tolvarind.info.20200101-000000.7";
  static constexpr char kOtherLog[] = "ventrald.info.20200101-000000.7";
};

TEST_F(DaemonStartup, RemovesItsOwnOldLogsOverTheBudgetAndNothingElse) {
  const std::string dir = std::string(sdp_paths::kLogDir) + "/";
  EXPECT_TRUE(e2e::WaitUntil([&] { return !e2e::Exists(dir + kOldOwnLog); }, 5s));
  EXPECT_TRUE(e2e::Exists(dir + kOtherLog));
  EXPECT_EQ(daemon_->Count(std::string("log directory over its budget, removed ") + kOldOwnLog), 1);
}

TEST_F(DaemonStartup, RegistersOnceThenHeartbeatsEveryThreeSecondsReprobingOnTheSixth) {
  auto reg = peer_->WaitFrame(kRegister, 8s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_EQ(reg->Bytes(), std::string("\0\0\x01\0\x05\x10\x09\0"
                                      "1005abc\n\0",
                                      17));
  auto first = peer_->WaitFrame(IsHeartbeat, 8s);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->m_cmd, 1);
  EXPECT_EQ(first->msglen, 13);
  // A new address is seen only once the caches are cleared, after the fifth.
  ASSERT_EQ(std::system("PATH=$PATH:/usr/sbin:/sbin; ip addr flush dev vtest0 && "
                        "ip addr add 10.0.0.7/24 dev vtest0 && "
                        "ip route add default via 10.0.0.1 dev vtest0 onlink"),
            0);
  auto beats = peer_->WaitFrames(6, 22s, IsHeartbeat);
  ASSERT_EQ(beats.size(), 6u);
  for (size_t i = 0; i < beats.size(); ++i) {
    EXPECT_EQ(beats[i].body, i < 5 ? "abc#10.0.0.5#" : "abc#10.0.0.7#") << "heartbeat " << i + 1;
    if (i > 0) {
      EXPECT_GE(beats[i].arrival - beats[i - 1].arrival, 2800ms) << "before heartbeat " << i + 1;
      EXPECT_LE(beats[i].arrival - beats[i - 1].arrival, 3800ms) << "before heartbeat " << i + 1;
    }
  }
  // All on one connection, with one registration.
  int registrations = 0;
  for (const auto& f : peer_->Frames()) {
    registrations += f.s_cmd == kRegister;
    EXPECT_EQ(f.connection, reg->connection);
  }
  EXPECT_EQ(registrations, 1);
  EXPECT_EQ(daemon_->Count("Read sandbox id is :abc"), 1);
  EXPECT_EQ(daemon_->Count("init error..."), 0);
}

TEST_F(DaemonStartup, PlacesLaunchersBeforeTheFirstCommand) {
  ASSERT_TRUE(daemon_->WaitLog("deal user resource size:1", 10s, 1, "error"));
  const std::vector<std::string> placed = {
      "/home/alice/Desktop/calc.desktop",  "/home/alice/Desktop/client-tool.desktop",
      "/home/alice/Desktop/gedit.desktop", "/usr/share/applications/client-tool.desktop",
      "/home/alice/Desktop/web1.desktop",  "/usr/share/applications/web1.desktop"};
  const std::string record = e2e::ReadFile(sdp_paths::kRecordOldAppNames);
  for (const auto& path : placed) {
    EXPECT_TRUE(e2e::Exists(path)) << path;
    EXPECT_NE(record.find(path + "\n"), std::string::npos) << path;
  }
  // The old launchers were cleared before any was placed; the whitelist's
  // come before the resources'.
  EXPECT_FALSE(e2e::Exists("/home/alice/Desktop/stale.desktop"));
  EXPECT_EQ(record.find("stale"), std::string::npos);
  EXPECT_LT(record.find("gedit.desktop"), record.find("web1.desktop"));
  EXPECT_FALSE(e2e::Exists("/home/alice/Desktop/web2.desktop"));
  // The resource's launcher runs its address through the web script.
  EXPECT_NE(e2e::ReadFile("/home/alice/Desktop/web1.desktop")
                .find("\nExec=/opt/apps/morvasta/dravinAum.sh web1\n"),
            std::string::npos);
}

}  // namespace
