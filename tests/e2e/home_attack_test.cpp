// The desktop user as an attacker: the real daemon runs as real root, and
// alice, who owns /home/alice, plants links, FIFOs and swaps there, or names
// herself so that her name leaves the homes or ends a shell word. Nothing
// outside her desktop may change, and the daemon must still serve the peer.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sandbox.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
const std::string kHome = "/home/alice";
const std::string kDesk = kHome + "/Desktop";
const std::string kApps = sdp_paths::kSystemApplicationsDir;
const uid_t kAlice = testsupport::kDesktopUid;

// Runs `fn` in a child as alice; true when it exited 0.
bool AsAlice(const std::function<bool()>& fn) {
  const pid_t pid = fork();
  if (pid == 0) {
    const bool ok =
        setgroups(0, nullptr) == 0 && setgid(kAlice) == 0 && setuid(kAlice) == 0 && fn();
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

// What an outside file looks like: type, owner, mode and bytes.
std::string Fingerprint(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "<none>";
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " " + e2e::ReadFile(path);
}

class HomeAttack : public ::testing::Test {
 protected:
  void SetUp() override {
    e2e::PrepareInstallation("abc");
    e2e::MakeDirs(kDesk);
    ASSERT_EQ(chown(kHome.c_str(), kAlice, kAlice), 0);
    ASSERT_EQ(chown(kDesk.c_str(), kAlice, kAlice), 0);
    e2e::WriteFile(sdp_paths::kResourceJson,
                   Resources({"res1", "res2", "res3", "res4", "../../../opt/trav", "ok"}));
    std::string aum;
    for (const char* s : {"res1", "res2", "res3", "res4", "../../../opt/trav", "ok"})
      aum += std::string(s) + "=https://" + s + "\n";
    userinfo_tail_ = "[Aum]\n" + aum + "[CustomJumpPolicy]\nJumpBrowser=vrek\n";
    SetUser("alice");
    e2e::WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client.desktop",
                   "[Desktop Entry]\nName=Client\n");
    // Root's files that alice must never reach through the daemon.
    e2e::WriteFile("/opt/victim", "secret\n", 0600);
    e2e::MakeDirs("/opt/victimdir");
    e2e::WriteFile("/opt/victimdir/ok.desktop", "keep\n", 0600);
    e2e::WriteFile("/opt/victimdir/client.desktop", "keep\n", 0600);
    outside_ = {"/opt/victim",
                "/opt/victimdir/ok.desktop",
                "/opt/victimdir/client.desktop",
                "/opt/dangle",
                "/opt/trav.desktop",
                "/tmp/pwned",
                "/opt/evil/Desktop/ok.desktop"};
    for (const auto& p : outside_) before_[p] = Fingerprint(p);
  }

  static std::string Resources(std::initializer_list<const char*> sources) {
    std::string json = R"({"GatewayConfig":[)";
    for (const char* s : sources)
      json += std::string(R"({"isCreateIconInSandbox":1,"AppName":"App","source":")") + s + "\"},";
    json.back() = ']';
    return json + "}";
  }
  void SetUser(const std::string& name) {
    e2e::WriteFile(sdp_paths::kUserinfoIni,
                   "[UserInfo]\nSysUserName=" + name + "\n" + userinfo_tail_);
  }

  // Starts the daemon against a fresh peer, waits for its command loop and
  // has it run one command: it is alive and serving.
  void RunDaemonUntilServing() {
    peer_ = std::make_unique<sdppeer::PeerServer>();
    std::string error;
    ASSERT_TRUE(peer_->Listen(sdp_paths::kDaemonSocket, &error)) << error;
    daemon_ = std::make_unique<e2e::Daemon>();
    ASSERT_TRUE(daemon_->WaitLog("deal user resource size:", 15s, 1, "error"));
    ASSERT_TRUE(peer_->WaitAccepted(1, 5s));  // connect() may return before the accept
    ASSERT_TRUE(peer_->SendFrame(2, 0x301, "true"));
    EXPECT_TRUE(daemon_->WaitLog(" got SANDBOX_S2B_OPENBSAPP message from server res:", 15s))
        << "the command loop is stuck";
  }
  void StopDaemon() {
    daemon_.reset();
    peer_.reset();
  }
  void ExpectOutsideUnchanged() {
    for (const auto& p : outside_) EXPECT_EQ(Fingerprint(p), before_[p]) << p;
  }
  int Refusals(const std::string& what) { return daemon_->Count("refused " + what, "error"); }

  std::string userinfo_tail_;
  std::vector<std::string> outside_;
  std::map<std::string, std::string> before_;
  std::unique_ptr<sdppeer::PeerServer> peer_;
  std::unique_ptr<e2e::Daemon> daemon_;
};

TEST_F(HomeAttack, LinksFifosAndSwapsOnTheDesktopLendNothing) {
  ASSERT_TRUE(AsAlice([] {
    return symlink("/opt/victim", (kDesk + "/res1.desktop").c_str()) == 0 &&
           symlink("/opt/dangle", (kDesk + "/res2.desktop").c_str()) == 0 &&
           mkfifo((kDesk + "/res3.desktop").c_str(), 0644) == 0 &&
           mkfifo((kDesk + "/client.desktop").c_str(), 0644) == 0;
  }));
  // Swaps a link to root's file in for res4 as fast as it can, until killed
  // (20 s at most).
  const pid_t racer = fork();
  if (racer == 0) {
    AsAlice([] {
      const std::string link = kDesk + "/.swap", target = kDesk + "/res4.desktop";
      const auto end = std::chrono::steady_clock::now() + 20s;
      while (std::chrono::steady_clock::now() < end) {
        (void)!symlink("/opt/victim", link.c_str());
        rename(link.c_str(), target.c_str());
      }
      return true;
    });
    _exit(0);
  }
  ASSERT_GT(racer, 0);
  RunDaemonUntilServing();
  kill(racer, SIGKILL);
  waitpid(racer, nullptr, 0);

  ExpectOutsideUnchanged();
  for (const char* name : {"res1", "res2", "res3"})
    EXPECT_EQ(Refusals(kDesk + "/" + name + ".desktop"), 1) << name;
  EXPECT_EQ(Refusals(kDesk + "/client.desktop"), 1);
  EXPECT_EQ(Refusals("resource source \"../../../opt/trav\""), 1);
  // What the system copy holds was written by the daemon, never read back.
  const std::string res4 = e2e::ReadFile(kApps + "res4.desktop");
  EXPECT_TRUE(res4.empty() || res4.find("X-Deepin-AppID=res4\n") != std::string::npos) << res4;
  // The untouched resource's launcher is alice's own, as if she had made it.
  struct stat st {};
  ASSERT_EQ(lstat((kDesk + "/ok.desktop").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kAlice);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(e2e::ReadFile(kApps + "ok.desktop"), e2e::ReadFile(kDesk + "/ok.desktop"));
}

TEST_F(HomeAttack, ADesktopReplacedByALinkLosesAndGainsNothingThere) {
  RunDaemonUntilServing();  // records ok.desktop and client.desktop on the desktop
  StopDaemon();
  ASSERT_TRUE(e2e::Exists(kDesk + "/ok.desktop"));
  ASSERT_TRUE(AsAlice([] {
    return rename(kDesk.c_str(), (kDesk + ".old").c_str()) == 0 &&
           symlink("/opt/victimdir", kDesk.c_str()) == 0;
  }));
  RunDaemonUntilServing();
  ExpectOutsideUnchanged();
  EXPECT_FALSE(e2e::Exists("/opt/victimdir/res4.desktop"));
  EXPECT_GE(Refusals(kDesk), 1);
}

TEST_F(HomeAttack, UserNamesThatLeaveTheHomesOrEndAShellWordAreRefused) {
  e2e::MakeDirs("/opt/evil/Desktop");
  before_["/opt/evil/Desktop/ok.desktop"] = Fingerprint("/opt/evil/Desktop/ok.desktop");
  for (const std::string name : {"x|touch /tmp/pwned|x", "../opt/evil"}) {
    SetUser(name);
    RunDaemonUntilServing();
    EXPECT_GE(Refusals(sdp_paths::kHomeDir + name), 1) << name;
    StopDaemon();
  }
  ExpectOutsideUnchanged();
}

// Regression: with the desktop missing when it was looked at, the chmod of a
// client launcher ran as root, and a desktop swapped in under the other name
// a moment later led it through a link to root's file.
TEST_F(HomeAttack, ChmodForAMissingDesktopRunsAsItsOwnerNeverRoot) {
  std::filesystem::remove_all(kDesk);
  ASSERT_TRUE(AsAlice([] {
    return mkdir((kHome + "/prep").c_str(), 0755) == 0 &&
           symlink("/opt/victim", (kHome + "/prep/client.desktop").c_str()) == 0;
  }));
  const pid_t racer = fork();
  if (racer == 0) {
    AsAlice([] {
      const std::string a = kHome + "/prep", b = kHome + "/桌面";
      const auto end = std::chrono::steady_clock::now() + 30s;
      while (std::chrono::steady_clock::now() < end) {
        rename(a.c_str(), b.c_str());
        rename(b.c_str(), a.c_str());
      }
      return true;
    });
    _exit(0);
  }
  ASSERT_GT(racer, 0);
  // Each start has about one chance in four to hit the gap.
  for (int run = 0; run < 6 && Fingerprint("/opt/victim") == before_["/opt/victim"]; ++run) {
    RunDaemonUntilServing();
    StopDaemon();
  }
  kill(racer, SIGKILL);
  waitpid(racer, nullptr, 0);
  ExpectOutsideUnchanged();
}
}  // namespace
