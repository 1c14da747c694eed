// The channel against a real Unix socket in a temporary directory, with the
// test peer playing the daemon.
#include "tcp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "log_capture.h"
#include "peer_server.h"

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

namespace {

// Size and content follow from (tag, i), so any mixing of two frames shows.
std::string Body(unsigned short tag, int i) {
  std::string b(static_cast<size_t>((i * 7919 + tag) % (MAX_MSGLEN + 1)), '\0');
  for (size_t j = 0; j < b.size(); ++j) b[j] = static_cast<char>((i * 131 + j + tag) & 0xff);
  return b;
}

Option UnixOption(const std::string& path, int reconnect = 0) {
  Option o;
  o.clientType = CLIENT_TYPE_UNIX;
  o.reconnect = static_cast<uint8_t>(reconnect);
  strncpy(o.unixPath, path.c_str(), sizeof(o.unixPath) - 1);
  return o;
}

bool PollUntil(const std::function<bool()>& pred, std::chrono::milliseconds deadline = 2s) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  return pred();
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    ASSERT_TRUE(peer_.Listen(dir_ + "/d.sock"));
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  // Connects the client (again), waits until the peer has accepted it, forgets the logs.
  int Connect(int reconnect = 0) {
    const uint64_t before = peer_.AcceptedCount();
    Option o = UnixOption(peer_.Path(), reconnect);
    const int fd = client_.Init(o);
    EXPECT_GT(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(peer_.WaitAccepted(before + 1, 2s));
    logs_.clear();
    return fd;
  }

  std::string dir_ = ::testing::TempDir() + "chanXXXXXX";
  sdppeer::PeerServer peer_;
  testsupport::LogCapture logs_;
  TCP_Client client_;  // after the peer: gone before it
  std::unique_ptr<sdpmsg_t> msg_ = std::make_unique<sdpmsg_t>();
};

TEST_F(Channel, FramesGoOutByteExactCutAtTheLimitAndComeInZeroFilled) {
  Connect();
  const std::string src = Body(MAX_MSGLEN, 0);  // 64503 bytes: a cut body reads no further
  const std::string warn = " over max msglen:64503 cut message m_cmd:1 s_cmd:4369";
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), 11);
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HTTPS_QUERY, "", 0), 8);
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(), 64503), 64511);
  EXPECT_EQ(logs_.texts(), Texts{});
  for (int len : {64504, -1})
    EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(), len), 64511);
  EXPECT_EQ(logs_.texts(), (Texts{"warning msglen:64504" + warn, "warning msglen:-1" + warn}));
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_REGISTER, "x", 1), 9);  // still in step
  const auto f = peer_.WaitFrames(6, 2s);
  ASSERT_EQ(f.size(), 6u);
  ASSERT_EQ(htons(1), 256) << "the byte images are little-endian";
  EXPECT_EQ(f[0].Bytes(), std::string("\x00\x00\x01\x00\x11\x11\x03\x00", 8) + "abc");
  EXPECT_EQ(f[1].Bytes(), std::string("\x00\x00\x01\x00\x13\x11\x00\x00", 8));
  EXPECT_EQ(f[2].body + f[3].body + f[4].body + f[5].body, src + src + src + "x");

  // And back: every receive zero-fills the whole record first.
  const std::string big(MAX_MSGLEN, 'z');
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, big));
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SDP_PROTO_HEARTBEAT, ""));
  memset(msg_.get(), 0x5A, sizeof *msg_);
  ASSERT_EQ(client_.RecvMessage(msg_.get()), MAX_MSGLEN);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), big + '\0');
  ASSERT_EQ(client_.RecvMessage(msg_.get()), 0);
  EXPECT_EQ(msg_->m_cmd, MCMD_FROM_DAEMON);
  EXPECT_EQ(msg_->s_cmd, SDP_PROTO_HEARTBEAT);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), std::string(sizeof msg_->data, '\0'));
}

