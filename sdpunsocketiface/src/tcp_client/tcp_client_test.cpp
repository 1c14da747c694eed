// The channel against a real Unix socket in a temporary directory, with the
// test peer playing the daemon. What the daemon drives end to end (refusing a
// foreign peer, garbage frames, reconnection) is the e2e suite's; here are the
// boundaries, the options it never sets, and races it cannot time.
#include "tcp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "log_capture.h"
#include "peer_server.h"

using namespace std::chrono_literals;

namespace {

// Size and content follow from (tag, i), so any mixing of two frames shows.
std::string Body(unsigned short tag, int i) {
  return std::string(size_t((i * 7919 + tag) % (MAX_MSGLEN + 1)), char(i * 131 + tag));
}

template <class Pred>
bool Eventually(Pred pred) {
  const auto end = std::chrono::steady_clock::now() + 3s;
  while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  return pred();
}

Option Unix(const std::string& path, int reconnect = 0) {
  Option o;
  o.clientType = CLIENT_TYPE_UNIX;
  o.reconnect = uint8_t(reconnect);
  strncpy(o.unixPath, path.c_str(), sizeof(o.unixPath) - 1);
  return o;
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    ASSERT_TRUE(peer_.Listen(dir_ + "/d.sock"));
  }
  void TearDown() override {
    hold_ = false;  // lets a send still held up end
    if (sender_.joinable()) sender_.join();
    std::filesystem::remove_all(dir_);
  }
  // Connects the client, waits until the peer has accepted it, forgets the logs.
  int Connect(Option o) {
    const int fd = client_.Init(o);
    EXPECT_TRUE(fd > 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC));
    EXPECT_TRUE(peer_.WaitConnected(2s));
    logs_.clear();
    return fd;
  }

  std::string dir_ = ::testing::TempDir() + "chanXXXXXX";
  std::atomic<bool> hold_{false};  // the peer's frame callback waits while set
  sdppeer::PeerServer peer_;
  testsupport::LogCapture logs_;
  TCP_Client client_;  // after the peer: gone before it
  std::thread sender_;
  std::unique_ptr<sdpmsg_t> msg_ = std::make_unique<sdpmsg_t>();
};

TEST_F(Channel, FramesGoOutByteExactCutAtTheLimitAndComeInZeroFilled) {
  Option o = Unix(dir_ + "/d.sock");
  o.recvTimeout = 2;
  o.sendTimeout = 3;
  const int fd = Connect(o);
  timeval tv[2] = {};
  socklen_t len = sizeof tv[0];
  getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv[0], &len);
  getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv[1], &len);
  EXPECT_EQ(std::make_pair(tv[0].tv_sec, tv[1].tv_sec), std::make_pair(2L, 3L)) << "time-outs";

  const std::string src = Body(MAX_MSGLEN, 0);  // 64503 bytes: a cut body reads no further
  for (auto [len, sent] : {std::pair{3, 11}, {64503, 64511}, {64504, 64511}})
    EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(), len), sent);
  EXPECT_EQ(logs_.texts(),
            std::vector<std::string>{
                "warning msglen:64504 over max msglen:64503 cut message m_cmd:1 s_cmd:4369"});
  const auto f = peer_.WaitFrames(3, 2s);
  ASSERT_EQ(f.size(), 3u);
  EXPECT_EQ(f[0].Bytes(), std::string("\0\0\x01\0\x11\x11\x03\0", 8) + src.substr(0, 3));
  EXPECT_EQ(f[1].body + f[2].body, src + src);

  // And back: the longest body, then every byte of the record zero again.
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, src));
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SDP_PROTO_HEARTBEAT, ""));
  EXPECT_EQ(client_.RecvMessage(msg_.get()), MAX_MSGLEN);
  EXPECT_EQ(client_.RecvMessage(msg_.get()), 0);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), std::string(sizeof msg_->data, '\0'));
}

TEST_F(Channel, ConcurrentSendersNeverInterleaveTheirFrames) {
  Connect(Unix(dir_ + "/d.sock"));
  std::vector<std::thread> threads;
  for (unsigned short tag : {0x2001, 0x2002})
    threads.emplace_back([&, tag] {
      for (int i = 0; i < 40; ++i) {
        const std::string b = Body(tag, i);  // up to 64503 bytes: a send takes several writes
        EXPECT_EQ(client_.SendMessage(1, tag, b.data(), int(b.size())), int(b.size()) + 8);
      }
    });
  for (auto& t : threads) t.join();
  std::map<int, int> whole;  // per tag: frames whole and in order
  for (const auto& f : peer_.WaitFrames(80, 10s))
    whole[f.s_cmd] += f.body == Body(f.s_cmd, whole[f.s_cmd]);
  EXPECT_EQ(whole, (std::map<int, int>{{0x2001, 40}, {0x2002, 40}}));
}

