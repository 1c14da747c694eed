// The long runs: a peer that restarts over and over while it floods the
// daemon with commands, and start-ups on 10,000-entry input files that are
// whole, cut short, or rewritten while they are read.
// SOAK_RESTARTS, DAEMON_THREADS come from the build.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "daemon_harness.h"
#include "sdp_paths.h"

namespace {

using namespace harness;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

long Entries(const std::string& dir) {
  std::error_code ec;
  return std::distance(fs::directory_iterator(dir, ec), fs::directory_iterator());
}

// Open descriptors, threads and child processes of `pid`.
std::array<long, 3> Footprint(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::array<long, 3> f{Entries(proc + "/fd"), Entries(proc + "/task"), 0};
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/proc", ec)) {
    const std::string stat = ReadFile(e.path().string() + "/stat");
    std::istringstream rest(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
    std::string state;
    pid_t ppid = -1;
    f[2] += rest >> state >> ppid && ppid == pid;
  }
  return f;
}

int LineCount(const std::string& path) {
  const std::string text = ReadFile(path);
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

class PeerRestarts : public SharedRun {
 protected:
  static void SetUpTestSuite() {
    PrepareInstallation("abc");
    Begin();
  }
};

// After every restart: a reconnection within 1.5 s and no second
// registration, then ten commands of every code, each handled once and in the
// order sent. Every tenth restart the peer first stays away until an attempt
// failed, a heartbeat must come on the new connection, and the daemon must
// hold exactly the descriptors, threads and children it held before.
TEST_F(PeerRestarts, ReconnectsEveryTimeAndRunsEveryCommandOnceWithFlatFootprint) {
  ASSERT_TRUE(run_.NextHeartbeat().has_value());
  std::array<long, 3> base{};  // the fewest descriptors seen with no child over a second
  for (const auto end = Clock::now() + 1s; Clock::now() < end || base[0] == 0;
       std::this_thread::sleep_for(20ms)) {
    const auto f = Footprint(daemon_->pid());
    if (f[2] == 0 && (base[0] == 0 || f[0] < base[0])) base = f;
  }
  ASSERT_EQ(base[1], DAEMON_THREADS);  // main, signal, heartbeat, reconnect (+ TSan's)
  std::atomic<int> registrations{0};
  peer_->SetFrameCallback([&](const sdppeer::Frame& f) { registrations += f.s_cmd == 0x1005; });
  const std::string order = "/tmp/rec/order";
  int shells = 0;
  long slowestMs = 0;
  for (int i = 1; i <= SOAK_RESTARTS; ++i) {
    SCOPED_TRACE("restart " + std::to_string(i));
    const uint64_t accepted = peer_->AcceptedCount();
    peer_->CloseConnection();
    peer_->StopListening();
    const int failed = daemon_->Count("anetUnixConnect failed:", "error");
    ASSERT_TRUE(i % 10 || daemon_->WaitLog("anetUnixConnect failed:", 3s, failed + 1, "error"));
    ASSERT_TRUE(peer_->Restart());
    const auto back = Clock::now();
    ASSERT_TRUE(peer_->WaitAccepted(accepted + 1, 5s));
    slowestMs = std::max<long>(slowestMs, (Clock::now() - back) / 1ms);
    ASSERT_TRUE(i % 10 || run_.NextHeartbeat().has_value());
    std::vector<std::pair<uint16_t, std::string>> batch = {
        {0x501, "app"}, {0x306, "https://portal/" + std::to_string(i)}, {0x1111, ""},
        {0x303, ""},    {i % 2 ? 0x1012 : 0x1013, ""},                   {0x777, ""}};
    for (int k = 0; k < 4; ++k) batch.push_back({0x301, "echo " + std::to_string(shells++) + " >> " + order});
    for (const auto& [code, body] : batch) ASSERT_TRUE(peer_->SendFrame(2, code, body));
    ASSERT_TRUE(WaitUntil([&] { return LineCount(order) == shells; }, 60s)) << LineCount(order);
    if (i % 10 == 0 || i == SOAK_RESTARTS) {
      std::array<long, 3> now;
      WaitUntil([&] { return (now = Footprint(daemon_->pid())) == base; }, 3s);
      ASSERT_EQ(now, base) << "descriptors, threads, children";
    }
    peer_->ClearFrames();
  }
  std::printf("%d restarts, slowest reconnection %ld ms\n", SOAK_RESTARTS, slowestMs);
  EXPECT_LT(slowestMs, 1500);
  peer_->SetFrameCallback(nullptr);
  EXPECT_EQ(registrations.load(), 0);
  std::string want;
  for (int n = 0; n < shells; ++n) want += std::to_string(n) + "\n";
  EXPECT_EQ(ReadFile(order), want);
  EXPECT_EQ(daemon_->Count(" got message from server cmd 0x:777"), SOAK_RESTARTS);
  EXPECT_EQ(RecordedCalls("dravinSSO.sh").size(), size_t{SOAK_RESTARTS});
  EXPECT_EQ(RecordedCalls("notify-send").size(), size_t{SOAK_RESTARTS});
}

const std::string kApps = sdp_paths::kSystemApplicationsDir;
const std::string kDesk = "/home/alice/Desktop/";

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
// 10,000 whitelist lines.
const std::string kResources =
    R"({"GatewayConfig":[)" +
    Repeat(R"({"isCreateIconInSandbox":1,"AppName":"Resource #","source":"res#"},)"
           R"({"isCreateIconInSandbox":1,"source":"noname#"})" +
               Repeat(R"(,{"isCreateIconInSandbox":0,"AppName":"Hidden","source":"hidden"})", 48),
           200, 50, ",") +
    "]}";
const std::string kPolicy =
    R"({"policy":{"PolicySandBox":[{"policyname":"big","policyid":"abc","sandBox":{"boxAllowProcess":[)" +
    Repeat(R"({"value":"/usr/bin/app#","id":"#","name":"App #","type":1})", 10000, 1, ",") +
    R"(]}},{"policyname":"other","policyid":"zzz","sandBox":{"boxAllowProcess":[]}}]}})";
const std::string kWhitelist = "enabled=1\n" + Repeat("/usr/bin/wl#\n", 10000);

// System entries for every 200th application and every 500th whitelist line,
// and three of the client's own.
class BigFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    EmptyDir(kDesk);
    EmptyDir(kApps);
    PrepareInstallation("abc");
    MakeDirs(kDesk);
    WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\n" +
                                           Repeat("res#=https://res#.example/\n", 100, 100) +
                                           "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
    for (int j = 0; j < 10000; j += 200) WriteFile(kApps + "app" + std::to_string(j) + ".desktop", "");
    for (int k = 0; k < 10000; k += 500) WriteFile(kApps + "wl" + std::to_string(k) + ".desktop", "");
    for (const char* name : {"tool-a", "tool-b", "tool-c"}) {
      WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/" + name + ".desktop", "");
      tools_.insert({kDesk + name + ".desktop", kApps + name + ".desktop"});
    }
    before_ = LauncherFiles();
  }
  // Regular files on the desktop and in the system directory, new since SetUp.
  std::set<std::string> LauncherFiles() {
    std::set<std::string> files;
    std::error_code ec;
    for (const std::string& dir : {kDesk, kApps})
      for (const auto& e : fs::directory_iterator(dir, ec))
        if (e.is_regular_file(ec) && !e.is_symlink(ec) && !before_.count(e.path().string()))
          files.insert(e.path().string());
    return files;
  }
  // The daemon stops cleanly, and the record lists every
  // launcher file created, each once, and nothing else.
  void ExpectLoopAndRecordOf(const std::set<std::string>& created) {
    ExpectCleanStop(*run_.daemon);
    std::istringstream record(ReadFile(sdp_paths::kRecordOldAppNames));
    std::multiset<std::string> recorded;
    for (std::string line; std::getline(record, line);) recorded.insert(line);
    EXPECT_EQ(std::set<std::string>(recorded.begin(), recorded.end()), created);
    EXPECT_EQ(recorded.size(), created.size());
  }
  // A command that ran marks the end of start-up.
  bool Start() { return run_.Start().empty() && run_.RunsCommand("ready", 90s); }

  DaemonRun run_;
  std::set<std::string> before_, tools_;
};

TEST_F(BigFiles, TenThousandEntriesGiveEveryLauncherAndARecordOfAll) {
  WriteFile(sdp_paths::kResourceJson, kResources);
  WriteFile(sdp_paths::kPolicyJson, kPolicy);
  WriteFile(sdp_paths::kWhitelistClientConf, kWhitelist);
  ASSERT_TRUE(Start());
  EXPECT_EQ(run_.daemon->Count("deal user resource size:200", "error"), 1);
  std::set<std::string> want = tools_;
  for (int j = 0; j < 10000; j += 200) want.insert(kDesk + "app" + std::to_string(j) + ".desktop");
  for (int k = 0; k < 10000; k += 500) want.insert(kDesk + "wl" + std::to_string(k) + ".desktop");
  for (int i = 0; i < 10000; i += 100)
    want.insert({kDesk + "res" + std::to_string(i) + ".desktop", kApps + "res" + std::to_string(i) + ".desktop"});
  EXPECT_EQ(LauncherFiles(), want);
  ExpectLoopAndRecordOf(want);
}

TEST_F(BigFiles, FilesCutShortAreReportedAndTheLoopStarts) {
  WriteFile(sdp_paths::kResourceJson, kResources.substr(0, kResources.size() / 2));
  WriteFile(sdp_paths::kPolicyJson, kPolicy.substr(0, kPolicy.size() - 3));
  WriteFile(sdp_paths::kWhitelistClientConf, "enabled=1\n/usr/bin/wl0\n/usr/bin/wl5");
  const std::string userinfo = ReadFile(sdp_paths::kUserinfoIni);  // cut inside the addresses
  WriteFile(sdp_paths::kUserinfoIni, userinfo.substr(0, userinfo.find("res100=") + 10));
  ASSERT_TRUE(Start());
  EXPECT_EQ(run_.daemon->Count("GatewayConfig not find!!"), 1);
  EXPECT_EQ(run_.daemon->Count("read userinfo failed!", "error"), 1);
  EXPECT_EQ(run_.daemon->Count("not find param [policy]", "warning"), 1);
  EXPECT_EQ(run_.daemon->Count("_readWListClient insert:/usr/bin/wl5"), 1);
  std::set<std::string> want = tools_;
  want.insert(kDesk + "wl0.desktop");
  EXPECT_EQ(LauncherFiles(), want);
  ExpectLoopAndRecordOf(want);
}

// Another thread rewrites the files in place, over and over, in small pieces,
// with the full text or a beginning of it.
TEST_F(BigFiles, FilesRewrittenWhileReadStillGiveARecordOfEveryLauncher) {
  const std::pair<const char*, std::string> files[] = {{sdp_paths::kResourceJson, kResources},
                                                       {sdp_paths::kPolicyJson, kPolicy},
                                                       {sdp_paths::kWhitelistClientConf, kWhitelist}};
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::thread rewriter([&] {
    for (; !stop; ++rounds)
      for (const auto& [path, full] : files) {
        const size_t len = rounds % 4 == 0 ? full.size() : full.size() * (rounds % 4) / 5;
        const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        for (size_t off = 0; fd >= 0 && off < len && !stop; off += 4096) {
          if (write(fd, full.data() + off, std::min<size_t>(4096, len - off)) < 0) break;
          sched_yield();
        }
        if (fd >= 0) close(fd);
      }
  });
  const bool started = Start();
  stop = true;
  rewriter.join();
  ASSERT_TRUE(started);
  EXPECT_GT(rounds.load(), 1);
  ExpectLoopAndRecordOf(LauncherFiles());
}

}  // namespace
