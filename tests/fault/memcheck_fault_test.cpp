// The daemon's end-to-end run under valgrind memcheck: start-up with
// launchers to place and an old record to clear, every command code, garbage
// and a peer restart, then a termination signal. The binary the harness
// starts here is a wrapper that runs the real daemon under memcheck, which
// exits with 99 on any invalid access and on any definite or indirect leak.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>
#include <string>

#include "fault_support.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;

TEST(DaemonUnderMemcheck, FullRunHasNoInvalidAccessAndNoLeak) {
  e2e::PrepareInstallation("abc");
  fault::PrepareDesktopUser("web1=https://web1.example/\n");
  e2e::WriteFile(sdp_paths::kResourceJson,
                 R"({"GatewayConfig":[{"isCreateIconInSandbox":1,"AppName":"Web","source":"web1"},)"
                 R"({"isCreateIconInSandbox":1,"source":"broken"}]})");
  e2e::WriteFile(
      sdp_paths::kPolicyJson,
      R"({"policy":{"PolicySandBox":[{"policyname":"p","policyid":"abc","sandBox":)"
      R"({"boxAllowProcess":[{"value":"/usr/bin/gedit","id":"1","name":"G","type":1}]}}]}})");
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/calc\n");
  e2e::WriteFile(std::string(sdp_paths::kSystemApplicationsDir) + "gedit.desktop",
                 "[Desktop Entry]\n");
  e2e::WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/tool.desktop",
                 "[Desktop Entry]\n");
  e2e::WriteFile("/home/alice/Desktop/old.desktop", "[Desktop Entry]\n");
  e2e::WriteFile(sdp_paths::kRecordOldAppNames, "/home/alice/Desktop/old.desktop\n");

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(60s), "");
  auto& peer = run.peer();
  auto& daemon = run.daemon();

  // Every command code (six heartbeat replies: the reply log counts them),
  // frames that are no command, and a command cut at its limit.
  for (uint16_t code : {0x303, 0x1012, 0x1013, 0x1111, 0x1111, 0x1111, 0x1111, 0x1111, 0x1111})
    ASSERT_TRUE(peer.SendFrame(2, code, ""));
  ASSERT_TRUE(peer.SendFrame(2, 0x301, "echo hi"));
  ASSERT_TRUE(peer.SendFrame(2, 0x306, "https://portal"));
  ASSERT_TRUE(peer.SendFrame(2, 0x501, std::string("app\0tail", 8)));
  ASSERT_TRUE(peer.SendFrame(2, 0x1001, "title body"));
  ASSERT_TRUE(peer.SendFrame(2, 0x777, "unknown"));
  ASSERT_TRUE(peer.SendFrame(2, 0x301, "sleep 10"));
  ASSERT_TRUE(peer.SendFrame(1, 0x301, "touch /tmp/fault/never"));
  ASSERT_TRUE(run.RunsCommand("commands-done", 60s));

  // An oversize header, a half frame, a restart: each loses the connection.
  uint64_t accepted = peer.AcceptedCount();
  ASSERT_TRUE(peer.SendRaw(sdppeer::EncodeHeader(0, 2, 0x1001, 64504)));
  ASSERT_TRUE(peer.WaitAccepted(++accepted, 10s));
  ASSERT_TRUE(peer.SendRaw(sdppeer::EncodeHeader(0, 2, 0x301, 100) + "half"));
  peer.CloseConnection();
  ASSERT_TRUE(peer.WaitAccepted(++accepted, 10s));
  peer.CloseConnection();
  peer.StopListening();
  ASSERT_TRUE(peer.Restart());
  ASSERT_TRUE(peer.WaitAccepted(++accepted, 10s));
  const uint64_t conn = peer.CurrentConnection();
  ASSERT_TRUE(peer.WaitFrame(
      [&](const sdppeer::Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 15s));
  ASSERT_TRUE(run.RunsCommand("last", 20s));
  EXPECT_FALSE(e2e::Exists("/tmp/fault/never"));

  ASSERT_TRUE(daemon.Signal(SIGTERM));
  const auto status = daemon.WaitExit(60s);
  ASSERT_TRUE(status.has_value()) << "still running after SIGTERM";
  const std::string report =
      e2e::ReadFile("/tmp/memcheck." + std::to_string(daemon.pid()) + ".log");
  std::smatch m;
  for (const char* what :
       {"definitely lost: [^\n]*", "indirectly lost: [^\n]*", "ERROR SUMMARY: [^\n]*"})
    if (std::regex_search(report, m, std::regex(what)))
      std::printf("memcheck: %s\n", m.str().c_str());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << report;
  EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
}

}  // namespace
