// The test peer against plain client sockets (no channel code involved, so a
// fault in one cannot hide a fault in the other). Stop/restart and closing are
// exercised further by the channel tests.
#include "peer_server.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

using namespace std::chrono_literals;
using sdppeer::EncodeFrame;
using sdppeer::Frame;

namespace {

class PeerServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    path_ = dir_ + "/p.sock";
  }
  void TearDown() override {
    for (int fd : fds_) close(fd);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  int Dial() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{AF_UNIX, {}};
    strncpy(sa.sun_path, path_.c_str(), sizeof(sa.sun_path) - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    fds_.push_back(fd);
    return fd;
  }
  static void Write(int fd, const std::string& s) {
    ASSERT_EQ(send(fd, s.data(), s.size(), MSG_NOSIGNAL), static_cast<ssize_t>(s.size()));
  }
  // Up to `n` bytes; fewer at end of stream or after a second.
  static std::string Read(int fd, size_t n) {
    std::string out;
    char buf[256];
    pollfd p{fd, POLLIN, 0};
    while (out.size() < n && poll(&p, 1, 1000) > 0) {
      ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }

  std::string dir_ = ::testing::TempDir() + "peerXXXXXX";
  std::string path_;
  std::vector<int> fds_;
};

TEST_F(PeerServerTest, CutsFramesWhateverTheWritesLookLike) {
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(path_));
  const int c = Dial();
  const std::string a = EncodeFrame(1, 0x1111, "abc");
  const std::string b = EncodeFrame(1, 0x1005, std::string("x\0y", 3));
  const std::string big = EncodeFrame(1, 0x1113, std::string(5000, 'q'));
  Write(c, a + b);                                             // two frames in one write
  for (size_t i = 0; i < 10; ++i) Write(c, big.substr(i, 1));  // a header in pieces
  Write(c, big.substr(10));

  const auto frames = peer.WaitFrames(3, 2s);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].Bytes(), a);
  EXPECT_EQ(frames[1].Bytes(), b);
  EXPECT_EQ(frames[2].Bytes(), big);
  EXPECT_EQ(frames[1].s_cmd, 0x1005);
  EXPECT_EQ(frames[1].body, std::string("x\0y", 3));
  EXPECT_EQ(frames[2].connection, 1u);
  EXPECT_LE(frames[0].arrival, frames[2].arrival);
  EXPECT_FALSE(peer.WaitFrame(0x9999, 20ms).has_value());
  EXPECT_EQ(peer.TakeFrames().size(), 3u);
  EXPECT_EQ(peer.FrameCount(), 0u);
}

TEST_F(PeerServerTest, SendsToTheNewestOpenConnection) {
  sdppeer::PeerServer peer;
  ASSERT_TRUE(peer.Listen(path_));
  EXPECT_FALSE(peer.SendFrame(2, 0x306, "nobody"));
  const int c1 = Dial();
  ASSERT_TRUE(peer.WaitAccepted(1, 2s));
  const int c2 = Dial();
  ASSERT_TRUE(peer.WaitAccepted(2, 2s));
  ASSERT_TRUE(peer.SendFrame(2, 0x306, "url"));
  ASSERT_TRUE(peer.SendRaw("raw"));
  EXPECT_EQ(Read(c2, 14), EncodeFrame(2, 0x306, "url") + "raw");

  shutdown(c2, SHUT_RDWR);  // connection 2 ends: connection 1 is current again
  const auto end = std::chrono::steady_clock::now() + 2s;
  while (peer.CurrentConnection() != 1u && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(2ms);
  EXPECT_EQ(peer.CurrentConnection(), 1u);
  peer.CloseConnection();
  EXPECT_TRUE(peer.WaitDisconnected(1s));
  EXPECT_EQ(Read(c1, 1), "") << "the client sees end of stream";

  // A client that never reads cannot hold a send beyond its deadline.
  Dial();
  ASSERT_TRUE(peer.WaitConnected(2s));
  const std::string lots(4 << 20, 'x');
  EXPECT_FALSE(peer.SendRaw(lots, 100ms));
}

TEST_F(PeerServerTest, CallbacksRunOnTheIoThreadAndMayCallBack) {
  std::mutex mu;
  std::vector<std::string> events;  // outlives the peer, whose thread writes it
  sdppeer::PeerServer peer;
  peer.SetConnectionCallback([&](uint64_t id, bool up) {
    std::lock_guard<std::mutex> lock(mu);
    events.push_back((up ? "up " : "down ") + std::to_string(id));
  });
  peer.SetFrameCallback([&](const Frame& f) {  // answers a ping, hangs up on 0xdead
    if (f.s_cmd == 0x1111) peer.SendFrame(2, 0x1111, "pong");
    if (f.s_cmd == 0xdead) peer.CloseConnection();
  });
  ASSERT_TRUE(peer.Listen(path_));
  const int c = Dial();
  Write(c, EncodeFrame(1, 0x1111, "ping"));
  EXPECT_EQ(Read(c, 12), EncodeFrame(2, 0x1111, "pong"));
  Write(c, EncodeFrame(1, 0xdead, ""));
  EXPECT_EQ(Read(c, 1), "");
  const auto end = std::chrono::steady_clock::now() + 2s;  // the callback follows the waiters
  for (size_t n = 0; n < 2 && std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(2ms)) {
    std::lock_guard<std::mutex> lock(mu);
    n = events.size();
  }
  std::lock_guard<std::mutex> lock(mu);
  EXPECT_EQ(events, (std::vector<std::string>{"up 1", "down 1"}));
}

}  // namespace
