// The daemon's start-up on a broken installation and broken input files: no
// log directory or helper programs, and resource, policy and whitelist files
// that are huge, cut short or rewritten while they are read. Nothing stops
// the daemon from reaching its command loop, and the record always lists
// every launcher file the daemon created.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "fault_support.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;

const std::string kApps = sdp_paths::kSystemApplicationsDir;
const std::string kDesk = std::string(fault::kDesktop) + "/";

// Regular files in the desktop and the system applications directory but
// those in `except`.
std::set<std::string> LauncherFiles(const std::set<std::string>& except = {}) {
  std::set<std::string> files;
  std::error_code ec;
  for (const std::string& dir : {kDesk, kApps})
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
      if (e.is_regular_file(ec) && !e.is_symlink(ec) && !except.count(e.path().string()))
        files.insert(e.path().string());
  return files;
}

// The loop runs, the daemon is clean, and the record lists every launcher
// file created, each once, and nothing else.
void ExpectLoopRunsAndRecordIs(fault::DaemonRun& run, const std::set<std::string>& created) {
  EXPECT_TRUE(run.RunsCommand("after-start"));
  EXPECT_EQ(run.SanitizerReport(), "");
  std::istringstream record(e2e::ReadFile(sdp_paths::kRecordOldAppNames));
  std::multiset<std::string> recorded;
  for (std::string line; std::getline(record, line);) recorded.insert(line);
  EXPECT_EQ(std::set<std::string>(recorded.begin(), recorded.end()), created);
  EXPECT_EQ(recorded.size(), created.size());
}

TEST(BareInstallation, RunsWithoutLogDirectoryScriptsOrNotifySend) {
  e2e::PrepareInstallation("abc");
  ASSERT_EQ(rmdir(sdp_paths::kLogDir), 0);
  ASSERT_EQ(unlink(sdp_paths::kSsoScript), 0);
  ASSERT_EQ(unlink(sdp_paths::kPopupScript), 0);
  ASSERT_EQ(unlink((std::string(e2e::kFakeBinDir) + "/notify-send").c_str()), 0);

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  auto& peer = run.peer();
  const uint64_t conn = peer.CurrentConnection();
  ASSERT_TRUE(peer.WaitFrame(
      [&](const sdppeer::Frame& f) { return f.connection == conn && f.s_cmd == 0x1111; }, 5s));
  ASSERT_TRUE(peer.SendFrame(2, 0x306, "https://portal"));
  ASSERT_TRUE(peer.SendFrame(2, 0x1001, "title body"));
  ASSERT_TRUE(peer.SendFrame(2, 0x501, "app"));
  EXPECT_TRUE(run.RunsCommand("bare"));
  // A lost connection is found again without a log to write to.
  const uint64_t accepted = peer.AcceptedCount();
  peer.CloseConnection();
  ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 3s));
  EXPECT_TRUE(run.RunsCommand("bare-again"));
  EXPECT_FALSE(e2e::Exists(sdp_paths::kLogDir));
  EXPECT_EQ(run.SanitizerReport(), "");
}

// `count` copies of `pattern` joined by `sep`, each '#' replaced by 0, step,
// 2 * step...
std::string Repeat(const std::string& pattern, int count, int step = 1, const char* sep = "") {
  std::string out;
  for (int i = 0; i < count * step; i += step) {
    out += i ? sep : "";
    for (char c : pattern) out += c == '#' ? std::to_string(i) : std::string(1, c);
  }
  return out;
}

// 10,000 resources: every 50th wants an icon, the one after it too but has
// no name, and every 100th has an address.
const std::string kResources =
    R"({"GatewayConfig":[)" +
    Repeat(R"({"isCreateIconInSandbox":1,"AppName":"Resource #","source":"res#"},)"
           R"({"isCreateIconInSandbox":1,"source":"noname#"})" +
               Repeat(R"(,{"isCreateIconInSandbox":0,"AppName":"Hidden","source":"hidden"})", 48),
           200, 50, ",") +
    "]}";
