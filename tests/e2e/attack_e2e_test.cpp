// Whom the real daemon trusts and whose authority it lends, as real root with
// a desktop user (alice, uid 1000, who owns /home/alice) and another local
// user (mallory, uid 1001): alice planting links, FIFOs and swaps in her home
// or naming herself so that her name leaves the homes or ends a shell word;
// a squatted session directory, a forged file, a peer of another uid, first
// and on reconnection; and the commands run in alice's session as alice.
// Nothing outside her desktop may change, and the daemon must still serve the
// real peer.
#include <grp.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <map>

#include "daemon_harness.h"

namespace {

using namespace harness;
const std::string kHome = "/home/alice", kDesk = kHome + "/Desktop", kCfs = sdp_paths::kCfsDir;
const std::string kApps = sdp_paths::kSystemApplicationsDir, kTouch = "touch /tmp/marker";
const std::string kResult = " got SANDBOX_S2B_OPENBSAPP message from server res:";
const char* const kSources[] = {"res1", "res2", "res3", "res4", "res5", "../../../opt/trav", "ok"};
// Root's files, the first four planted. /home/victim is on the homes' file
// system, where a hard link can reach it, and writable by alice: the daemon,
// acting as alice, gets as far as the link count.
const char* const kUntouched[] = {"/opt/victim",
                                  "/home/victim",
                                  "/opt/victimdir/ok.desktop",
                                  "/opt/victimdir/client.desktop",
                                  "/opt/dangle",
                                  "/tmp/pwned",
                                  "/opt/trav.desktop",
                                  "/opt/evil/Desktop/ok.desktop",
                                  "/opt/victimdir/res4.desktop"};

// Runs `fn` as `uid` in a child, killed after 30 s at most; its pid.
pid_t As(uid_t uid, const std::function<void()>& fn) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0) {
    alarm(30);
    fn();
  }
  _exit(0);
}
void KillAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// What alice may do in her home, done by root for her: the owner is hers.
int InHome(const std::string& cmd) { return std::system(("cd " + kHome + " && " + cmd).c_str()); }

// Type, owner, mode and bytes of a file alice must never reach through the daemon.
std::string Fingerprint(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "<none>";
  return std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " " + ReadFile(path);
}

void SetUser(const std::string& name) {
  std::string ini = "[UserInfo]\nSysUserName=" + name + "\n[Aum]\n";
  for (const char* s : kSources) ini += std::string(s) + "=https://" + s + "\n";
  WriteFile(sdp_paths::kUserinfoIni, ini + "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
}

// A peer that sends kTouch as soon as the daemon connects.
bool Serve(sdppeer::PeerServer& peer) {
  peer.SetConnectionCallback([&peer](uint64_t, bool up) {
    if (up) peer.SendFrame(2, 0x301, kTouch);
  });
  return peer.Listen(sdp_paths::kDaemonSocket);
}

// mallory's peer on the daemon's socket.
pid_t ForeignPeer() {
  const pid_t pid = As(testsupport::kOtherUid, [] {
    sdppeer::PeerServer peer;
    if (Serve(peer)) pause();
  });
  EXPECT_TRUE(WaitUntil([] { return Exists(sdp_paths::kDaemonSocket); }, 5s));
  return pid;
}

// alice's home and desktop, a launcher for every source, and root's files
// around, which must come out as they went in.
class HomeAttack : public ::testing::Test {
 protected:
  void SetUp() override {
    PrepareInstallation("abc");
    ASSERT_EQ(std::system("rm -rf /home/alice && mkdir -p /home/alice/Desktop && chown -R alice: "
                          "/home/alice"),
              0);
    std::string json;
    for (const char* s : kSources)
      json += std::string(json.empty() ? "" : ",") +
              R"({"isCreateIconInSandbox":1,"AppName":"App","source":")" + s + "\"}";
    WriteFile(sdp_paths::kResourceJson, R"({"GatewayConfig":[)" + json + "]}");
    SetUser("alice");
    WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client.desktop",
              "[Desktop Entry]\n");
    for (int i = 0; i < 4; ++i) WriteFile(kUntouched[i], "secret\n", i == 1 ? 0666 : 0600);
    MakeDirs("/opt/evil/Desktop");
    for (const char* p : kUntouched) before_[p] = Fingerprint(p);
  }
  void TearDown() override {
    for (const auto& [path, print] : before_) EXPECT_EQ(Fingerprint(path), print) << path;
  }
  // A fresh peer and daemon, through start-up and one command: alive and
  // serving. A refused user name refuses commands too: the result line is the
  // mark.
  void RunUntilServing() {
    run_ = DaemonRun();
    ASSERT_EQ(run_.Start(), "");
    ASSERT_TRUE(run_.WaitLoop(20s));
    ASSERT_TRUE(run_.peer->SendFrame(2, 0x301, "true"));
    EXPECT_TRUE(run_.daemon->WaitLog(kResult, 15s)) << "the command loop is stuck";
  }
  int Refusals(const std::string& what) { return run_.daemon->Count("refused " + what, "error"); }

  std::map<std::string, std::string> before_;
  DaemonRun run_;
};

