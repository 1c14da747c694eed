// The test peer against plain client sockets (no channel code involved, so a
// fault in one cannot hide a fault in the other). Stop/restart and closing are
// exercised further by the channel tests.
#include "peer_server.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

using namespace std::chrono_literals;
using sdppeer::EncodeFrame;

namespace {

class PeerServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    ASSERT_TRUE(peer_.Listen(dir_ + "/p.sock"));
  }
  void TearDown() override {
    for (int fd : fds_) close(fd);
    std::filesystem::remove_all(dir_);
  }
  // A client socket whose reads give up after a second.
  int Dial() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{AF_UNIX, {}};
    strncpy(sa.sun_path, peer_.Path().c_str(), sizeof(sa.sun_path) - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    const timeval second{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
    fds_.push_back(fd);
    return fd;
  }
  static bool PollUntil(const std::function<bool()>& pred) {
    const auto end = std::chrono::steady_clock::now() + 2s;
    while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    return pred();
  }
  static std::string Read(int fd, size_t n) {
    std::string out(n, '\0');
    return out.substr(0, std::max<ssize_t>(0, recv(fd, out.data(), n, MSG_WAITALL)));
  }

  std::string dir_ = ::testing::TempDir() + "peerXXXXXX";
  std::vector<int> fds_;
  std::mutex mu_;
  std::vector<std::string> events_;  // written by the peer's thread
  sdppeer::PeerServer peer_;         // last: gone before what its callbacks touch
};

TEST_F(PeerServerTest, CutsFramesWhateverTheWritesLookLike) {
  const int c = Dial();
  const std::string a = EncodeFrame(1, 0x1111, "abc"), b = EncodeFrame(1, 0x1005, {"x\0y", 3}),
                    big = EncodeFrame(1, 0x1113, std::string(5000, 'q'));
  std::vector<std::string> writes{a + b};                              // two frames in one write
  for (size_t i = 0; i < 10; ++i) writes.push_back(big.substr(i, 1));  // a header in pieces
  writes.push_back(big.substr(10));
  for (const auto& w : writes) ASSERT_EQ(send(c, w.data(), w.size(), 0), ssize_t(w.size()));
  const auto frames = peer_.WaitFrames(3, 2s);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].Bytes() + frames[1].Bytes() + frames[2].Bytes(), a + b + big);
  EXPECT_EQ(frames[1].s_cmd, 0x1005);
  EXPECT_EQ(frames[1].body, std::string("x\0y", 3));
}

TEST_F(PeerServerTest, SendsToTheNewestOpenConnectionAndCallsBackOnItsThread) {
  peer_.SetConnectionCallback([&](uint64_t id, bool up) {
    std::lock_guard<std::mutex> lock(mu_);
    events_.push_back((up ? "up " : "down ") + std::to_string(id));
  });
  peer_.SetFrameCallback([&](const sdppeer::Frame& f) {  // a callback may call back in
    if (f.s_cmd == 0x1111) peer_.SendFrame(2, 0x1111, "pong");
  });
  EXPECT_FALSE(peer_.SendFrame(2, 0x306, "nobody"));
  const int c1 = Dial();
  ASSERT_TRUE(peer_.WaitAccepted(1, 2s));
  const int c2 = Dial();
  ASSERT_TRUE(peer_.WaitAccepted(2, 2s));
  const std::string ping = EncodeFrame(1, 0x1111, "ping");
  ASSERT_EQ(send(c2, ping.data(), ping.size(), 0), 12);
  EXPECT_EQ(Read(c2, 12), EncodeFrame(2, 0x1111, "pong"));

  shutdown(c2, SHUT_RDWR);  // connection 2 ends: connection 1 is current again
  ASSERT_TRUE(PollUntil([&] { return peer_.CurrentConnection() == 1u; }));
  ASSERT_TRUE(peer_.SendRaw("raw"));
  EXPECT_EQ(Read(c1, 3), "raw");
  peer_.CloseConnection();
  EXPECT_TRUE(peer_.WaitDisconnected(1s));
  EXPECT_EQ(Read(c1, 1), "") << "the client sees end of stream";
  const std::vector<std::string> want{"up 1", "up 2", "down 2", "down 1"};
  EXPECT_TRUE(PollUntil([&] { return std::lock_guard<std::mutex>(mu_), events_ == want; }));
}

TEST_F(PeerServerTest, AClientThatNeverReadsCannotHoldASendPastItsDeadline) {
  Dial();
  ASSERT_TRUE(peer_.WaitConnected(2s));
  EXPECT_FALSE(peer_.SendRaw(std::string(4 << 20, 'x'), 100ms));
}

}  // namespace
