// The channel with a peer that stops reading: a send that the full socket
// holds up must not hold up the receive side, and the peer going away must
// free the stuck sender and bring the reconnect thread in. Run under
// ThreadSanitizer too (label tsan).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "peer_server.h"
#include "silent_peer.h"
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

class StuckSender : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    path_ = dir_ + "/d.sock";
    ASSERT_TRUE(peer_.Listen(path_));
    Option o;
    o.clientType = CLIENT_TYPE_UNIX;
    o.reconnect = 1;
    path_.copy(o.unixPath, sizeof(o.unixPath) - 1);
    ASSERT_GT(client_->Init(o), 0);
    ASSERT_TRUE(peer_.Accept(2s));
  }
  void TearDown() override {
    client_->Destroy();
    client_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  std::string dir_ = ::testing::TempDir() + "stuckXXXXXX";
  std::string path_;
  fault::SilentPeer peer_;
  std::unique_ptr<TCP_Client> client_ = std::make_unique<TCP_Client>();
};

TEST_F(StuckSender, ReceivesWhileASendIsHeldUpAndRecoversWhenThePeerGoes) {
  // A sender that writes large frames until the socket holds one up for good.
  std::atomic<int> sent{0};
  std::atomic<bool> inSend{false};
  std::atomic<int> lastResult{0};
  std::thread sender([&] {
    const std::string body(60000, 'h');
    for (;;) {
      inSend = true;
      const int r = client_->SendMessage(1, 0x1111, body.data(), static_cast<int>(body.size()));
      inSend = false;
      lastResult = r;
      if (r < 0) return;
      ++sent;
    }
  });
  // Held up: inside a send, and no send completed for a while.
  int seen = -1;
  ASSERT_TRUE(PollUntil(
      [&] {
        const int now = sent.load();
        const bool still = inSend && now == seen && now > 0;
        seen = now;
        if (!still) std::this_thread::sleep_for(200ms);
        return still;
      },
      10s));

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
  EXPECT_TRUE(inSend) << "the send should still be held up";

  // The peer goes away: the stuck send fails, the receive fails and closes,
  // and the reconnect thread connects again to the listener, which stays.
  peer_.CloseConnection();
  EXPECT_EQ(client_->RecvMessage(msg.get()), -1);
  ASSERT_TRUE(PollUntil([&] { return !inSend; }, 3s));
  sender.join();
  EXPECT_EQ(lastResult.load(), -1);
  const auto lost = Clock::now();
  ASSERT_TRUE(peer_.Accept(3s));
  EXPECT_LT(Clock::now() - lost, 1500ms);
  ASSERT_TRUE(PollUntil([&] { return client_->IsAvaliable(); }, 2s));

  // Both directions work on the new connection.
  const std::string beat = "abc#10.0.0.5#";
  EXPECT_EQ(client_->SendMessage(1, 0x1111, beat.data(), static_cast<int>(beat.size())),
            static_cast<int>(beat.size()) + 8);
  std::string got;
  ASSERT_TRUE(PollUntil(
      [&] {
        got += peer_.Drain();
        return got.size() >= 8 + beat.size();
      },
      2s));
  EXPECT_EQ(got, sdppeer::EncodeFrame(1, 0x1111, beat));
  ASSERT_TRUE(peer_.Send(sdppeer::EncodeFrame(2, 0x306, "https://portal")));
  EXPECT_EQ(client_->RecvMessage(msg.get()), 14);
}

}  // namespace
