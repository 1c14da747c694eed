// Whom the real daemon trusts and whose authority it lends, as real root with
// a desktop user (alice, uid 1000, who owns /home/alice) and another local
// user (mallory, uid 1001): alice planting links, FIFOs and swaps in her home
// or naming herself so that her name leaves the homes or ends a shell word;
// a squatted session directory, a forged file, a peer of another uid, first
// and on reconnection; and the commands run in alice's session as alice.
// Nothing outside her desktop may change, and the daemon must still serve the
// real peer.
#include "daemon_harness.h"

namespace {

using namespace harness;
const std::string kDesk = "/home/alice/Desktop", kCfs = sdp_paths::kCfsDir;
const std::string kApps = sdp_paths::kSystemApplicationsDir;
const std::string kResult = " got SANDBOX_S2B_OPENBSAPP message from server res:";
const char* const kSources[] = {"res1", "res2", "res3", "res4", "res5", "../../../opt/trav", "ok"};
// Type, mode, owner and bytes of root's files around alice's home, which she
// must never reach through the daemon.
const std::string kUntouched =
    "find /opt/victim /opt/victimdir /opt/evil /opt/dangle /opt/trav.desktop /home/victim "
    "/tmp/pwned -printf '%p %y %m %U\\n' -type f -exec cat {} ';'";

// A shell command's output and errors.
std::string Sh(const std::string& cmd) {
  (void)!std::system((cmd + " >/tmp/sh.out 2>&1").c_str());
  return ReadFile("/tmp/sh.out");
}

// alice running perl's `code` until the end of the scope.
std::vector<std::string> AsAlice(const std::string& code) {
  return {"setpriv", "--reuid=alice", "--regid=alice", "--clear-groups", "perl", "-e", code};
}

// Listens on the daemon's socket as `uid` (the daemon sees the effective
// uid at listen()) and has /tmp/marker touched as soon as the daemon connects.
bool Serve(sdppeer::PeerServer& peer, uid_t uid = 0) {
  peer.SetConnectionCallback([&peer](uint64_t, bool up) {
    if (up) peer.SendFrame(2, 0x301, "touch /tmp/marker");
  });
  const bool listening = seteuid(uid) == 0 && peer.Listen(sdp_paths::kDaemonSocket);
  return seteuid(0) == 0 && listening;
}

// alice's home and desktop, a launcher for every source, and root's files
// around, which must come out as they went in. /home/victim is on the homes'
// file system, where a hard link can reach it, and writable by alice: the
// daemon, acting as alice, gets as far as the link count.
class HomeAttack : public ::testing::Test {
 protected:
  void SetUp() override {
    PrepareInstallation("abc");
    ASSERT_EQ(
        Sh("rm -rf /home/alice && mkdir -p " + kDesk + " /opt/victimdir /opt/evil/Desktop && " +
           "chown -R alice: /home/alice && for f in /opt/victim /opt/victimdir/ok.desktop " +
           "/opt/victimdir/client.desktop /home/victim; do echo secret >$f; chmod 600 $f; " +
           "done && chmod 666 /home/victim"),
        "");
    std::string json, ini = "[UserInfo]\nSysUserName=alice\n[Aum]\n";
    for (const char* s : kSources) {
      json += std::string(json.empty() ? "" : ",") +
              R"({"isCreateIconInSandbox":1,"AppName":"App","source":")" + s + "\"}";
      ini += std::string(s) + "=https://" + s + "\n";
    }
    WriteFile(sdp_paths::kResourceJson, R"({"GatewayConfig":[)" + json + "]}");
    WriteFile(sdp_paths::kUserinfoIni, ini + "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
    WriteFile(std::string(sdp_paths::kClientApplicationsDir) + "/client.desktop",
              "[Desktop Entry]\n");
    before_ = Sh(kUntouched);
    ASSERT_NE(before_.find("/opt/victim f 600 0\nsecret\n"), std::string::npos) << before_;
  }
  void TearDown() override { EXPECT_EQ(Sh(kUntouched), before_); }
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

