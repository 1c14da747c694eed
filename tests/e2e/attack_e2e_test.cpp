// Whom the real daemon trusts and whose authority it lends, as real root with
// a desktop user (alice, uid 1000, who owns /home/alice) and another local
// user (mallory, uid 1001): alice planting links, FIFOs and swaps in her home
// or naming herself so that her name leaves the homes or ends a shell word;
// a squatted session directory, a forged file, a peer of another uid; and
// the commands run in alice's session as alice. Nothing outside her desktop
// may change, and the daemon must still serve the real peer.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "daemon_harness.h"
#include "sandbox.h"
#include "sdp_paths.h"

namespace {

using namespace harness;
namespace fs = std::filesystem;
const std::string kHome = "/home/alice", kDesk = kHome + "/Desktop";
const std::string kApps = sdp_paths::kSystemApplicationsDir, kCfs = sdp_paths::kCfsDir;
const uid_t kAlice = testsupport::kDesktopUid, kMallory = testsupport::kOtherUid;
constexpr char kMarker[] = "/tmp/marker";

// Runs `fn` in a child as `uid`; the child's pid, or its exit status when `wait`.
int As(uid_t uid, const std::function<bool()>& fn, bool wait = true) {
  const pid_t pid = fork();
  if (pid == 0) _exit(setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0 && fn() ? 0 : 1);
  int status = -1;
  return !wait ? pid : pid > 0 && waitpid(pid, &status, 0) == pid ? status : -1;
}
void KillAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// Type, owner, mode and bytes of a file alice must never reach through the daemon.
std::string Fingerprint(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "<none>";
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " " + ReadFile(path);
}

class HomeAttack : public ::testing::Test {
 protected:
  void SetUp() override {
    PrepareInstallation("abc");
    MakeDirs(kDesk);
    ASSERT_EQ(chown(kHome.c_str(), kAlice, kAlice) | chown(kDesk.c_str(), kAlice, kAlice), 0);
    std::string json = R"({"GatewayConfig":[)", aum;
    for (const char* s : {"res1", "res2", "res3", "res4", "res5", "../../../opt/trav", "ok"}) {
      json += std::string(R"({"isCreateIconInSandbox":1,"AppName":"App","source":")") + s + "\"},";
      aum += std::string(s) + "=https://" + s + "\n";
    }
    json.back() = ']';
    WriteFile(sdp_paths::kResourceJson, json + "}");
    userinfo_tail_ = "[Aum]\n" + aum + "[CustomJumpPolicy]\nJumpBrowser=vrek\n";
    SetUser("alice");
    WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client.desktop", "[Desktop Entry]\n");
    WriteFile("/opt/victim", "secret\n", 0600);
    // On the homes' file system, where a hard link can reach it, and writable
    // by alice: the daemon, acting as alice, gets as far as the link count.
    WriteFile("/home/victim", "secret\n", 0666);
    WriteFile("/opt/victimdir/ok.desktop", "keep\n", 0600);
    WriteFile("/opt/victimdir/client.desktop", "keep\n", 0600);
    MakeDirs("/opt/evil/Desktop");
    for (const char* p : {"/opt/victim", "/home/victim", "/opt/victimdir/ok.desktop", "/opt/victimdir/client.desktop",
                          "/opt/dangle", "/opt/trav.desktop", "/tmp/pwned", "/opt/evil/Desktop/ok.desktop",
                          "/opt/victimdir/res4.desktop"})
      before_[p] = Fingerprint(p);
  }
  void TearDown() override {
    for (const auto& [path, print] : before_) EXPECT_EQ(Fingerprint(path), print) << path;
  }
  void SetUser(const std::string& name) {
    WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=" + name + "\n" + userinfo_tail_);
  }
  // A fresh peer and daemon, through start-up and one command: alive and serving.
  void RunUntilServing() {
    run_ = DaemonRun();
    ASSERT_EQ(run_.Start(), "");
    // A refused user name refuses commands too: the result line is the mark.
    ASSERT_TRUE(run_.WaitLoop(20s));
    ASSERT_TRUE(run_.peer->SendFrame(2, 0x301, "true"));
    EXPECT_TRUE(run_.daemon->WaitLog(" got SANDBOX_S2B_OPENBSAPP message from server res:", 15s))
        << "the command loop is stuck";
  }
  int Refusals(const std::string& what) { return run_.daemon->Count("refused " + what, "error"); }

