// The long runs: a peer that restarts over and over while it floods the
// daemon with commands, and start-ups on 10,000-entry input files that are
// whole or cut short.
// SOAK_RESTARTS, DAEMON_THREADS come from the build.
#include <algorithm>
#include <array>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "daemon_harness.h"
#include "sdp_paths.h"

namespace {

using namespace harness;
using Clock = std::chrono::steady_clock;
using Files = std::set<std::string>;
namespace fs = std::filesystem;

// Open descriptors, threads, and threads with a child process, of `pid`.
std::array<long, 3> Footprint(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::error_code ec;
  std::array<long, 3> f{std::distance(fs::directory_iterator(proc + "/fd", ec), {}), 0, 0};
  for (const auto& task : fs::directory_iterator(proc + "/task", ec)) {
    ++f[1];
    f[2] += !ReadFile(task.path().string() + "/children").empty();
  }
  return f;
}

// After every restart: a reconnection within 1.5 s and no second
// registration, then ten commands of every code, each handled once and in the
// order sent. Every tenth restart the peer first stays away until an attempt
// failed, a heartbeat must come on the new connection, and the daemon must
// hold exactly the descriptors, threads and children it held before.
TEST(PeerRestarts, ReconnectsEveryTimeAndRunsEveryCommandOnceWithFlatFootprint) {
  PrepareInstallation("abc");
  DaemonRun run;
  ASSERT_TRUE(run.Start().empty() && run.WaitLoop() && run.NextHeartbeat().has_value());
  Daemon& daemon = *run.daemon;
  sdppeer::PeerServer& peer = *run.peer;
  std::array<long, 3> base{};  // the fewest descriptors seen with no child over a second
  for (const auto end = Clock::now() + 1s; Clock::now() < end || base[0] == 0;
       std::this_thread::sleep_for(20ms)) {
    const auto f = Footprint(daemon.pid());
    if (f[2] == 0 && (base[0] == 0 || f[0] < base[0])) base = f;
  }
  ASSERT_EQ(base[1], DAEMON_THREADS);  // main, signal, heartbeat, reconnect (+ TSan's)
  const std::string order = "/tmp/rec/order";
  std::string echoed;
  for (int i = 1, shells = 0; i <= SOAK_RESTARTS; ++i) {
    SCOPED_TRACE("restart " + std::to_string(i));
    const uint64_t accepted = peer.AcceptedCount();
    peer.CloseConnection();
    peer.StopListening();
    const int failed = daemon.Count("anetUnixConnect failed:", "error");
    ASSERT_TRUE(i % 10 || daemon.WaitLog("anetUnixConnect failed:", 3s, failed + 1, "error"));
    ASSERT_TRUE(peer.Restart());
    ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 1500ms));
    ASSERT_TRUE(i % 10 || run.NextHeartbeat().has_value());
    for (int code : {0x501, 0x306, 0x1111, 0x303, i % 2 ? 0x1012 : 0x1013, 0x777})
      ASSERT_TRUE(peer.SendFrame(2, code, "https://portal/" + std::to_string(i)));
    for (int k = 0; k < 4; ++k, ++shells) {
      ASSERT_TRUE(peer.SendFrame(2, 0x301, "echo " + std::to_string(shells) + " >> " + order));
      echoed += std::to_string(shells) + "\n";
    }
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(order) == echoed; }, 60s)) << ReadFile(order);
    if (i % 10 == 0 || i == SOAK_RESTARTS) {
      std::array<long, 3> now;
      WaitUntil([&] { return (now = Footprint(daemon.pid())) == base; }, 3s);
      ASSERT_EQ(now, base) << "descriptors, threads, children";
    }
  }
  const auto isRegister = [](const sdppeer::Frame& f) { return f.s_cmd == 0x1005; };
  EXPECT_EQ(peer.WaitFrames(2, 0ms, isRegister).size(), 1u);
  EXPECT_EQ(daemon.Count(" got message from server cmd 0x:777"), SOAK_RESTARTS);
  EXPECT_EQ(RecordedCalls("dravinSSO.sh").size(), size_t{SOAK_RESTARTS});
  EXPECT_EQ(RecordedCalls("notify-send").size(), size_t{SOAK_RESTARTS});
  ExpectCleanStop(daemon);
}

// `count` copies of `pattern` joined by `sep`, each '#' replaced by 0, step, 2 * step...
std::string Repeat(const std::string& pattern, int count, int step = 1, const char* sep = "") {
  std::string out;
  for (int i = 0; i < count * step; i += step) {
    out += i ? sep : "";
    for (char c : pattern) out += c == '#' ? std::to_string(i) : std::string(1, c);
  }
  return out;
}

