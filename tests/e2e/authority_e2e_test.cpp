// Who the real daemon trusts and whose authority its commands carry, as real
// root with a desktop user (alice) and another local user (mallory): a
// squatted session directory, a forged file, a peer of another uid, and the
// desktop user's own session bus.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sandbox.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr char kMarker[] = "/tmp/marker";
const std::string kCfs = sdp_paths::kCfsDir;

// A process of `uid` listening on the daemon's socket that sends the command
// as soon as the daemon connects. Everything is built before the fork.
pid_t ForeignPeer(uid_t uid, const std::string& frame) {
  sockaddr_un addr{AF_UNIX, {}};
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sdp_paths::kDaemonSocket);
  unlink(addr.sun_path);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int s = socket(AF_UNIX, SOCK_STREAM, 0);
  if (setgid(uid) != 0 || setuid(uid) != 0 ||
      bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(s, 8) != 0)
    _exit(1);
  for (;;) {
    const int c = accept(s, nullptr, nullptr);
    if (c < 0) continue;
    (void)!send(c, frame.data(), frame.size(), MSG_NOSIGNAL);  // the daemon may have gone
    close(c);
  }
}

std::string Errors(const e2e::Daemon& daemon) {
  std::string text;
  for (const auto& l : daemon.Log("error")) text += l.text + "\n";
  return text;
}

bool KillAndReap(pid_t pid) { return kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0) == pid; }