  std::string userinfo_tail_;
  std::map<std::string, std::string> before_;
  DaemonRun run_;
};

TEST_F(HomeAttack, LinksFifosAndSwapsOnTheDesktopLendNothing) {
  ASSERT_EQ(As(kAlice, [] {
              return symlink("/opt/victim", (kDesk + "/res1.desktop").c_str()) == 0 &&
                     symlink("/opt/dangle", (kDesk + "/res2.desktop").c_str()) == 0 &&
                     mkfifo((kDesk + "/res3.desktop").c_str(), 0644) == 0 &&
                     mkfifo((kDesk + "/client.desktop").c_str(), 0644) == 0;
            }),
            0);
  ASSERT_EQ(link("/home/victim", (kDesk + "/res5.desktop").c_str()), 0);  // as a lax system would let her
  // Swaps a link to root's file in for res4 as fast as it can, 20 s at most.
  const pid_t racer = As(kAlice, [] {
    for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
      (void)!symlink("/opt/victim", (kDesk + "/.swap").c_str());
      rename((kDesk + "/.swap").c_str(), (kDesk + "/res4.desktop").c_str());
    }
    return true;
  }, false);
  RunUntilServing();
  KillAndReap(racer);
  for (const char* name : {"res1", "res2", "res3", "res5", "client"})
    EXPECT_EQ(Refusals(kDesk + "/" + name + ".desktop"), 1) << name;
  EXPECT_EQ(Refusals("resource source \"../../../opt/trav\""), 1);
  // What the system copy holds was written by the daemon, never read back.
  const std::string res4 = ReadFile(kApps + "res4.desktop");
  EXPECT_TRUE(res4.empty() || res4.find("X-Deepin-AppID=res4\n") != std::string::npos) << res4;
  // The untouched resource's launcher is alice's own, as if she had made it.
  struct stat st {};
  ASSERT_EQ(lstat((kDesk + "/ok.desktop").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kAlice);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(ReadFile(kApps + "ok.desktop"), ReadFile(kDesk + "/ok.desktop"));
}

TEST_F(HomeAttack, ADesktopReplacedByALinkLosesAndGainsNothingThere) {
  RunUntilServing();  // records ok.desktop and client.desktop on the desktop
  ASSERT_TRUE(Exists(kDesk + "/ok.desktop"));
  ASSERT_EQ(As(kAlice, [] {
              return rename(kDesk.c_str(), (kDesk + ".old").c_str()) == 0 &&
                     symlink("/opt/victimdir", kDesk.c_str()) == 0;
            }),
            0);
  RunUntilServing();
  EXPECT_GE(Refusals(kDesk), 1);
}

TEST_F(HomeAttack, UserNamesThatLeaveTheHomesOrEndAShellWordAreRefused) {
  for (const std::string name : {"x|touch /tmp/pwned|x", "../opt/evil"}) {
    SetUser(name);
    RunUntilServing();
    EXPECT_GE(Refusals(sdp_paths::kHomeDir + name), 1) << name;
  }
}

// Regression: with the desktop missing when it was looked at, the chmod of a
// client launcher ran as root, and a desktop swapped in under the other name
// a moment later led it through a link to root's file.
TEST_F(HomeAttack, ChmodForAMissingDesktopRunsAsItsOwnerNeverRoot) {
  fs::remove_all(kDesk);
  ASSERT_EQ(As(kAlice, [] {
              return mkdir((kHome + "/prep").c_str(), 0755) == 0 &&
                     symlink("/opt/victim", (kHome + "/prep/client.desktop").c_str()) == 0;
            }),
            0);
  const pid_t racer = As(kAlice, [] {
    const std::string a = kHome + "/prep", b = kHome + "/桌面";
    for (const auto end = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < end;) {
      rename(a.c_str(), b.c_str());
      rename(b.c_str(), a.c_str());
    }
    return true;
  }, false);
  // Each start has about one chance in four to hit the gap.
  for (int run = 0; run < 6 && Fingerprint("/opt/victim") == before_["/opt/victim"]; ++run)
    RunUntilServing();
  KillAndReap(racer);
}

// A process of `uid` listening on the daemon's socket that sends the command
// as soon as the daemon connects.
pid_t ForeignPeer(uid_t uid, const std::string& frame) {
  sockaddr_un addr{AF_UNIX, {}};
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sdp_paths::kDaemonSocket);
  unlink(addr.sun_path);
  const pid_t pid = As(uid, [&] {
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(s, 8) != 0) return false;
    for (;;) {
      const int c = accept(s, nullptr, nullptr);
      (void)!send(c, frame.data(), frame.size(), MSG_NOSIGNAL);
      close(c);
    }
  }, false);
  EXPECT_TRUE(WaitUntil([] { return Exists(sdp_paths::kDaemonSocket); }, 5s));
  return pid;
}

