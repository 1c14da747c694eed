// The daemon's start-up on a broken installation and broken input files: no
// log directory, resource and policy files that are huge, cut short or
// rewritten while they are read, and a launcher record that lists paths that
// cannot be removed. Nothing stops the daemon from reaching its command loop,
// and the record always lists every launcher file the daemon created.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <atomic>
#include <chrono>
#include <set>
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

// Every launcher file the daemon created is in the record, and everything
// the record lists exists.
void ExpectRecordCovers(const std::set<std::string>& created) {
  const std::vector<std::string> entries = fault::RecordEntries();
  const std::set<std::string> recorded(entries.begin(), entries.end());
  for (const auto& f : created) EXPECT_TRUE(recorded.count(f)) << "not recorded: " << f;
  for (const auto& f : recorded) EXPECT_TRUE(e2e::Exists(f)) << "recorded but missing: " << f;
}

void ExpectCommandRuns(fault::DaemonRun& run, const std::string& name) {
  const std::string touched = std::string(fault::kScratch) + "/" + name;
  ASSERT_TRUE(run.peer().SendFrame(2, 0x301, "touch " + touched));
  EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::Exists(touched); }, 10s)) << touched;
}

// ---------------------------------------------------------------------------

class BareInstallation : public ::testing::Test {};

TEST_F(BareInstallation, RunsWithoutLogDirectoryScriptsOrNotifySend) {
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
  ExpectCommandRuns(run, "bare");
  // A lost connection is found again without a log to write to.
  const uint64_t accepted = peer.AcceptedCount();
  peer.CloseConnection();
  ASSERT_TRUE(peer.WaitAccepted(accepted + 1, 3s));
  ExpectCommandRuns(run, "bare-again");
  EXPECT_TRUE(run.daemon().Running());
  EXPECT_FALSE(e2e::Exists(sdp_paths::kLogDir));
  EXPECT_EQ(run.SanitizerReport(), "");
}

// ---------------------------------------------------------------------------

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
std::string HugePolicy(const std::string& boxId) {
  std::string items;
  for (int j = 0; j < kEntries; ++j) {
    if (j) items += ",";
    const std::string n = std::to_string(j);
    items += R"({"value":"/usr/bin/app)" + n + R"(","id":")" + n + R"(","name":"App )" + n +
             R"(","type":1})";
  }
  return R"({"policy":{"PolicySandBox":[{"policyname":"big","policyid":")" + boxId +
         R"(","sandBox":{"boxAllowProcess":[)" + items +
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

class HugeFiles : public ::testing::Test {};

TEST_F(HugeFiles, TenThousandEntriesGiveEveryLauncherAndARecordOfAll) {
  e2e::PrepareInstallation("abc");
  fault::PrepareDesktopUser(HugeAumLines());
  e2e::WriteFile(sdp_paths::kResourceJson, HugeResourceList());
  e2e::WriteFile(sdp_paths::kPolicyJson, HugePolicy("abc"));
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, HugeWhitelist());
  PlaceSystemEntries();
  const std::set<std::string> before = fault::LauncherFiles();

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(90s), "");
  EXPECT_EQ(run.daemon().Count("deal user resource size:200", "error"), 1);

  std::set<std::string> want;
  for (int j = 0; j < kEntries; j += 200) want.insert(kDesk + "app" + std::to_string(j) + ".desktop");
  for (int k = 0; k < kEntries; k += 500) want.insert(kDesk + "wl" + std::to_string(k) + ".desktop");
  for (const char* name : {"tool-a.desktop", "tool-b.desktop", "tool-c.desktop"}) {
    want.insert(kDesk + name);
    want.insert(kApps + name);
  }
  for (int i = 0; i < kEntries; i += 100) {
    want.insert(kDesk + "res" + std::to_string(i) + ".desktop");
    want.insert(kApps + "res" + std::to_string(i) + ".desktop");
  }
  const std::set<std::string> created = fault::NewLaunchers(before);
  EXPECT_EQ(created, want);
  ExpectRecordCovers(created);
  EXPECT_EQ(fault::RecordEntries().size(), want.size());
  ExpectCommandRuns(run, "after-huge");
  EXPECT_EQ(run.SanitizerReport(), "");
}