TEST_F(HomeAttack, LinksFifosAndSwapsOnTheDesktopLendNothing) {
  // The hard link as a lax system would let her make it.
  ASSERT_EQ(InHome("cd Desktop && ln -s /opt/victim res1.desktop && ln -s /opt/dangle res2.desktop "
                   "&& mkfifo res3.desktop client.desktop && chown -h alice: * && "
                   "ln /home/victim res5.desktop"),
            0);
  // Swaps a link to root's file in for res4 as fast as it can.
  const pid_t racer = As(testsupport::kDesktopUid, [] {
    for (;;) {
      (void)!symlink("/opt/victim", (kDesk + "/.swap").c_str());
      rename((kDesk + "/.swap").c_str(), (kDesk + "/res4.desktop").c_str());
    }
  });
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
  EXPECT_EQ(st.st_uid, testsupport::kDesktopUid);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(ReadFile(kApps + "ok.desktop"), ReadFile(kDesk + "/ok.desktop"));
}

TEST_F(HomeAttack, ADesktopReplacedByALinkLosesAndGainsNothingThere) {
  RunUntilServing();  // records ok.desktop and client.desktop on the desktop
  ASSERT_TRUE(Exists(kDesk + "/ok.desktop"));
  ASSERT_EQ(
      InHome("mv Desktop Desktop.old && ln -s /opt/victimdir Desktop && chown -h alice: Desktop"),
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
  ASSERT_EQ(InHome("rm -r Desktop && mkdir prep && ln -s /opt/victim prep/client.desktop && "
                   "chown -hR alice: prep"),
            0);
  const pid_t racer = As(testsupport::kDesktopUid, [] {
    for (const std::string a = kHome + "/prep", b = kHome + "/桌面";;) {
      rename(a.c_str(), b.c_str());
      rename(b.c_str(), a.c_str());
    }
  });
  // Each start has about one chance in four to hit the gap.
  for (int run = 0; run < 6 && Fingerprint("/opt/victim") == before_["/opt/victim"]; ++run)
    RunUntilServing();
  KillAndReap(racer);
}

// alice's session: a private /run with her runtime directory and a socket
// where her bus would listen. Every kind of command runs as alice, with her
// groups and her session's environment.
class DesktopSession : public HomeAttack {};

TEST_F(DesktopSession, CommandsRunAsTheDesktopUserInHerSession) {
  ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), 0);
  ASSERT_EQ(std::system("mkdir -p /run/user/1000 && chown alice: /run/user/1000"), 0);
  sockaddr_un bus{AF_UNIX, "/run/user/1000/bus"};
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&bus), sizeof bus), 0);
  RunUntilServing();
  const std::string who =
      "printf '%s|' \"$(id -u)\" \"$(id -G)\" \"$HOME\" \"$USER\" \"$LOGNAME\" "
      "\"$XDG_RUNTIME_DIR\" \"$DBUS_SESSION_BUS_ADDRESS\" \"$(pwd)\" "
      "\"$(grep -E '^Sig(Blk|Ign)' /proc/self/status | tr -d '\\t\\n')\"";
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x301, who));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x501, "x; id -u > /tmp/notify.uid; true #"));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x306, "; id -u > /tmp/portal.uid"));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x1001, "; id -u > /tmp/popup.uid"));
  ASSERT_TRUE(run_.daemon->WaitLog(kResult, 10s, 2));
  std::string line;  // the last result: the start-up's "true" comes first
  for (const auto& l : run_.daemon->Log())
    if (l.text.rfind(kResult, 0) == 0) line = l.text.substr(kResult.size());
  EXPECT_EQ(line,
            "1 1000|1000 1500|/home/alice|alice|alice|/run/user/1000|unix:path=/run/user/1000/bus|"
            "/home/alice|SigBlk:0000000000000000SigIgn:0000000000000000|");
  for (const char* file : {"/tmp/notify.uid", "/tmp/portal.uid", "/tmp/popup.uid"})
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(file) == "1000\n"; }, 10s)) << file;
  EXPECT_EQ(run_.daemon->Count("command refused", "error"), 0);
  ExpectCleanStop(*run_.daemon);
  close(fd);
  umount2("/run", MNT_DETACH);
}