// Each squat in turn, before the daemon starts: it refuses twice with the
// reason, runs nothing, and serves the real peer once the squat is mended.
TEST(Authority, RefusesSquattedDirectoryForgedFileAndForeignPeerUntilTheRealPeerIsThere) {
  const std::string touch = std::string("touch ") + kMarker, owned = ", neither root nor the daemon's uid 0";
  const std::string ini = sdp_paths::kSafespaceIni;
  const struct {
    const char* name;
    std::function<void()> squat, mend;
    std::string why;  // after "not trusted: "
    bool foreignPeer = false;
  } cases[] = {
      {"directory of another user", [] { (void)!chown(kCfs.c_str(), kMallory, 0); },
       [] { (void)!chown(kCfs.c_str(), 0, 0); }, kCfs + ": owned by uid 1001" + owned},
      {"directory others may write, not sticky", [] { chmod(kCfs.c_str(), 0777); },
       [] { chmod(kCfs.c_str(), 01777); }, kCfs + ": writable by group or others and not sticky"},
      {"directory that is a link",
       [] { rename(kCfs.c_str(), "/tmp/elsewhere"), (void)!symlink("/tmp/elsewhere", kCfs.c_str()); },
       [] { unlink(kCfs.c_str()), rename("/tmp/elsewhere", kCfs.c_str()); }, kCfs + ": a symbolic link"},
      {"file of another user", [&] { (void)!chown(ini.c_str(), kMallory, kMallory); },
       [&] { (void)!chown(ini.c_str(), 0, 0); }, ini + ": owned by uid 1001" + owned},
      {"peer of another user", [] { chmod(kCfs.c_str(), 01777); }, [] {},
       std::string(sdp_paths::kDaemonSocket) + ": peer uid 1001 is neither root nor the client's uid 0", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(kCfs);
    fs::remove(kMarker);
    PrepareInstallation("abc");
    sdppeer::PeerServer peer;
    peer.SetConnectionCallback([&](uint64_t, bool up) {
      if (up) peer.SendFrame(2, 0x301, touch);
    });
    c.squat();  // first: a foreign peer binds only where the squat lets it
    const pid_t mallory = c.foreignPeer ? ForeignPeer(kMallory, sdppeer::EncodeFrame(2, 0x301, touch)) : -1;
    ASSERT_TRUE(c.foreignPeer || peer.Listen(sdp_paths::kDaemonSocket));
    Daemon daemon;
    ASSERT_TRUE(daemon.WaitLog("not trusted: " + c.why, 20s, 2, "error"));
    EXPECT_TRUE(daemon.WaitLog("init error...", 10s, 2));
    EXPECT_EQ(daemon.Count("init finish.."), 0);
    EXPECT_FALSE(Exists(kMarker));
    c.mend();
    if (mallory > 0) {
      KillAndReap(mallory);
      ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
    }
    EXPECT_TRUE(daemon.WaitLog("init finish..", 20s));
    EXPECT_TRUE(WaitUntil([] { return Exists(kMarker); }, 15s));
  }
}

// The daemon already serves its peer; the peer goes, another user takes the
// socket, and the reconnection refuses it until the peer is back.
TEST(Authority, ReconnectionRefusesAForeignPeer) {
  fs::remove_all(kCfs);
  fs::remove(kMarker);
  PrepareInstallation("abc");
  chmod(kCfs.c_str(), 01777);
  DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  ASSERT_TRUE(run.daemon->WaitLog("init finish..", 20s));
  run.peer->StopListening();
  run.peer->CloseAllConnections();
  const std::string touch = std::string("touch ") + kMarker;
  const pid_t mallory = ForeignPeer(kMallory, sdppeer::EncodeFrame(2, 0x301, touch));
  EXPECT_TRUE(run.daemon->WaitLog(std::string("not trusted: ") + sdp_paths::kDaemonSocket + ": peer uid 1001",
                                  15s, 2, "error"));
  KillAndReap(mallory);
  EXPECT_FALSE(Exists(kMarker));
  ASSERT_TRUE(run.peer->Restart());
  ASSERT_TRUE(run.peer->WaitAccepted(2, 15s));
  EXPECT_TRUE(run.RunsCommand("back", 15s));
}

// alice's session: a private /run with her runtime directory and a socket
// where her bus would listen. Every kind of command runs as alice, with her
// groups and her session's environment.
TEST(DesktopSession, CommandsRunAsTheDesktopUserInHerSession) {
  ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), 0);
  MakeDirs("/run/user/1000");
  MakeDirs(kHome);
  ASSERT_EQ(chown("/run/user/1000", kAlice, kAlice) | chown(kHome.c_str(), kAlice, kAlice), 0);
  sockaddr_un bus{AF_UNIX, "/run/user/1000/bus"};
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&bus), sizeof bus), 0);
  PrepareInstallation("abc");
  WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n");
  DaemonRun run;
  ASSERT_EQ(run.Start(), "");
  ASSERT_TRUE(run.WaitLoop());
  const std::string who =
      "printf '%s|' \"$(id -u)\" \"$(id -G)\" \"$HOME\" \"$USER\" \"$LOGNAME\" \"$XDG_RUNTIME_DIR\" "
      "\"$DBUS_SESSION_BUS_ADDRESS\" \"$(pwd)\" \"$(grep -E '^Sig(Blk|Ign)' /proc/self/status | tr -d '\\t\\n')\"";
  ASSERT_TRUE(run.peer->SendFrame(2, 0x301, who));
  ASSERT_TRUE(run.peer->SendFrame(2, 0x501, "x; id -u > /tmp/notify.uid; true #"));
  ASSERT_TRUE(run.peer->SendFrame(2, 0x306, "; id -u > /tmp/portal.uid"));
  ASSERT_TRUE(run.peer->SendFrame(2, 0x1001, "; id -u > /tmp/popup.uid"));
  const std::string res = " got SANDBOX_S2B_OPENBSAPP message from server res:1 ";
  ASSERT_TRUE(run.daemon->WaitLog(res, 10s));
  std::string line;
  for (const auto& l : run.daemon->Log())
    if (l.text.rfind(res, 0) == 0) line = l.text.substr(res.size());
  EXPECT_EQ(line,
            "1000|1000 1500|/home/alice|alice|alice|/run/user/1000|unix:path=/run/user/1000/bus|"
            "/home/alice|SigBlk:0000000000000000SigIgn:0000000000000000|");
  for (const char* file : {"/tmp/notify.uid", "/tmp/portal.uid", "/tmp/popup.uid"})
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(file) == "1000\n"; }, 10s)) << file << ": " << ReadFile(file);
  EXPECT_EQ(run.daemon->Count("command refused", "error"), 0);
  ExpectCleanStop(*run.daemon);
  close(fd);
  umount2("/run", MNT_DETACH);
}

}  // namespace