TEST(Authority, RefusesSquattedDirectoryForgedFileAndForeignPeerUntilTheRealPeerIsThere) {
  const std::string touch = std::string("touch ") + kMarker;
  const std::string owned = ", neither root nor the daemon's uid 0";
  const struct {
    const char* name;
    std::function<void()> squat, mend;  // squat before the daemon starts
    std::string why;                    // after "not trusted: "
    bool foreignPeer = false;
  } cases[] = {
      {"directory of another user", [] { (void)!chown(kCfs.c_str(), testsupport::kOtherUid, 0); },
       [] { (void)!chown(kCfs.c_str(), 0, 0); }, kCfs + ": owned by uid 1001" + owned},
      {"directory others may write, not sticky", [] { chmod(kCfs.c_str(), 0777); },
       [] { chmod(kCfs.c_str(), 01777); }, kCfs + ": writable by group or others and not sticky"},
      {"directory that is a link",
       [] {
         rename(kCfs.c_str(), "/tmp/elsewhere");
         (void)!symlink("/tmp/elsewhere", kCfs.c_str());
       },
       [] {
         unlink(kCfs.c_str());
         rename("/tmp/elsewhere", kCfs.c_str());
       },
       kCfs + ": a symbolic link"},
      {"file of another user",
       [] {
         (void)!chown(sdp_paths::kSafespaceIni, testsupport::kOtherUid, testsupport::kOtherUid);
       },
       [] { (void)!chown(sdp_paths::kSafespaceIni, 0, 0); },
       std::string(sdp_paths::kSafespaceIni) + ": owned by uid 1001" + owned},
      {"peer of another user", [] { chmod(kCfs.c_str(), 01777); }, [] {},
       std::string(sdp_paths::kDaemonSocket) +
           ": peer uid 1001 is neither root nor the client's uid 0",
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(kCfs);
    fs::remove(kMarker);
    e2e::PrepareInstallation("abc");
    sdppeer::PeerServer peer;
    // Whoever the daemon connects to sends the command at once.
    peer.SetConnectionCallback([&peer, &touch](uint64_t, bool up) {
      if (up) peer.SendFrame(2, 0x301, touch);
    });
    // Squatted first: a foreign peer binds only where the squat let it.
    c.squat();
    pid_t mallory = -1;
    if (c.foreignPeer) {
      mallory = ForeignPeer(testsupport::kOtherUid, sdppeer::EncodeFrame(2, 0x301, touch));
      ASSERT_TRUE(e2e::WaitUntil([] { return e2e::Exists(sdp_paths::kDaemonSocket); }, 5s));
    } else {
      ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
    }
    e2e::Daemon daemon;
    ASSERT_TRUE(daemon.WaitLog("not trusted: " + c.why, 20s, 2, "error")) << Errors(daemon);
    EXPECT_TRUE(daemon.WaitLog("init error...", 10s, 2));
    EXPECT_EQ(daemon.Count("init finish.."), 0);
    EXPECT_FALSE(e2e::Exists(kMarker));

    c.mend();
    if (mallory > 0) {
      ASSERT_TRUE(KillAndReap(mallory));
      ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
    }
    EXPECT_TRUE(daemon.WaitLog("init finish..", 20s));
    EXPECT_TRUE(e2e::WaitUntil([] { return e2e::Exists(kMarker); }, 15s));
  }
}

// The daemon already serves its peer; the peer goes, another user takes the
// socket, and the reconnection refuses it until the peer is back.
TEST(Authority, ReconnectionRefusesAForeignPeer) {
  fs::remove_all(kCfs);
  fs::remove(kMarker);
  e2e::PrepareInstallation("abc");
  chmod(kCfs.c_str(), 01777);
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  e2e::Daemon daemon;
  ASSERT_TRUE(daemon.WaitLog("init finish..", 20s));
  peer.StopListening();
  peer.CloseAllConnections();
  const std::string touch = std::string("touch ") + kMarker;
  const pid_t mallory = ForeignPeer(testsupport::kOtherUid, sdppeer::EncodeFrame(2, 0x301, touch));
  EXPECT_TRUE(daemon.WaitLog(
      std::string("not trusted: ") + sdp_paths::kDaemonSocket + ": peer uid 1001", 15s, 2, "error"))
      << Errors(daemon);
  ASSERT_TRUE(KillAndReap(mallory));
  EXPECT_FALSE(e2e::Exists(kMarker));
  ASSERT_TRUE(peer.Restart());
  ASSERT_TRUE(peer.WaitAccepted(2, 15s));
  ASSERT_TRUE(e2e::WaitUntil([&] { return peer.SendFrame(2, 0x301, touch); }, 10s));
  EXPECT_TRUE(e2e::WaitUntil([] { return e2e::Exists(kMarker); }, 15s));
}

// alice's session: her own bus, run by her, and a notification service on it
// that writes down what it was sent and by which uid.
class DesktopSession : public ::testing::Test {
 protected:
  static constexpr char kBus[] = "/run/user/1000/bus";
  static constexpr char kNotes[] = "/run/user/1000/notes";

  void SetUp() override {
    // A private /run: the host's is never touched.
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), 0);
    e2e::MakeDirs("/run/user/1000");
    e2e::MakeDirs("/home/alice");
    for (const char* dir : {"/run/user/1000", "/home/alice"}) {
      ASSERT_EQ(chown(dir, 1000, 1000), 0);
      chmod(dir, 0700);
    }
    e2e::WriteFile("/run/user/1000/notifyd.py",
                   R"(import dbus, dbus.service, dbus.mainloop.glib, sys
from gi.repository import GLib
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.bus.BusConnection(sys.argv[1])
class Notes(dbus.service.Object):
    @dbus.service.method("org.freedesktop.Notifications", in_signature="susssasa{sv}i",
                         out_signature="u", sender_keyword="sender")
    def Notify(self, app, replaces, icon, summary, body, actions, hints, timeout, sender=None):
        uid = bus.get_unix_user(sender)
        with open(sys.argv[2], "a") as f:
            f.write("%d|%s|%s|%s|%d\n" % (uid, icon, summary, body, timeout))
        return 1
    @dbus.service.method("org.freedesktop.Notifications", out_signature="as")
    def GetCapabilities(self):
        return ["body"]
    @dbus.service.method("org.freedesktop.Notifications", out_signature="ssss")
    def GetServerInformation(self):
        return ("fake", "test", "1", "1.2")
name = dbus.service.BusName("org.freedesktop.Notifications", bus)
Notes(bus, "/org/freedesktop/Notifications")
print("ready", flush=True)
GLib.MainLoop().run()
)");
    const std::string asAlice = "setpriv --reuid=1000 --regid=1000 --init-groups ";
    bus_ = Spawn(asAlice + "dbus-daemon --session --nofork --address=unix:path=" + kBus);
    ASSERT_TRUE(e2e::WaitUntil([] { return e2e::Exists(kBus); }, 15s));
    notifyd_ = Spawn(asAlice + "/usr/bin/python3 /run/user/1000/notifyd.py unix:path=" + kBus +
                     " " + kNotes + " > /run/user/1000/notifyd.out 2>&1");
    ASSERT_TRUE(e2e::WaitUntil(
        [] { return e2e::ReadFile("/run/user/1000/notifyd.out").find("ready") == 0; }, 10s))
        << e2e::ReadFile("/run/user/1000/notifyd.out");
  }
  void TearDown() override {
    for (pid_t pid : {notifyd_, bus_})
      if (pid > 0) KillAndReap(pid);
    umount2("/run", MNT_DETACH);
  }
  static pid_t Spawn(const std::string& cmd) {
    const pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/sh", "sh", "-c", ("exec " + cmd).c_str(), nullptr);
      _exit(127);
    }
    return pid;
  }
  pid_t bus_ = -1, notifyd_ = -1;
};

