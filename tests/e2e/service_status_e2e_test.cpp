// What the real daemon tells systemd, read from a datagram socket the test
// binds and hands it as NOTIFY_SOCKET: no READY=1 while it waits for the
// peer's socket, READY=1 with "registered" once it has registered, then the
// status follows the connection as the peer goes away and comes back. Every
// message carries the daemon's own pid, which NotifyAccess=main requires.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "daemon_harness.h"
#include "peer_server.h"
#include "sdp_paths.h"

namespace {

using namespace std::chrono_literals;

constexpr char kNotifySocket[] = "/tmp/notify.sock";

// The service manager's end: collects the daemon's messages and their senders.
class FakeServiceManager {
 public:
  FakeServiceManager() {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kNotifySocket);
    unlink(kNotifySocket);
    const int on = 1;
    bound_ = fd_ >= 0 && setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
             bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~FakeServiceManager() {
    if (fd_ >= 0) close(fd_);
  }
  bool bound() const { return bound_; }

  // Waits for a message equal to `text`; true if one came.
  bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) {
    return e2e::WaitUntil(
        [&] {
          Drain();
          for (const auto& m : messages_)
            if (m == text) return true;
          return false;
        },
        timeout);
  }
  const std::vector<std::string>& messages() {
    Drain();
    return messages_;
  }
  const std::vector<pid_t>& senders() const { return senders_; }

 private:
  void Drain() {
    for (;;) {
      char buf[4096];
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
      iovec iov{buf, sizeof buf};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t n = recvmsg(fd_, &msg, 0);
      if (n < 0) return;
      messages_.emplace_back(buf, static_cast<size_t>(n));
      const cmsghdr* c = CMSG_FIRSTHDR(&msg);
      senders_.push_back(c && c->cmsg_type == SCM_CREDENTIALS
                             ? reinterpret_cast<const ucred*>(CMSG_DATA(c))->pid
                             : -1);
    }
  }

  int fd_ = -1;
  bool bound_ = false;
  std::vector<std::string> messages_;
  std::vector<pid_t> senders_;
};

TEST(DaemonServiceStatus, ReadyOnceRegisteredAndStatusFollowsTheConnection) {
  e2e::PrepareInstallation("abc");
  FakeServiceManager manager;
  ASSERT_TRUE(manager.bound());
  e2e::Daemon daemon({std::string("NOTIFY_SOCKET=") + kNotifySocket});

  // Nobody listens yet: start-up waits and says so, and is not ready.
  const std::string waiting =
      std::string("STATUS=waiting for the peer's socket ") + sdp_paths::kDaemonSocket;
  ASSERT_TRUE(manager.WaitFor(waiting, 10s));
  ASSERT_TRUE(daemon.WaitLog("init error...", 10s, 2));
  for (const auto& m : manager.messages()) EXPECT_EQ(m, waiting) << "sent once, and nothing else";

  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(sdp_paths::kDaemonSocket));
  ASSERT_TRUE(manager.WaitFor("READY=1\nSTATUS=registered with sandbox abc", 10s));

  peer.StopListening();
  peer.CloseConnection();
  ASSERT_TRUE(manager.WaitFor("STATUS=connection to the peer lost, reconnecting", 10s));
  const size_t before = manager.messages().size();
  ASSERT_TRUE(peer.Restart());
  ASSERT_TRUE(e2e::WaitUntil(
      [&] {
        return manager.messages().size() > before &&
               manager.messages().back() == "STATUS=registered with sandbox abc";
      },
      20s));

  for (pid_t sender : manager.senders()) EXPECT_EQ(sender, daemon.pid());
  EXPECT_EQ(e2e::SanitizerReport(daemon.Stderr()), "");
}

}  // namespace