// Each squat in turn (a shell command on $C, the session directory), before
// the daemon starts: it refuses twice with the reason, runs nothing, and
// serves the real peer once the squat is mended. The daemon that met a
// foreign peer then loses its peer to mallory again: the reconnection
// refuses her too, until the peer is back.
TEST(Authority, RefusesSquattedDirectoryForgedFileAndForeignPeerUntilTheRealPeerIsThere) {
  const std::string owned = ": owned by uid 1001, neither root nor the daemon's uid 0";
  const std::string foreign = std::string(sdp_paths::kDaemonSocket) + ": peer uid 1001";
  const struct {
    const char *squat, *mend;
    std::string why;  // after "not trusted: "
  } cases[] = {
      {"chown 1001:0 $C", "chown 0:0 $C", kCfs + owned},
      {"chmod 0777 $C", "chmod 01777 $C", kCfs + ": writable by group or others and not sticky"},
      {"mv $C /tmp/elsewhere && ln -s /tmp/elsewhere $C", "rm $C && mv /tmp/elsewhere $C",
       kCfs + ": a symbolic link"},
      {"chown 1001:1001 $C/safespace.ini", "chown 0:0 $C/safespace.ini",
       sdp_paths::kSafespaceIni + owned},
      {"chmod 01777 $C", "", foreign + " is neither root nor the client's uid 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.squat);
    ASSERT_EQ(std::system(("rm -rf /tmp/marker " + kCfs).c_str()), 0);
    PrepareInstallation("abc");
    // First: a foreign peer binds only where the squat lets it.
    ASSERT_EQ(std::system(("C=" + kCfs + "; " + c.squat).c_str()), 0);
    const bool isForeign = !*c.mend;
    sdppeer::PeerServer peer;
    const pid_t mallory = isForeign ? ForeignPeer() : -1;
    ASSERT_TRUE(isForeign || Serve(peer));
    Daemon daemon;
    ASSERT_TRUE(daemon.WaitLog("not trusted: " + c.why, 20s, 2, "error"));
    EXPECT_TRUE(daemon.WaitLog("init error...", 10s, 2));
    EXPECT_EQ(daemon.Count("init finish.."), 0);
    EXPECT_FALSE(Exists("/tmp/marker"));
    ASSERT_EQ(std::system(("C=" + kCfs + "; " + c.mend).c_str()), 0);
    if (isForeign) KillAndReap(mallory);
    ASSERT_TRUE(!isForeign || Serve(peer));
    EXPECT_TRUE(daemon.WaitLog("init finish..", 20s));
    EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/marker"); }, 15s));
    if (!isForeign) continue;
    peer.StopListening();
    peer.CloseAllConnections();
    unlink("/tmp/marker");
    const int refused = daemon.Count("not trusted: " + foreign, "error");
    const pid_t again = ForeignPeer();
    EXPECT_TRUE(daemon.WaitLog("not trusted: " + foreign, 15s, refused + 2, "error"));
    KillAndReap(again);
    EXPECT_FALSE(Exists("/tmp/marker"));
    ASSERT_TRUE(peer.Restart());
    EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/marker"); }, 15s));
  }
}

}  // namespace
