// The test peer against plain client sockets (no channel code involved, so a
// fault in one cannot hide a fault in the other).
#include "peer_server.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using sdppeer::EncodeFrame;
using sdppeer::EncodeHeader;
using sdppeer::Frame;
using sdppeer::PeerServer;

namespace {

class PeerServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "peerXXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/p.sock";
  }
  void TearDown() override {
    for (int fd : fds_) close(fd);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  // A plain blocking client socket; -1 when the connect fails.
  int Dial(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, path.c_str(), sizeof(sa.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
      close(fd);
      return -1;
    }
    fds_.push_back(fd);
    return fd;
  }

  static bool WriteAll(int fd, const std::string& s) {
    size_t off = 0;
    while (off < s.size()) {
      ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
      if (n <= 0) return false;
      off += static_cast<size_t>(n);
    }
    return true;
  }

  // Up to `n` bytes, stopping early at end of stream or after `timeout`.
  static std::string Read(int fd, size_t n, std::chrono::milliseconds timeout = 2s) {
    std::string out;
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (out.size() < n) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd p{fd, POLLIN, 0};
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      char buf[4096];
      ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }

  std::string dir_;
  std::string path_;
  std::vector<int> fds_;
};

TEST_F(PeerServerTest, CutsFramesWhateverTheWritesLookLike) {
  PeerServer peer;
  ASSERT_TRUE(peer.Listen(path_));
  const int c = Dial(path_);
  ASSERT_GE(c, 0);
  ASSERT_TRUE(peer.WaitConnected(2s));
  EXPECT_EQ(peer.CurrentConnection(), 1u);

  const std::string a = EncodeFrame(1, 0x1111, "abc");
  const std::string b = EncodeFrame(1, 0x1005, std::string("x\0y", 3));
  const std::string big = EncodeFrame(1, 0x1113, std::string(5000, 'q'));
  ASSERT_TRUE(WriteAll(c, a + b));                       // two frames in one write
  for (size_t i = 0; i < 10; ++i) ASSERT_TRUE(WriteAll(c, big.substr(i, 1)));  // split header
  ASSERT_TRUE(WriteAll(c, big.substr(10)));

  const auto frames = peer.WaitFrames(3, 2s);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].Bytes(), a);
  EXPECT_EQ(frames[1].Bytes(), b);
  EXPECT_EQ(frames[2].Bytes(), big);
  EXPECT_EQ(frames[1].s_cmd, 0x1005);
  EXPECT_EQ(frames[1].msglen, 3);
  EXPECT_EQ(frames[1].body, std::string("x\0y", 3));
  for (const Frame& f : frames) EXPECT_EQ(f.connection, 1u);
  EXPECT_LE(frames[0].arrival, frames[2].arrival);

  auto reg = peer.WaitFrame([](const Frame& f) { return f.msglen == 3 && f.s_cmd == 0x1005; }, 1s);
  ASSERT_TRUE(reg.has_value());
  EXPECT_FALSE(peer.WaitFrame(0x9999, 50ms).has_value());
  EXPECT_EQ(peer.TakeFrames().size(), 3u);
  EXPECT_EQ(peer.FrameCount(), 0u);
}