TEST_F(Channel, InitWithoutListenerFailsAndLeavesAQuietDeadChannel) {
  Option o = UnixOption(dir_ + "/missing.sock", /*reconnect=*/1);
  EXPECT_EQ(client_.Init(o), -1);
  EXPECT_EQ(logs_.texts(),
            (Texts{std::string("anetUnixConnect failed:connect: ") + strerror(ENOENT),
                   "Init Socket ret:-1", "Init failed"}));
  EXPECT_EQ(client_.ReconnectThreads(), 0);
  logs_.clear();
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 200ms);
  EXPECT_EQ(logs_.texts(), Texts{});
}

std::atomic<int> g_sigpipes{0};

TEST_F(Channel, SendToVanishedPeerFailsWithEpipeAndNoSigpipe) {
  const auto old = signal(SIGPIPE, [](int) { g_sigpipes++; });
  Connect();
  peer_.CloseConnection();
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  EXPECT_TRUE(logs_.has("errno: EPIPE (connection broken)", google::GLOG_ERROR));
  EXPECT_TRUE(client_.IsAvaliable()) << "only the receiver closes";
  EXPECT_EQ(g_sigpipes.load(), 0);
  signal(SIGPIPE, old);
}

TEST_F(Channel, BrokenStreamFailsTheReceiveAndCloses) {
  const std::string header10 = sdppeer::EncodeHeader(0, 2, SANDBOX_S2B_OPENBSAPP, 10);
  struct {
    std::string tail;  // sent behind one whole frame
    bool peer_closes;
    std::string error;  // the first line, in full when the peer stays
  } cases[] = {{"", true, "read pack head failed:"},
               {header10.substr(0, 4), true, "read pack head failed:"},
               {header10 + "abc", true, "read pack body failed:"},
               // No way to resync: the whole frame behind it must not be taken for one.
               {sdppeer::EncodeHeader(0, 2, 4097, 64504) + sdppeer::EncodeFrame(2, 4097, "x"),
                false, "got error message:2 4097 0 64504"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    const int fd = Connect();
    ASSERT_TRUE(peer_.SendRaw(sdppeer::EncodeFrame(2, SANDBOX_S2B_OPENBSAPP, "ls") + c.tail));
    if (c.peer_closes) peer_.CloseConnection();
    ASSERT_EQ(client_.RecvMessage(msg_.get()), 2);
    EXPECT_STREQ(msg_->data, "ls");
    EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
    const Texts logs = logs_.texts();
    ASSERT_EQ(logs.size(), 3u);
    EXPECT_EQ(c.peer_closes ? logs[0].substr(0, c.error.size()) : logs[0], c.error);
    EXPECT_EQ(Texts(logs.begin() + 1, logs.end()),
              (Texts{"read  package  failed", "TCP_Client::CloseConn() fd:" + std::to_string(fd)}));
    EXPECT_FALSE(client_.IsAvaliable());
    EXPECT_TRUE(peer_.WaitDisconnected(2s)) << "the peer sees the client close";
  }
}

TEST_F(Channel, ConcurrentSendersAndReceiverKeepEveryFrameWhole) {
  Connect();
  constexpr int kFrames = 60;  // per sender, and from the peer
  constexpr unsigned short kTags[] = {0x2001, 0x2002}, kDown = 0x3003;
  std::atomic<int> send_failures{0}, received{0}, bad{0};
  std::vector<std::thread> threads;
  for (unsigned short tag : kTags) {
    threads.emplace_back([&, tag] {
      for (int i = 0; i < kFrames; ++i) {
        const std::string b = Body(tag, i);
        send_failures += client_.SendMessage(1, tag, b.data(), int(b.size())) != int(b.size()) + 8;
      }
    });
  }
  threads.emplace_back([&] {
    auto msg = std::make_unique<sdpmsg_t>();
    for (int n; received < kFrames && (n = client_.RecvMessage(msg.get())) >= 0; ++received)
      bad += msg->s_cmd != kDown || std::string(msg->data, size_t(n)) != Body(kDown, received);
  });
  for (int i = 0; i < kFrames && peer_.SendFrame(2, kDown, Body(kDown, i)); ++i) {
  }
  const auto frames = peer_.WaitFrames(2 * kFrames, 10s);
  if (!PollUntil([&] { return received == kFrames; }, 10s)) peer_.CloseConnection();  // unblocks
  for (auto& t : threads) t.join();

  EXPECT_EQ((std::vector<int>{received, bad, send_failures}), (std::vector<int>{kFrames, 0, 0}));
  ASSERT_EQ(frames.size(), 2u * kFrames);
  for (unsigned short tag : kTags) {
    int i = 0;
    for (const auto& f : frames) i += f.s_cmd == tag && f.body == Body(tag, i);
    EXPECT_EQ(i, kFrames) << "tag " << tag << ": frames whole and in order";
  }
}

TEST_F(Channel, InitCutsThePathAt107KeepsAnEarlierTailAndRefusesUnknownTypes) {
  const std::string cut = dir_ + "/" + std::string(106 - dir_.size(), 'p');
  ASSERT_TRUE(peer_.Listen(cut));
  Option first = UnixOption(cut + std::string(93, 'q'));
  EXPECT_GT(client_.Init(first), 0);
  client_.CloseConn();
  ASSERT_TRUE(peer_.Listen(dir_ + "/zz" + cut.substr(dir_.size() + 3)));
  Option second = UnixOption(dir_ + "/zz");  // the copy writes no terminator
  EXPECT_GT(client_.Init(second), 0);
  client_.CloseConn();
  EXPECT_GT(client_.Init(client_.option()), 0);  // copies nothing and connects there again
  EXPECT_TRUE(peer_.WaitAccepted(3, 2s));

  logs_.clear();  // an unknown type is refused, and the connection is kept
  second.clientType = 2;
  EXPECT_EQ(client_.Init(second), -1);
  EXPECT_EQ(logs_.texts(), (Texts{"unkonw client type:2", "Init Socket ret:-1", "Init failed"}));
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "still", 5), 13);
  EXPECT_EQ(peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s).value_or(sdppeer::Frame{}).connection, 3u);
}

