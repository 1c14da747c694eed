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
#include <vector>

#include "fault_support.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;

const std::string kApps = sdp_paths::kSystemApplicationsDir;
const std::string kDesk = std::string(fault::kDesktop) + "/";
const std::string kClient = std::string(sdp_paths::kClientApplicationsDir) + "/";

// Lines of the launcher record, in order.
std::vector<std::string> RecordEntries() {
  std::vector<std::string> lines;
  std::istringstream in(e2e::ReadFile(sdp_paths::kRecordOldAppNames));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Regular files in the desktop and the system applications directory.
std::set<std::string> LauncherFiles() {
  std::set<std::string> files;
  std::error_code ec;
  for (const std::string& dir : {kDesk, kApps})
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
      if (e.is_regular_file(ec) && !e.is_symlink(ec))
        files.insert(dir + e.path().filename().string());
  return files;
}

std::set<std::string> NewLaunchers(const std::set<std::string>& before) {
  std::set<std::string> now;
  for (const auto& f : LauncherFiles())
    if (!before.count(f)) now.insert(f);
  return now;
}

// The loop runs, the daemon is clean, every launcher file it created is in
// the record, and everything the record lists exists.
void ExpectLoopRunsAndRecordCovers(fault::DaemonRun& run, const std::set<std::string>& created) {
  EXPECT_TRUE(run.RunsCommand("after-start"));
  EXPECT_EQ(run.SanitizerReport(), "");
  const std::vector<std::string> entries = RecordEntries();
  const std::set<std::string> recorded(entries.begin(), entries.end());
  for (const auto& f : created) EXPECT_TRUE(recorded.count(f)) << "not recorded: " << f;
  for (const auto& f : recorded) EXPECT_TRUE(e2e::Exists(f)) << "recorded but missing: " << f;
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

constexpr int kEntries = 10000;

// 10,000 resources: every 50th wants an icon, every 100th has an address.
std::string HugeResourceList() {
  std::string json = "{\"GatewayConfig\":[";
  for (int i = 0; i < kEntries; ++i) {
    if (i) json += ",";
    const std::string n = std::to_string(i);
    if (i % 50 == 0)
      json += R"({"isCreateIconInSandbox":1,"AppName":"Resource )" + n + R"(","source":"res)" + n +
              "\"}";
    else if (i % 50 == 1)
      json += R"({"isCreateIconInSandbox":1,"source":"noname)" + n + "\"}";
    else
      json += R"({"isCreateIconInSandbox":0,"AppName":"Hidden","source":"hidden)" + n + "\"}";
  }
  return json + "]}";
}

std::string HugeAumLines() {
  std::string lines;
  for (int i = 0; i < kEntries; i += 100)
    lines += "res" + std::to_string(i) + "=https://res" + std::to_string(i) + ".example/\n";
  return lines;
}

// One policy of 10,000 applications for the sandbox, one for another.
std::string HugePolicy() {
  std::string items;
  for (int j = 0; j < kEntries; ++j) {
    if (j) items += ",";
    const std::string n = std::to_string(j);
    items += R"({"value":"/usr/bin/app)" + n + R"(","id":")" + n + R"(","name":"App )" + n +
             R"(","type":1})";
  }
  return R"({"policy":{"PolicySandBox":[{"policyname":"big","policyid":"abc",)"
         R"("sandBox":{"boxAllowProcess":[)" +
         items +
         R"(]}},{"policyname":"other","policyid":"zzz","sandBox":{"boxAllowProcess":[]}}]}})";
}

std::string HugeWhitelist() {
  std::string lines = "enabled=1\n";
  for (int k = 0; k < kEntries; ++k) lines += "/usr/bin/wl" + std::to_string(k) + "\n";
  return lines;
}

void PlaceSystemEntries() {
  for (int j = 0; j < kEntries; j += 200)
    e2e::WriteFile(kApps + "app" + std::to_string(j) + ".desktop", "[Desktop Entry]\n");
  for (int k = 0; k < kEntries; k += 500)
    e2e::WriteFile(kApps + "wl" + std::to_string(k) + ".desktop", "[Desktop Entry]\n");
  for (const char* name : {"tool-a.desktop", "tool-b.desktop", "tool-c.desktop"})
    e2e::WriteFile(kClient + name, "[Desktop Entry]\n");
}

class BrokenFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& f : LauncherFiles()) std::remove(f.c_str());  // an earlier run's
    e2e::PrepareInstallation("abc");
    fault::PrepareDesktopUser(HugeAumLines());
    PlaceSystemEntries();
    before_ = LauncherFiles();
  }
  std::set<std::string> before_;
};

TEST_F(BrokenFiles, TenThousandEntriesGiveEveryLauncherAndARecordOfAll) {
  e2e::WriteFile(sdp_paths::kResourceJson, HugeResourceList());
  e2e::WriteFile(sdp_paths::kPolicyJson, HugePolicy());
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, HugeWhitelist());
  fault::DaemonRun run;
  ASSERT_EQ(run.Start(90s), "");
  EXPECT_EQ(run.daemon().Count("deal user resource size:200", "error"), 1);

  std::set<std::string> want;
  for (int j = 0; j < kEntries; j += 200)
    want.insert(kDesk + "app" + std::to_string(j) + ".desktop");
  for (int k = 0; k < kEntries; k += 500)
    want.insert(kDesk + "wl" + std::to_string(k) + ".desktop");
  for (const char* name : {"tool-a.desktop", "tool-b.desktop", "tool-c.desktop"}) {
    want.insert(kDesk + name);
    want.insert(kApps + name);
  }
  for (int i = 0; i < kEntries; i += 100) {
    want.insert(kDesk + "res" + std::to_string(i) + ".desktop");
    want.insert(kApps + "res" + std::to_string(i) + ".desktop");
  }
  EXPECT_EQ(NewLaunchers(before_), want);
  EXPECT_EQ(RecordEntries().size(), want.size());
  ExpectLoopRunsAndRecordCovers(run, want);
}

TEST_F(BrokenFiles, FilesCutShortAreReportedAndTheLoopStarts) {
  const std::string resources = HugeResourceList(), policy = HugePolicy();
  e2e::WriteFile(sdp_paths::kResourceJson, resources.substr(0, resources.size() / 2));
  e2e::WriteFile(sdp_paths::kPolicyJson, policy.substr(0, policy.size() - 3));
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
  const std::set<std::string> created = NewLaunchers(before_);
  EXPECT_EQ(created, (std::set<std::string>{kDesk + "wl0.desktop", kDesk + "tool-a.desktop",
                                            kDesk + "tool-b.desktop", kDesk + "tool-c.desktop",
                                            kApps + "tool-a.desktop", kApps + "tool-b.desktop",
                                            kApps + "tool-c.desktop"}));
  ExpectLoopRunsAndRecordCovers(run, created);
}

TEST_F(BrokenFiles, FilesRewrittenWhileReadStillGiveARecordOfEveryLauncher) {
  // Another thread rewrites the files in place, over and over, in small
  // pieces, with the full text or a beginning of it. userinfo.ini stays as it
  // is: cut before the user's name, it would make the file-system root the
  // desktop directory.
  const std::pair<const char*, std::string> files[] = {
      {sdp_paths::kResourceJson, HugeResourceList()},
      {sdp_paths::kPolicyJson, HugePolicy()},
      {sdp_paths::kWhitelistClientConf, HugeWhitelist()}};
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
  ExpectLoopRunsAndRecordCovers(run, NewLaunchers(before_));
}

}  // namespace