TEST_F(PeerServerTest, SendsToTheNewestOpenConnection) {
  PeerServer peer;
  ASSERT_TRUE(peer.Listen(path_));
  EXPECT_FALSE(peer.SendFrame(2, 0x306, "nobody"));

  const int c1 = Dial(path_);
  ASSERT_TRUE(peer.WaitAccepted(1, 2s));
  const int c2 = Dial(path_);
  ASSERT_TRUE(peer.WaitAccepted(2, 2s));
  EXPECT_EQ(peer.CurrentConnection(), 2u);

  ASSERT_TRUE(peer.SendFrame(2, 0x306, "url"));
  ASSERT_TRUE(peer.SendRaw(EncodeHeader(0, 2, 0x1001, 64504)));
  EXPECT_EQ(Read(c2, 19), EncodeFrame(2, 0x306, "url") + EncodeHeader(0, 2, 0x1001, 64504));

  // The client ends connection 2: connection 1 becomes current again.
  close(c2);
  fds_.erase(std::find(fds_.begin(), fds_.end(), c2));
  const auto end = std::chrono::steady_clock::now() + 2s;
  while (peer.CurrentConnection() != 1u && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(5ms);
  EXPECT_EQ(peer.CurrentConnection(), 1u);

  peer.CloseConnection();
  EXPECT_TRUE(peer.WaitDisconnected(1s));
  EXPECT_EQ(Read(c1, 1), "") << "the client sees end of stream";
  EXPECT_FALSE(WriteAll(c1, "x")) << "and its sends fail";
}

TEST_F(PeerServerTest, SendGivesUpWhenTheClientDoesNotRead) {
  PeerServer peer;
  ASSERT_TRUE(peer.Listen(path_));
  ASSERT_GE(Dial(path_), 0);
  ASSERT_TRUE(peer.WaitConnected(2s));
  const std::string lots(4 << 20, 'x');  // far beyond the socket's buffers
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(peer.SendRaw(lots, 200ms));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
}

TEST_F(PeerServerTest, StopsAndRestartsListeningOnTheSamePath) {
  // A socket file left behind by an earlier run does not stop Listen.
  {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, path_.c_str(), sizeof(sa.sun_path) - 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    close(s);
  }
  PeerServer peer;
  std::string err;
  ASSERT_TRUE(peer.Listen(path_, &err)) << err;
  ASSERT_GE(Dial(path_), 0);
  ASSERT_TRUE(peer.WaitAccepted(1, 2s));

  peer.StopListening();
  EXPECT_FALSE(peer.Listening());
  struct stat st;
  EXPECT_NE(lstat(path_.c_str(), &st), 0) << "the socket file is removed";
  EXPECT_EQ(Dial(path_), -1);
  EXPECT_TRUE(peer.Connected()) << "open connections outlive the listener";

  ASSERT_TRUE(peer.Restart(&err)) << err;
  EXPECT_TRUE(peer.Listening());
  ASSERT_GE(Dial(path_), 0);
  EXPECT_TRUE(peer.WaitAccepted(2, 2s));

  EXPECT_FALSE(peer.Listen(dir_ + "/no/such/dir/p.sock", &err));
  EXPECT_NE(err.find("bind"), std::string::npos) << err;
  EXPECT_FALSE(peer.Listen(dir_ + "/" + std::string(120, 'l'), &err));
}

TEST_F(PeerServerTest, CallbacksRunOnTheIoThreadAndMayCallBack) {
  std::mutex mu;
  std::vector<std::string> events;  // outlives the peer, whose thread writes it
  PeerServer peer;
  peer.SetConnectionCallback([&](uint64_t id, bool up) {
    std::lock_guard<std::mutex> lock(mu);
    events.push_back((up ? "up " : "down ") + std::to_string(id));
  });
  // Answers a heartbeat with one of its own, and hangs up on 0xdead.
  peer.SetFrameCallback([&](const Frame& f) {
    if (f.s_cmd == 0x1111) peer.SendFrame(2, 0x1111, "pong");
    if (f.s_cmd == 0xdead) peer.CloseConnection();
  });
  ASSERT_TRUE(peer.Listen(path_));
  const int c = Dial(path_);
  ASSERT_GE(c, 0);
  ASSERT_TRUE(WriteAll(c, EncodeFrame(1, 0x1111, "ping")));
  EXPECT_EQ(Read(c, 12), EncodeFrame(2, 0x1111, "pong"));
  ASSERT_TRUE(WriteAll(c, EncodeFrame(1, 0xdead, "")));
  EXPECT_EQ(Read(c, 1), "");
  EXPECT_TRUE(peer.WaitDisconnected(2s));
  // The callback runs just after waiters are released.
  const auto end = std::chrono::steady_clock::now() + 2s;
  auto snapshot = [&] {
    std::lock_guard<std::mutex> lock(mu);
    return events;
  };
  while (snapshot().size() < 2 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(5ms);
  EXPECT_EQ(snapshot(), (std::vector<std::string>{"up 1", "down 1"}));
}

}  // namespace