// ---------------------------------------------------------------------------

// Rewrites files in place, over and over, with the full text or a part of it
// (never anything else), in small pieces, until stopped.
class Rewriter {
 public:
  explicit Rewriter(std::vector<std::pair<std::string, std::string>> files)
      : files_(std::move(files)), thread_([this] { Run(); }) {}
  ~Rewriter() { Stop(); }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int rounds() const { return rounds_; }

 private:
  void Run() {
    for (int round = 0; !stop_; ++round, ++rounds_) {
      for (const auto& [path, full] : files_) {
        const size_t len = round % 4 == 0 ? full.size() : full.size() * (round % 4) / 5;
        const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0) continue;
        for (size_t off = 0; off < len && !stop_; off += 4096) {
          const size_t n = std::min<size_t>(4096, len - off);
          if (write(fd, full.data() + off, n) != static_cast<ssize_t>(n)) break;
          sched_yield();
        }
        close(fd);
      }
    }
  }

  std::vector<std::pair<std::string, std::string>> files_;
  std::atomic<bool> stop_{false};
  std::atomic<int> rounds_{0};
  std::thread thread_;
};

class BrokenFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    e2e::PrepareInstallation("abc");
    fault::PrepareDesktopUser(HugeAumLines());
    PlaceSystemEntries();
  }
};

TEST_F(BrokenFiles, FilesCutShortAreReportedAndTheLoopStarts) {
  const std::string resources = HugeResourceList(), policy = HugePolicy("abc");
  e2e::WriteFile(sdp_paths::kResourceJson, resources.substr(0, resources.size() / 2));
  e2e::WriteFile(sdp_paths::kPolicyJson, policy.substr(0, policy.size() - 3));
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/wl0\n/usr/bin/wl5");
  // Cut inside the addresses. (The user's name must stay whole: without it
  // the desktop directory would be the file-system root.)
  const std::string userinfo = e2e::ReadFile(sdp_paths::kUserinfoIni);
  e2e::WriteFile(sdp_paths::kUserinfoIni, userinfo.substr(0, userinfo.find("res100=") + 10));
  const std::set<std::string> before = fault::LauncherFiles();

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(60s), "");
  auto& daemon = run.daemon();
  EXPECT_EQ(daemon.Count("GatewayConfig not find!!"), 1);
  EXPECT_EQ(daemon.Count("read userinfo failed!", "error"), 1);
  EXPECT_EQ(daemon.Count("not find param [policy]", "warning"), 1);
  EXPECT_EQ(daemon.Count("_readWListClient insert:/usr/bin/wl5"), 1);
  const std::set<std::string> created = fault::NewLaunchers(before);
  EXPECT_EQ(created, (std::set<std::string>{kDesk + "wl0.desktop", kDesk + "tool-a.desktop",
                                            kDesk + "tool-b.desktop", kDesk + "tool-c.desktop",
                                            kApps + "tool-a.desktop", kApps + "tool-b.desktop",
                                            kApps + "tool-c.desktop"}));
  ExpectRecordCovers(created);
  ExpectCommandRuns(run, "after-cut");
  EXPECT_EQ(run.SanitizerReport(), "");
}

