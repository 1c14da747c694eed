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

TEST(PeerServer, CutsFramesAnswersFromCallbacksAndSendsToTheNewestConnection) {
  std::string dir = ::testing::TempDir() + "peerXXXXXX";
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  std::mutex mu;
  std::vector<std::string> events;  // written by the peer's thread, so declared before the peer
  sdppeer::PeerServer peer;
  peer.SetConnectionCallback([&](uint64_t id, bool up) {
    std::lock_guard<std::mutex> lock(mu);
    events.push_back((up ? "up " : "down ") + std::to_string(id));
  });
  peer.SetFrameCallback([&](const sdppeer::Frame& f) {  // a callback may call back in
    if (f.s_cmd == 0x1111) peer.SendFrame(2, 0x1111, "pong");
  });
  ASSERT_TRUE(peer.Listen(dir + "/p.sock"));
  EXPECT_FALSE(peer.SendFrame(2, 0x306, "nobody"));
  int c[2];
  for (uint64_t i = 0; i < 2; ++i) {  // clients whose reads give up after a second
    int& fd = c[i];
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{AF_UNIX, {}};
    strncpy(sa.sun_path, peer.Path().c_str(), sizeof(sa.sun_path) - 1);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    const timeval second{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
    ASSERT_TRUE(peer.WaitAccepted(i + 1, 2s));
  }
  auto read = [](int fd, size_t n) {
    std::string out(n, '\0');
    return out.substr(0, std::max<ssize_t>(0, recv(fd, out.data(), n, MSG_WAITALL)));
  };
  auto poll_until = [](const std::function<bool()>& pred) {
    const auto end = std::chrono::steady_clock::now() + 2s;
    while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    return pred();
  };

  // Two frames in one write, then a header in pieces: whatever the writes, whole frames.
  const std::string a = EncodeFrame(1, 0x1005, {"x\0y", 3}), ping = EncodeFrame(1, 0x1111, "ping");
  std::vector<std::string> writes{a + ping.substr(0, 1)};
  for (size_t i = 1; i < ping.size(); ++i) writes.push_back(ping.substr(i, 1));
  for (const auto& w : writes) ASSERT_EQ(send(c[1], w.data(), w.size(), 0), ssize_t(w.size()));
  const auto frames = peer.WaitFrames(2, 2s);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].Bytes() + frames[1].Bytes(), a + ping);
  EXPECT_EQ(frames[0].body, std::string("x\0y", 3));
  EXPECT_EQ(read(c[1], 12), EncodeFrame(2, 0x1111, "pong"));

  shutdown(c[1], SHUT_RDWR);  // connection 2 ends: connection 1 is current again
  ASSERT_TRUE(poll_until([&] { return peer.CurrentConnection() == 1u; }));
  ASSERT_TRUE(peer.SendRaw("raw"));
  EXPECT_EQ(read(c[0], 3), "raw");
  EXPECT_FALSE(peer.SendRaw(std::string(4 << 20, 'x'), 100ms)) << "a client that never reads";
  peer.CloseConnection();
  const std::vector<std::string> want{"up 1", "up 2", "down 2", "down 1"};
  EXPECT_TRUE(poll_until([&] {
    std::lock_guard<std::mutex> lock(mu);
    return events == want;
  }));
  peer.StopListening();
  for (int fd : c) close(fd);
  std::filesystem::remove_all(dir);
}

}  // namespace