  std::string before_;
  DaemonRun run_;
};

TEST_F(HomeAttack, LinksFifosAndSwapsOnTheDesktopLendNothing) {
  // Made for alice by root, the hard link as a lax system would let her.
  ASSERT_EQ(Sh("cd " + kDesk + " && ln -s /opt/victim res1.desktop && ln -s /opt/dangle " +
               "res2.desktop && mkfifo res3.desktop client.desktop && chown -h alice: * && " +
               "ln /home/victim res5.desktop"),
            "");
  // Swaps a link to root's file in for res4 as fast as it can.
  const Process racer(
      AsAlice("alarm 30; chdir '/home/alice/Desktop'; while (1) { symlink "
              "'/opt/victim', '.swap'; rename '.swap', 'res4.desktop' }"));
  RunUntilServing();
  for (const char* name : {"res1", "res2", "res3", "res5", "client"})
    EXPECT_EQ(Refusals(kDesk + "/" + name + ".desktop"), 1) << name;
  EXPECT_EQ(Refusals("resource source \"../../../opt/trav\""), 1);
  // What the system copy holds was written by the daemon, never read back.
  const std::string res4 = ReadFile(kApps + "res4.desktop");
  EXPECT_TRUE(res4.empty() || res4.find("X-Deepin-AppID=res4\n") != std::string::npos) << res4;
  // The untouched resource's launcher is alice's own, as if she had made it.
  EXPECT_EQ(Sh("stat -c '%F %U %a' " + kDesk + "/ok.desktop"), "regular file alice 755\n");
  EXPECT_EQ(ReadFile(kApps + "ok.desktop"), ReadFile(kDesk + "/ok.desktop"));
}

TEST_F(HomeAttack, ADesktopReplacedByALinkLosesAndGainsNothingThere) {
  RunUntilServing();  // records ok.desktop and client.desktop on the desktop
  ASSERT_EQ(Sh("cd /home/alice && mv Desktop Desktop.old && ln -s /opt/victimdir Desktop && "
               "chown -h alice: Desktop"),
            "");
  RunUntilServing();
  EXPECT_GE(Refusals(kDesk), 1);
}

TEST_F(HomeAttack, UserNamesThatLeaveTheHomesOrEndAShellWordAreRefused) {
  for (const std::string name : {"x|touch /tmp/pwned|x", "../opt/evil"}) {
    ASSERT_EQ(Sh("sed -i 's#^SysUserName=.*#SysUserName=" + name + "#' " + sdp_paths::kUserinfoIni),
              "");
    RunUntilServing();
    EXPECT_GE(Refusals(sdp_paths::kHomeDir + name), 1) << name;
  }
}

// Regression: with the desktop missing when it was looked at, the chmod of a
// client launcher ran as root, and a desktop swapped in under the other name
// a moment later led it through a link to root's file.
TEST_F(HomeAttack, ChmodForAMissingDesktopRunsAsItsOwnerNeverRoot) {
  ASSERT_EQ(Sh("cd /home/alice && rm -r Desktop && mkdir prep && ln -s /opt/victim "
               "prep/client.desktop && chown -hR alice: prep"),
            "");
  const Process racer(AsAlice(
      "alarm 30; chdir '/home/alice'; while (1) { rename 'prep', '桌面'; rename '桌面', 'prep' }"));
  // Each start has about one chance in four to hit the gap.
  for (int run = 0; run < 6 && Sh(kUntouched) == before_; ++run) RunUntilServing();
}

// alice's session: a private /run with her runtime directory and a socket
// where her bus would listen. Every kind of command runs as alice, with her
// groups and her session's environment.
class DesktopSession : public HomeAttack {};

TEST_F(DesktopSession, CommandsRunAsTheDesktopUserInHerSession) {
  ASSERT_EQ(Sh("mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs /run && mkdir -p /run/user/1000 && "
               "chown alice: /run/user/1000"),
            "");
  sdppeer::PeerServer bus;  // /run stays mounted: the host's would be under it
  ASSERT_TRUE(bus.Listen("/run/user/1000/bus"));
  RunUntilServing();
  const std::string who =
      "printf '%s|' \"$(id -u)\" \"$(id -G)\" \"$HOME\" \"$USER\" \"$LOGNAME\" "
      "\"$XDG_RUNTIME_DIR\" \"$DBUS_SESSION_BUS_ADDRESS\" \"$(pwd)\" "
      "\"$(grep -E '^Sig(Blk|Ign)' /proc/self/status | tr -d '\\t\\n')\"";
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x301, who));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x501, "x; id -u > /tmp/notify.uid; true #"));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x306, "; id -u > /tmp/portal.uid"));
  ASSERT_TRUE(run_.peer->SendFrame(2, 0x1001, "; id -u > /tmp/popup.uid"));
  EXPECT_TRUE(run_.daemon->WaitLog(
      kResult +
          "1 1000|1000 1500|/home/alice|alice|alice|/run/user/1000|unix:path=/run/user/1000/" +
          "bus|/home/alice|SigBlk:0000000000000000SigIgn:0000000000000000|",
      10s));
  for (const char* file : {"/tmp/notify.uid", "/tmp/portal.uid", "/tmp/popup.uid"})
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(file) == "1000\n"; }, 10s)) << file;
  ExpectCleanStop(*run_.daemon);
}