const std::string kAumLines = Repeat("res#=https://res#.example/\n", 100, 100);
// A policy of 10,000 applications for the sandbox, and one for another.
const std::string kPolicy =
    R"({"policy":{"PolicySandBox":[{"policyname":"big","policyid":"abc","sandBox":{)"
    R"("boxAllowProcess":[)" +
    Repeat(R"({"value":"/usr/bin/app#","id":"#","name":"App #","type":1})", 10000, 1, ",") +
    R"(]}},{"policyname":"other","policyid":"zzz","sandBox":{"boxAllowProcess":[]}}]}})";
const std::string kWhitelist = "enabled=1\n" + Repeat("/usr/bin/wl#\n", 10000);

// System entries for every 200th application and every 500th whitelist
// line, and three of the client's own.
class BrokenFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& f : LauncherFiles()) std::remove(f.c_str());  // an earlier test's
    e2e::PrepareInstallation("abc");
    fault::PrepareDesktopUser(kAumLines);
    for (int j = 0; j < 10000; j += 200)
      e2e::WriteFile(kApps + "app" + std::to_string(j) + ".desktop", "[Desktop Entry]\n");
    for (int k = 0; k < 10000; k += 500)
      e2e::WriteFile(kApps + "wl" + std::to_string(k) + ".desktop", "[Desktop Entry]\n");
    for (const char* name : {"tool-a", "tool-b", "tool-c"})
      e2e::WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/" + name + ".desktop",
                     "[Desktop Entry]\n");
    before_ = LauncherFiles();
  }
  std::set<std::string> before_;
  const std::set<std::string> tools_ = {kDesk + "tool-a.desktop", kDesk + "tool-b.desktop",
                                        kDesk + "tool-c.desktop", kApps + "tool-a.desktop",
                                        kApps + "tool-b.desktop", kApps + "tool-c.desktop"};
};

TEST_F(BrokenFiles, TenThousandEntriesGiveEveryLauncherAndARecordOfAll) {
  e2e::WriteFile(sdp_paths::kResourceJson, kResources);
  e2e::WriteFile(sdp_paths::kPolicyJson, kPolicy);
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, kWhitelist);
  fault::DaemonRun run;
  ASSERT_EQ(run.Start(90s), "");
  EXPECT_EQ(run.daemon().Count("deal user resource size:200", "error"), 1);

  std::set<std::string> want = tools_;
  for (int j = 0; j < 10000; j += 200) want.insert(kDesk + "app" + std::to_string(j) + ".desktop");
  for (int k = 0; k < 10000; k += 500) want.insert(kDesk + "wl" + std::to_string(k) + ".desktop");
  for (int i = 0; i < 10000; i += 100) {
    want.insert(kDesk + "res" + std::to_string(i) + ".desktop");
    want.insert(kApps + "res" + std::to_string(i) + ".desktop");
  }
  EXPECT_EQ(LauncherFiles(before_), want);
  ExpectLoopRunsAndRecordIs(run, want);
}

TEST_F(BrokenFiles, FilesCutShortAreReportedAndTheLoopStarts) {
  e2e::WriteFile(sdp_paths::kResourceJson, kResources.substr(0, kResources.size() / 2));
  e2e::WriteFile(sdp_paths::kPolicyJson, kPolicy.substr(0, kPolicy.size() - 3));
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/wl0\n/usr/bin/wl5");
  // Cut inside the addresses. (The user's name must stay whole: without it
  // the desktop directory would be the file-system root.)
  const std::string userinfo = e2e::ReadFile(sdp_paths::kUserinfoIni);
  e2e::WriteFile(sdp_paths::kUserinfoIni, userinfo.substr(0, userinfo.find("res100=") + 10));
  fault::DaemonRun run;
  ASSERT_EQ(run.Start(60s), "");
  auto& daemon = run.daemon();
  EXPECT_EQ(daemon.Count("GatewayConfig not find!!"), 1);
  EXPECT_EQ(daemon.Count("read userinfo failed!", "error"), 1);
  EXPECT_EQ(daemon.Count("not find param [policy]", "warning"), 1);
  EXPECT_EQ(daemon.Count("_readWListClient insert:/usr/bin/wl5"), 1);
  std::set<std::string> want = tools_;
  want.insert(kDesk + "wl0.desktop");
  EXPECT_EQ(LauncherFiles(before_), want);
  ExpectLoopRunsAndRecordIs(run, want);
}

TEST_F(BrokenFiles, FilesRewrittenWhileReadStillGiveARecordOfEveryLauncher) {
  // Another thread rewrites the files in place, over and over, in small
  // pieces, with the full text or a beginning of it. userinfo.ini stays as it
  // is: cut before the user's name, it would make the file-system root the
  // desktop directory.
  const std::pair<const char*, std::string> files[] = {
      {sdp_paths::kResourceJson, kResources},
      {sdp_paths::kPolicyJson, kPolicy},
      {sdp_paths::kWhitelistClientConf, kWhitelist}};
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::thread rewriter([&] {
    for (; !stop; ++rounds) {
      for (const auto& [path, full] : files) {
        const size_t len = rounds % 4 == 0 ? full.size() : full.size() * (rounds % 4) / 5;
        const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        for (size_t off = 0; fd >= 0 && off < len && !stop; off += 4096) {
          if (write(fd, full.data() + off, std::min<size_t>(4096, len - off)) < 0) break;
          sched_yield();
        }
        if (fd >= 0) close(fd);
      }
    }
  });
  fault::DaemonRun run;
  const std::string started = run.Start(90s);
  stop = true;
  rewriter.join();
  ASSERT_EQ(started, "");
  EXPECT_GT(rounds.load(), 1);
  ExpectLoopRunsAndRecordIs(run, LauncherFiles(before_));
}

}  // namespace