// 10,000 resources: every 50th wants an icon, the one after it too but has no
// name, and every 100th has an address. 10,000 policy applications, and
// 10,000 whitelist lines. System entries for every 200th application and
// every 500th whitelist line, and three of the client's own. Each start first
// removes what the one before placed.
TEST(BigFiles, WholeOrCutShortTheLoopStartsWithARecordOfEveryLauncher) {
  const std::string apps = sdp_paths::kSystemApplicationsDir, desk = "/home/alice/Desktop/";
  const std::string resources =
      R"({"GatewayConfig":[)" +
      Repeat(R"({"isCreateIconInSandbox":1,"AppName":"Resource #","source":"res#"},)"
             R"({"isCreateIconInSandbox":1,"source":"noname#"})" +
                 Repeat(R"(,{"isCreateIconInSandbox":0,"AppName":"Hidden","source":"hidden"})", 48),
             200, 50, ",") +
      "]}";
  const std::string policy =
      R"({"policy":{"PolicySandBox":[{"policyname":"big","policyid":"abc","sandBox":{"boxAllowProcess":[)" +
      Repeat(R"({"value":"/usr/bin/app#","id":"#","name":"App #","type":1})", 10000, 1, ",") +
      R"(]}},{"policyname":"other","policyid":"zzz","sandBox":{"boxAllowProcess":[]}}]}})";
  const std::string whitelist = "enabled=1\n" + Repeat("/usr/bin/wl#\n", 10000);
  PrepareInstallation("abc");
  MakeDirs(desk);
  WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\n" +
                                         Repeat("res#=https://res#.example/\n", 100, 100) +
                                         "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
  for (int j = 0; j < 10000; j += 200) WriteFile(apps + "app" + std::to_string(j) + ".desktop", "");
  for (int k = 0; k < 10000; k += 500) WriteFile(apps + "wl" + std::to_string(k) + ".desktop", "");
  for (const char* tool : {"tool-a", "tool-b", "tool-c"})
    WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/" + tool + ".desktop", "");
  Files before;
  // Regular files on the desktop and in the system directory, but those from before.
  const auto launchers = [&] {
    Files files;
    std::error_code ec;
    for (const std::string& dir : {desk, apps})
      for (const auto& e : fs::directory_iterator(dir, ec))
        if (e.is_regular_file(ec) && !e.is_symlink(ec) && !before.count(e.path().string()))
          files.insert(e.path().string());
    return files;
  };
  before = launchers();
  // A command that ran marks the end of start-up. The daemon stops cleanly,
  // and its record lists every launcher file there, each once, and nothing else.
  DaemonRun run;
  const auto startAndStop = [&] {
    run = DaemonRun();
    ASSERT_TRUE(run.Start().empty() && run.RunsCommand("ready", 90s));
    ExpectCleanStop(*run.daemon);
    std::istringstream record(ReadFile(sdp_paths::kRecordOldAppNames));
    std::multiset<std::string> recorded, placed;
    for (std::string line; std::getline(record, line);) recorded.insert(line);
    for (const auto& file : launchers()) placed.insert(file);
    EXPECT_EQ(recorded, placed);
  };

  WriteFile(sdp_paths::kResourceJson, resources);
  WriteFile(sdp_paths::kPolicyJson, policy);
  WriteFile(sdp_paths::kWhitelistClientConf, whitelist);
  ASSERT_NO_FATAL_FAILURE(startAndStop());
  EXPECT_EQ(run.daemon->Count("deal user resource size:200", "error"), 1);
  // Each tool twice, 50 applications, 20 whitelist lines, 100 resources twice.
  EXPECT_EQ(launchers().size(), 276u);
  // The whitelist's launchers come before the resources'.
  const std::string record = ReadFile(sdp_paths::kRecordOldAppNames);
  EXPECT_LT(record.rfind(desk + "wl"), record.find(desk + "res"));
  EXPECT_NE(
      ReadFile(desk + "res100.desktop").find("\nExec=/opt/apps/morvasta/dravinAum.sh res100\n"),
      std::string::npos);

  WriteFile(sdp_paths::kResourceJson, resources.substr(0, resources.size() / 2));
  WriteFile(sdp_paths::kPolicyJson, policy.substr(0, policy.size() - 3));
  WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/wl0\n/usr/bin/wl5");
  ASSERT_NO_FATAL_FAILURE(startAndStop());
  EXPECT_EQ(run.daemon->Count("GatewayConfig not find!!"), 1);
  EXPECT_EQ(run.daemon->Count("read userinfo failed!", "error"), 1);
  EXPECT_EQ(run.daemon->Count("not find param [policy]", "warning"), 1);
  EXPECT_EQ(run.daemon->Count("_readWListClient insert:/usr/bin/wl5"), 1);
  EXPECT_EQ(launchers().size(), 7u);  // the tools and wl0, whose line ended
  EXPECT_TRUE(Exists(desk + "wl0.desktop"));
}

}  // namespace