TEST_F(Channel, InitCutsALongerPathAt107Bytes) {
  const std::string cut = dir_ + "/" + std::string(106 - dir_.size(), 'p');
  ASSERT_TRUE(peer_.Listen(cut));
  Option o = Unix(cut + std::string(93, 'q'));
  EXPECT_GT(client_.Init(o), 0);
  EXPECT_EQ(TCP_Client::PeerUidRefusal(7, 7), "") << "a peer of the client's own user is trusted";
}

// A peer that stops reading holds a send up in the kernel. Receiving must go
// on meanwhile; the connection ending from either side must end the send, with
// nothing of the abandoned frame following onto the connection the reconnect
// thread brings, until the channel is destroyed.
TEST_F(Channel, AHeldUpSendNeitherStopsReceivingNorOutlivesItsConnection) {
  Connect(Unix(dir_ + "/d.sock", /*reconnect=*/1));
  peer_.SetFrameCallback([this](const sdppeer::Frame&) {
    while (hold_) std::this_thread::sleep_for(5ms);
  });
  for (const bool peerGoes : {true, false}) {
    SCOPED_TRACE(peerGoes ? "the peer goes" : "the client closes");
    hold_ = true;
    std::atomic<int> sent{0}, result{0};
    sender_ = std::thread([&] {
      const std::string body(60000, 'h');
      while (sent < 100 && (result = client_.SendMessage(1, 1, body.data(), 60000)) > 0) ++sent;
    });
    ASSERT_TRUE(Eventually([&] {  // held up: no send ends for 400 ms
      const int before = sent;
      std::this_thread::sleep_for(400ms);
      return before > 0 && before == sent;
    }));
    ASSERT_TRUE(peer_.SendFrame(2, 0x301, "touch a"));
    EXPECT_EQ(client_.RecvMessage(msg_.get()), 7);
    // The peer reads nothing, so 100 bodies of 60,000 bytes cannot all leave.
    EXPECT_TRUE(sent < 100 && result > 0) << "the send should still be held up";
    const uint64_t next = peer_.CurrentConnection() + 1;
    if (peerGoes) {
      peer_.CloseConnection();
      EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
    } else {
      client_.CloseConn();
    }
    ASSERT_TRUE(Eventually([&] { return result < 0; })) << "the send should have ended";
    sender_.join();
    // No SIGPIPE (which would end this test), one line, and closing is left to the receiver.
    EXPECT_TRUE(logs_.has("errno: EPIPE (connection broken)", google::GLOG_ERROR));
    hold_ = false;
    ASSERT_TRUE(peer_.WaitAccepted(next, 1800ms)) << "reconnected within about a second";
    ASSERT_TRUE(Eventually([&] { return client_.SendMessage(1, 0x1111, "beat", 4) == 12; }));
    auto f = peer_.WaitFrame([&](const sdppeer::Frame& g) { return g.connection == next; }, 2s);
    EXPECT_EQ(f ? f->Bytes() : "", sdppeer::EncodeFrame(1, 0x1111, "beat"));
  }
  EXPECT_EQ(client_.Destroy(), 0);
  EXPECT_TRUE(!client_.IsAvaliable() && peer_.WaitDisconnected(2s));
  EXPECT_FALSE(peer_.WaitAccepted(4, 1500ms)) << "a stopped thread must not reconnect";
}

// The daemon speaks over the Unix socket; the TCP path is the channel's too.
TEST_F(Channel, OverTcpConnectsWithKeepAliveAndRecordsTheLocalAddress) {
  const int l = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t slen = sizeof sa;
  ASSERT_EQ(bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa) | listen(l, 4) |
                getsockname(l, reinterpret_cast<sockaddr*>(&sa), &slen),
            0);
  const int fd = client_.InitConn(2, 1, "127.0.0.1", ntohs(sa.sin_port), 0);
  int keepalive = 0;
  socklen_t klen = sizeof keepalive;
  getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &klen);
  EXPECT_EQ(keepalive, 1);
  EXPECT_EQ(logs_.count_prefix("client address:127.0.0.1 clientport_:"), 1);
  close(l);
}

}  // namespace