TEST_F(BrokenFiles, FilesRewrittenWhileReadStillGiveARecordOfEveryLauncher) {
  const std::set<std::string> before = fault::LauncherFiles();
  for (const auto& [path, text] : std::vector<std::pair<std::string, std::string>>{
           {sdp_paths::kResourceJson, ""}, {sdp_paths::kPolicyJson, ""},
           {sdp_paths::kWhitelistClientConf, ""}})
    e2e::WriteFile(path, text);
  // userinfo.ini stays as it is: cut before the user's name, it would make
  // the file-system root the desktop directory.
  Rewriter rewriter({{sdp_paths::kResourceJson, HugeResourceList()},
                     {sdp_paths::kPolicyJson, HugePolicy("abc")},
                     {sdp_paths::kWhitelistClientConf, HugeWhitelist()}});

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(90s), "");
  rewriter.Stop();
  EXPECT_GT(rewriter.rounds(), 1);
  ExpectRecordCovers(fault::NewLaunchers(before));
  ExpectCommandRuns(run, "after-rewrite");
  EXPECT_TRUE(run.daemon().Running());
  EXPECT_EQ(run.SanitizerReport(), "");
}

// ---------------------------------------------------------------------------

class UnremovableRecord : public ::testing::Test {};

TEST_F(UnremovableRecord, PathsThatCannotGoAreReportedAndDroppedFromTheRecord) {
  e2e::PrepareInstallation("abc");
  fault::PrepareDesktopUser("web1=https://web1.example/\n");
  e2e::WriteFile(sdp_paths::kResourceJson,
                 R"({"GatewayConfig":[{"isCreateIconInSandbox":1,"AppName":"Web","source":"web1"}]})");
  e2e::WriteFile(sdp_paths::kPolicyJson,
                 R"({"policy":{"PolicySandBox":[{"policyname":"p","policyid":"abc","sandBox":)"
                 R"({"boxAllowProcess":[{"value":"/usr/bin/gedit","id":"1","name":"G","type":1}]}}]}})");
  e2e::WriteFile(kApps + "gedit.desktop", "[Desktop Entry]\n");

  // A file on a read-only file system, a directory that is not empty, the
  // root directory: none can be removed. Beside them a removable file, a
  // missing one, a path too long for the system, and an empty line.
  const std::string ro = "/opt/ro";
  e2e::MakeDirs(ro);
  ASSERT_EQ(mount("tmpfs", ro.c_str(), "tmpfs", 0, "size=1m"), 0) << strerror(errno);
  e2e::WriteFile(ro + "/locked.desktop", "[Desktop Entry]\n");
  ASSERT_EQ(mount(nullptr, ro.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
      << strerror(errno);
  e2e::WriteFile(kDesk + "full.desktop/inside", "x");
  e2e::WriteFile(kDesk + "old.desktop", "[Desktop Entry]\n");
  const std::vector<std::string> unremovable = {ro + "/locked.desktop", kDesk + "full.desktop",
                                                "/"};
  const std::string tooLong = "/tmp/" + std::string(5000, 'x');
  e2e::WriteFile(sdp_paths::kRecordOldAppNames,
                 unremovable[0] + "\n" + unremovable[1] + "\n\n" + unremovable[2] + "\n" + kDesk +
                     "old.desktop\n" + kDesk + "missing.desktop\n" + tooLong + "\n");
  const std::set<std::string> before = fault::LauncherFiles();

  fault::DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  auto& daemon = run.daemon();
  for (const auto& path : unremovable) {
    EXPECT_TRUE(e2e::Exists(path)) << path;
    EXPECT_EQ(daemon.Count("rm file failed !:" + path + " error: ", "warning"), 1) << path;
  }
  EXPECT_FALSE(e2e::Exists(kDesk + "old.desktop"));
  EXPECT_EQ(daemon.Count("rm file:" + kDesk + "old.desktop"), 1);
  // The record now holds this run's launchers and nothing of the old list.
  const std::set<std::string> created = fault::NewLaunchers(before);
  EXPECT_EQ(created, (std::set<std::string>{kDesk + "gedit.desktop", kDesk + "web1.desktop",
                                            kApps + "web1.desktop"}));
  const std::vector<std::string> entries = fault::RecordEntries();
  EXPECT_EQ(std::set<std::string>(entries.begin(), entries.end()), created);
  ExpectCommandRuns(run, "after-unremovable");
  EXPECT_EQ(run.SanitizerReport(), "");
  umount(ro.c_str());
}

}  // namespace