TEST_F(DesktopSession, CommandsRunAsTheDesktopUserAndTheNotificationReachesHerBus) {
  e2e::PrepareInstallation("abc");
  fs::remove(std::string(e2e::kFakeBinDir) + "/notify-send");  // the real one
  e2e::WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n");
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  e2e::Daemon daemon;
  ASSERT_TRUE(daemon.WaitLog("init finish..", 20s));
  ASSERT_TRUE(peer.WaitConnected(2s));

  const std::string who =
      "printf '%s|' \"$(id -u)\" \"$(id -G)\" \"$HOME\" \"$USER\" \"$LOGNAME\" "
      "\"$XDG_RUNTIME_DIR\" \"$DBUS_SESSION_BUS_ADDRESS\" \"$(pwd)\" "
      "\"$(grep -E '^Sig(Blk|Ign)' /proc/self/status | tr -d '\\t\\n')\"";
  ASSERT_TRUE(peer.SendFrame(2, 0x301, who));
  ASSERT_TRUE(peer.SendFrame(2, 0x501, "gedit"));
  ASSERT_TRUE(peer.SendFrame(2, 0x306, "; id -u > /tmp/portal.uid"));
  ASSERT_TRUE(peer.SendFrame(2, 0x1001, "; id -u > /tmp/popup.uid"));

  const std::string res = " got SANDBOX_S2B_OPENBSAPP message from server res:1 ";
  ASSERT_TRUE(daemon.WaitLog(res, 10s));
  std::string line;
  for (const auto& l : daemon.Log())
    if (l.text.rfind(res, 0) == 0) line = l.text.substr(res.size());
  EXPECT_EQ(line,
            "1000|1000 1500|/home/alice|alice|alice|/run/user/1000|unix:path=/run/user/1000/bus|"
            "/home/alice|SigBlk:0000000000000000SigIgn:0000000000000000|");
  EXPECT_TRUE(e2e::WaitUntil([] { return e2e::ReadFile(kNotes) != ""; }, 10s));
  EXPECT_EQ(e2e::ReadFile(kNotes), "1000|info|非法访问|gedit不属于应用白名单|5000\n");
  for (const char* file : {"/tmp/portal.uid", "/tmp/popup.uid"}) {
    EXPECT_TRUE(e2e::WaitUntil([&] { return e2e::ReadFile(file) == "1000\n"; }, 10s))
        << file << ": " << e2e::ReadFile(file);
  }
  EXPECT_EQ(daemon.Count("command refused", "error"), 0);
}

}  // namespace