// Each squat in turn (a shell command on $C, the session directory), before
// the daemon starts: it refuses twice with the reason, runs nothing, and
// serves the real peer once the squat is mended. The daemon that met
// mallory's peer then loses its peer to her again: the reconnection refuses
// her too, until the peer is back.
TEST(Authority, RefusesSquattedDirectoryForgedFileAndForeignPeerUntilTheRealPeerIsThere) {
  const std::string owned = ": owned by uid 1001, neither root nor the daemon's uid 0";
  const std::string foreign = std::string(sdp_paths::kDaemonSocket) + ": peer uid 1001";
  const struct {
    const char *squat, *mend;
    std::string why;
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
    const bool mallory = !*c.mend;  // a foreign peer binds only where the squat lets it
    ASSERT_EQ(Sh("rm -rf /tmp/marker " + kCfs), "");
    PrepareInstallation("abc");
    ASSERT_EQ(Sh("C=" + kCfs + "; " + c.squat), "");
    sdppeer::PeerServer peer;
    ASSERT_TRUE(Serve(peer, mallory ? testsupport::kOtherUid : 0));
    Daemon daemon;
    ASSERT_TRUE(daemon.WaitLog("not trusted: " + c.why, 20s, 2, "error"));
    EXPECT_TRUE(daemon.WaitLog("init error...", 10s, 2));
    EXPECT_EQ(daemon.Count("init finish.."), 0);
    EXPECT_FALSE(Exists("/tmp/marker"));
    ASSERT_EQ(Sh("C=" + kCfs + "; " + c.mend), "");
    ASSERT_TRUE(!mallory || Serve(peer));
    EXPECT_TRUE(daemon.WaitLog("init finish..", 20s));
    EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/marker"); }, 15s));
    if (!mallory) continue;
    const int refused = daemon.Count("not trusted: " + foreign, "error");
    unlink("/tmp/marker");
    peer.StopListening();                              // as root, who may remove the socket
    ASSERT_TRUE(Serve(peer, testsupport::kOtherUid));  // before the old connection goes
    peer.CloseAllConnections();
    EXPECT_TRUE(daemon.WaitLog("not trusted: " + foreign, 15s, refused + 2, "error"));
    EXPECT_FALSE(Exists("/tmp/marker"));
    ASSERT_TRUE(Serve(peer));
    EXPECT_TRUE(WaitUntil([] { return Exists("/tmp/marker"); }, 15s));
  }
}

}  // namespace