TEST_F(Channel, ReconnectsWithinASecondOfThePeerComingBackUntilDestroyed) {
  Connect(/*reconnect=*/1);
  peer_.CloseConnection();  // the peer goes away
  peer_.StopListening();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  ASSERT_TRUE(logs_.wait_prefix("anetUnixConnect failed:connect: ", 2s)) << "a failed try first";
  ASSERT_TRUE(peer_.Restart());  // ... and comes back
  const auto back = std::chrono::steady_clock::now();
  ASSERT_TRUE(peer_.WaitAccepted(2, 3s));
  EXPECT_LT(std::chrono::steady_clock::now() - back, 1800ms);
  ASSERT_TRUE(PollUntil([&] { return client_.IsAvaliable(); }));
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "hb", 2), 10);
  EXPECT_EQ(peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s).value_or(sdppeer::Frame{}).connection, 2u);

  ASSERT_EQ(client_.ReconnectThreads(), 1);
  EXPECT_EQ(client_.Destroy(), 0);
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_TRUE(PollUntil([&] { return client_.ReconnectThreads() == 0; }, 1500ms));
  EXPECT_TRUE(peer_.WaitDisconnected(2s));
  EXPECT_EQ(peer_.AcceptedCount(), 2u) << "a stopped thread must not reconnect";
}

TEST(ChannelTcp, ConnectsWithKeepAliveAndRecordsTheLocalAddress) {
  testsupport::LogCapture logs;
  const int l = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t slen = sizeof sa;
  ASSERT_EQ(bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  ASSERT_EQ(listen(l, 4), 0);
  ASSERT_EQ(getsockname(l, reinterpret_cast<sockaddr*>(&sa), &slen), 0);
  const int listen_port = ntohs(sa.sin_port);
  TCP_Client client;
  const int fd = client.InitConn(2, 1, "127.0.0.1", listen_port, 0);
  ASSERT_GT(fd, 0);
  int keepalive = 0;
  socklen_t klen = sizeof keepalive;
  getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &klen);
  EXPECT_EQ(keepalive, 1);
  EXPECT_EQ(logs.count_prefix("client address:127.0.0.1 clientport_:"), 1);
  client.CloseConn();
  close(l);
  EXPECT_EQ(client.InitConn(2, 1, "127.0.0.1", listen_port, 0), -1);
  EXPECT_TRUE(
      logs.has(std::string("anetTcpConnect failed:creating socket: ") + strerror(ECONNREFUSED)));
}

}  // namespace
