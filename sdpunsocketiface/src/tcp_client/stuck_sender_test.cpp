// The channel with a peer that stops reading: a send that the full socket
// holds up must not hold up the receive side, and the peer going away must
// free the stuck sender and bring the reconnect thread in.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "peer_server.h"
#include "tcp_client.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <typename Pred>
bool PollUntil(Pred pred, std::chrono::milliseconds deadline) {
  const auto end = Clock::now() + deadline;
  while (!pred() && Clock::now() < end) std::this_thread::sleep_for(5ms);
  return pred();
}

// A peer that reads only when told to, so that what the client sends piles
// up in the socket.
struct SilentPeer {
  ~SilentPeer() {
    CloseConnection();
    close(listen);
  }
  bool Listen(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    return bind(listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
           ::listen(listen, 4) == 0;
  }
  // Takes the next connection, closing an earlier one.
  bool Accept(std::chrono::milliseconds timeout) {
    pollfd p{listen, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) != 1) return false;
    CloseConnection();
    return (conn = accept4(listen, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
  }
  bool Send(const std::string& b) {
    return send(conn, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
  }
  // What the client sent so far, read without blocking.
  std::string Drain() {
    std::string out;
    char buf[65536];
    for (ssize_t n; (n = recv(conn, buf, sizeof buf, MSG_DONTWAIT)) > 0;) out.append(buf, n);
    return out;
  }
  void CloseConnection() {
    if (conn >= 0) close(conn);
    conn = -1;
  }

  int listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), conn = -1;
};

class StuckSender : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    const std::string path = dir_ + "/d.sock";
    ASSERT_TRUE(peer_.Listen(path));
    Option o;
    o.clientType = CLIENT_TYPE_UNIX;
    o.reconnect = 1;
    path.copy(o.unixPath, sizeof(o.unixPath) - 1);
    ASSERT_GT(client_->Init(o), 0);
    ASSERT_TRUE(peer_.Accept(2s));
  }
  void TearDown() override {
    if (sender_.joinable()) {
      peer_.CloseConnection();  // frees a send still held up
      sender_.join();
    }
    client_->Destroy();
    client_.reset();
    std::filesystem::remove_all(dir_);
  }

  // Starts a sender that writes large frames until the socket holds one up
  // for good, and returns once it is held up: inside a send, and no send
  // completed for 200 ms.
  void HoldUpASend() {
    sender_ = std::thread([this] {
      const std::string body(60000, 'h');
      do {
        inSend_ = true;
        lastResult_ = client_->SendMessage(1, 0x1111, body.data(), static_cast<int>(body.size()));
        inSend_ = false;
      } while (lastResult_ >= 0 && ++sent_);
    });
    int seen = -1;
    ASSERT_TRUE(PollUntil(
        [&] {
          const int now = sent_.load();
          const bool still = inSend_ && now == seen && now > 0;
          seen = now;
          if (!still) std::this_thread::sleep_for(200ms);
          return still;
        },
        10s));
  }

  // A heartbeat sent now reaches the peer as exactly one whole frame.
  void ExpectWholeHeartbeatArrives() {
    const std::string beat = "abc#10.0.0.5#";
    EXPECT_EQ(client_->SendMessage(1, 0x1111, beat.data(), static_cast<int>(beat.size())),
              static_cast<int>(beat.size()) + 8);
    std::string got;
    EXPECT_TRUE(PollUntil([&] { return (got += peer_.Drain()).size() >= 8 + beat.size(); }, 2s));
    EXPECT_EQ(got, sdppeer::EncodeFrame(1, 0x1111, beat));
  }

  std::string dir_ = ::testing::TempDir() + "stuckXXXXXX";
  std::thread sender_;
  std::atomic<int> sent_{0}, lastResult_{0};
  std::atomic<bool> inSend_{false};
  SilentPeer peer_;
  std::unique_ptr<TCP_Client> client_ = std::make_unique<TCP_Client>();
};

TEST_F(StuckSender, ReceivesWhileASendIsHeldUpAndRecoversWhenThePeerGoes) {
  ASSERT_NO_FATAL_FAILURE(HoldUpASend());

  // The receive side goes on: every command the peer sends arrives whole.
  auto msg = std::make_unique<sdpmsg_t>();
  for (int i = 0; i < 20; ++i) {
    const std::string body = "command " + std::to_string(i);
    ASSERT_TRUE(peer_.Send(sdppeer::EncodeFrame(2, 0x301, body)));
    const auto start = Clock::now();
    ASSERT_EQ(client_->RecvMessage(msg.get()), static_cast<int>(body.size())) << i;
    EXPECT_LT(Clock::now() - start, 1s) << i;
    EXPECT_EQ(std::string(msg->data), body);
  }
  EXPECT_TRUE(inSend_) << "the send should still be held up";

  // The peer goes away: the stuck send fails, the receive fails and closes,
  // and the reconnect thread connects again to the listener, which stays.
  peer_.CloseConnection();
  EXPECT_EQ(client_->RecvMessage(msg.get()), -1);
  ASSERT_TRUE(PollUntil([&] { return !inSend_; }, 3s));
  sender_.join();
  EXPECT_EQ(lastResult_.load(), -1);
  const auto lost = Clock::now();
  ASSERT_TRUE(peer_.Accept(3s));
  EXPECT_LT(Clock::now() - lost, 1500ms);
  ASSERT_TRUE(PollUntil([&] { return client_->IsAvaliable(); }, 2s));

  // Both directions work on the new connection.
  ExpectWholeHeartbeatArrives();
  ASSERT_TRUE(peer_.Send(sdppeer::EncodeFrame(2, 0x306, "https://portal")));
  EXPECT_EQ(client_->RecvMessage(msg.get()), 14);
}

// The client side closing (a failed receive, Destroy) must end a send held up
// by a peer that keeps the connection but stops reading: a close alone leaves
// such a send blocked for as long as the peer stays.
TEST_F(StuckSender, ClosingTheChannelEndsAHeldUpSend) {
  ASSERT_NO_FATAL_FAILURE(HoldUpASend());
  client_->CloseConn();
  EXPECT_TRUE(PollUntil([&] { return !inSend_; }, 2s)) << "the send is still held up";
  EXPECT_EQ(lastResult_.load(), -1);

  // The reconnect thread connects again, and what arrives there is a whole
  // frame: nothing of the abandoned one follows it over.
  ASSERT_TRUE(peer_.Accept(3s));
  ASSERT_TRUE(PollUntil([&] { return client_->IsAvaliable(); }, 2s));
  ExpectWholeHeartbeatArrives();
}

}  // namespace
