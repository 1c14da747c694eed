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
#include <sys/un.h>
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

template <typename Pred>
bool PollUntil(Pred pred, std::chrono::milliseconds deadline = 2s) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
  return pred();
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    path_ = dir_ + "/d.sock";
    ASSERT_TRUE(peer_.Listen(path_));
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  // Connects the client (again) and waits until the peer has accepted it.
  int Connect(int reconnect = 0) {
    const uint64_t before = peer_.AcceptedCount();
    Option o = UnixOption(path_, reconnect);
    const int fd = client_.Init(o);
    EXPECT_GT(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(peer_.WaitAccepted(before + 1, 2s));
    return fd;
  }

  std::string dir_ = ::testing::TempDir() + "chanXXXXXX";
  std::string path_;
  sdppeer::PeerServer peer_;
  testsupport::LogCapture logs_;
  TCP_Client client_;  // after the peer: gone before it
  std::unique_ptr<sdpmsg_t> msg_ = std::make_unique<sdpmsg_t>();
};

TEST_F(Channel, SendWritesExactFrameBytes) {
  Connect();
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), 11);
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HTTPS_QUERY, "", 0), 8);
  const auto frames = peer_.WaitFrames(2, 2s);
  ASSERT_EQ(frames.size(), 2u);
  const uint16_t probe = 1;
  ASSERT_EQ(*reinterpret_cast<const char*>(&probe), 1) << "the byte images below are little-endian";
  EXPECT_EQ(frames[0].Bytes(), std::string("\x00\x00\x01\x00\x11\x11\x03\x00"
                                           "abc",
                                           11));
  EXPECT_EQ(frames[1].Bytes(), std::string("\x00\x00\x01\x00\x13\x11\x00\x00", 8));
}

TEST_F(Channel, SendCutsOversizeBodyAndWarns) {
  Connect();
  std::string src(MAX_MSGLEN + 1, '\0');
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<char>('a' + i % 26);
  for (int len : {MAX_MSGLEN, MAX_MSGLEN + 1}) {
    logs_.clear();
    peer_.ClearFrames();
    EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(), len), 64511);
    // A small frame behind it shows the stream is still in step.
    ASSERT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_REGISTER, "x", 1), 9);
    auto frames = peer_.WaitFrames(2, 2s);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].body, src.substr(0, MAX_MSGLEN));
    EXPECT_EQ(frames[1].body, "x");
    const bool warned =
        logs_.has("warning msglen:64504 over max msglen:64503 cut message m_cmd:1 s_cmd:4369",
                  google::GLOG_WARNING);
    EXPECT_EQ(warned, len > MAX_MSGLEN) << len;
  }
}

TEST_F(Channel, WithoutConnectionSendAndReceiveFailQuietly) {
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 200ms);
  EXPECT_EQ(logs_.texts(), Texts{});
}

std::atomic<int> g_sigpipes{0};

TEST_F(Channel, SendToVanishedPeerFailsWithEpipeAndNoSigpipe) {
  struct sigaction count {
  }, old{};
  count.sa_handler = [](int) { g_sigpipes++; };
  sigaction(SIGPIPE, &count, &old);
  Connect();
  peer_.CloseConnection();
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  EXPECT_TRUE(logs_.has("errno: EPIPE (connection broken)", google::GLOG_ERROR));
  EXPECT_TRUE(client_.IsAvaliable()) << "only the receiver closes";
  EXPECT_EQ(g_sigpipes.load(), 0);
  sigaction(SIGPIPE, &old, nullptr);
}

TEST_F(Channel, ReceiveZeroFillsTheRecordBeforeEveryFrame) {
  Connect();
  const std::string big(MAX_MSGLEN, 'z');
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, big));
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SDP_PROTO_HEARTBEAT, ""));
  const std::string zeros(sizeof msg_->data, '\0');

  memset(msg_.get(), 0x5A, sizeof *msg_);
  ASSERT_EQ(client_.RecvMessage(msg_.get()), MAX_MSGLEN);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), big + '\0');
  ASSERT_EQ(client_.RecvMessage(msg_.get()), 0);
  EXPECT_EQ(msg_->m_cmd, MCMD_FROM_DAEMON);
  EXPECT_EQ(msg_->s_cmd, SDP_PROTO_HEARTBEAT);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), zeros);
  EXPECT_TRUE(client_.IsAvaliable());
}

TEST_F(Channel, OversizeHeaderAbandonsTheStreamAndCloses) {
  const int fd = Connect();
  logs_.clear();
  // A whole frame follows; it must not be taken for one.
  ASSERT_TRUE(
      peer_.SendRaw(sdppeer::EncodeHeader(0, 2, 4097, 64504) + sdppeer::EncodeFrame(2, 4097, "x")));
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  EXPECT_EQ(logs_.texts(), (Texts{"got error message:2 4097 0 64504", "read  package  failed",
                                  "TCP_Client::CloseConn() fd:" + std::to_string(fd)}));
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_TRUE(peer_.WaitDisconnected(2s)) << "the peer sees the client close";
}

TEST_F(Channel, PeerClosingMidStreamFailsTheReceive) {
  const std::string header10 = sdppeer::EncodeHeader(0, 2, SANDBOX_S2B_OPENBSAPP, 10);
  struct {
    std::string tail;  // sent behind one whole frame, just before the close
    const char* error;
  } cases[] = {{"", "read pack head failed:"},
               {header10.substr(0, 4), "read pack head failed:"},
               {header10 + "abc", "read pack body failed:"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tail.size());
    Connect();
    logs_.clear();
    ASSERT_TRUE(peer_.SendRaw(sdppeer::EncodeFrame(2, SANDBOX_S2B_OPENBSAPP, "ls") + c.tail));
    peer_.CloseConnection();
    ASSERT_EQ(client_.RecvMessage(msg_.get()), 2);
    EXPECT_STREQ(msg_->data, "ls");
    EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
    EXPECT_EQ(logs_.count_prefix(c.error), 1);
    EXPECT_TRUE(logs_.has("read  package  failed", google::GLOG_ERROR));
    EXPECT_FALSE(client_.IsAvaliable());
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
        if (client_.SendMessage(1, tag, b.data(), static_cast<int>(b.size())) !=
            static_cast<int>(b.size()) + 8)
          ++send_failures;
      }
    });
  }
  threads.emplace_back([&] {
    auto msg = std::make_unique<sdpmsg_t>();
    for (int i = 0; i < kFrames; ++i) {
      const int n = client_.RecvMessage(msg.get());
      if (n < 0) return;
      const std::string want = Body(kDown, i);
      if (msg->s_cmd != kDown || std::string(msg->data, static_cast<size_t>(n)) != want) ++bad;
      ++received;
    }
  });
  for (int i = 0; i < kFrames && peer_.SendFrame(2, kDown, Body(kDown, i)); ++i) {
  }
  const auto frames = peer_.WaitFrames(2 * kFrames, 10s);
  if (!PollUntil([&] { return received == kFrames; }, 10s))
    peer_.CloseConnection();  // frees the receiver
  for (auto& t : threads) t.join();

  EXPECT_EQ(received.load(), kFrames);
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(send_failures.load(), 0);
  ASSERT_EQ(frames.size(), 2u * kFrames);
  for (unsigned short tag : kTags) {
    int i = 0;
    for (const auto& f : frames) {
      if (f.s_cmd != tag) continue;
      EXPECT_TRUE(f.body == Body(tag, i)) << "tag " << tag << " frame " << i;
      ++i;
    }
    EXPECT_EQ(i, kFrames);
  }
}

TEST_F(Channel, InitWithoutListenerFailsAndStartsNoThread) {
  const std::string stale = dir_ + "/stale.sock";  // a socket file whose listener has gone
  const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa{AF_UNIX, {}};
  strncpy(sa.sun_path, stale.c_str(), sizeof(sa.sun_path) - 1);
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  close(s);

  for (auto [path, err] :
       {std::pair{dir_ + "/missing.sock", ENOENT}, std::pair{stale, ECONNREFUSED}}) {
    logs_.clear();
    TCP_Client client;  // fresh: a second Init would keep the tail of the first path
    Option o = UnixOption(path, /*reconnect=*/1);
    EXPECT_EQ(client.Init(o), -1);
    EXPECT_EQ(logs_.texts(), (Texts{std::string("anetUnixConnect failed:connect: ") + strerror(err),
                                    "Init Socket ret:-1", "Init failed"}));
    EXPECT_EQ(client.ReconnectThreads(), 0);
  }
}

TEST_F(Channel, UnknownClientTypeIsRefusedAndKeepsTheDescriptor) {
  Connect();
  logs_.clear();
  Option o = UnixOption(path_);
  o.clientType = 2;
  EXPECT_EQ(client_.Init(o), -1);
  EXPECT_EQ(logs_.texts(), (Texts{"unkonw client type:2", "Init Socket ret:-1", "Init failed"}));
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "still", 5), 13);
  EXPECT_TRUE(peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s).has_value());
}

TEST_F(Channel, LongSocketPathIsCutTo107Characters) {
  const std::string cut = dir_ + "/" + std::string(106 - dir_.size(), 'p');
  ASSERT_EQ(cut.size(), 107u);
  ASSERT_TRUE(peer_.Listen(cut));
  Option o = UnixOption(cut + std::string(93, 'q'));
  EXPECT_GT(client_.Init(o), 0);
  EXPECT_TRUE(peer_.WaitConnected(2s));
}

TEST_F(Channel, SecondInitKeepsTheTailOfTheEarlierPath) {
  Option first = UnixOption(dir_ + "/abcdefgh.sock");
  EXPECT_EQ(client_.Init(first), -1);  // nobody listens there
  ASSERT_TRUE(peer_.Listen(dir_ + "/zzcdefgh.sock"));
  Option second = UnixOption(dir_ + "/zz");
  EXPECT_GT(client_.Init(second), 0);
  EXPECT_TRUE(peer_.WaitAccepted(1, 2s));
  // Init with its own options copies nothing and connects there again.
  client_.CloseConn();
  EXPECT_GT(client_.Init(client_.option()), 0);
  EXPECT_TRUE(peer_.WaitAccepted(2, 2s));
}

TEST_F(Channel, ReconnectsWithinASecondOfThePeerComingBack) {
  Connect(/*reconnect=*/1);
  EXPECT_TRUE(logs_.has("start handle reconnect thread", google::GLOG_INFO));
  EXPECT_TRUE(logs_.wait_prefix("HandleConnReconnThread start", 2s));

  peer_.CloseConnection();  // the peer goes away
  peer_.StopListening();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  ASSERT_TRUE(logs_.wait_prefix("try connect to server", 2s));
  EXPECT_TRUE(logs_.wait_prefix("anetUnixConnect failed:connect: ", 2s));

  ASSERT_TRUE(peer_.Restart());  // ... and comes back
  const auto back = std::chrono::steady_clock::now();
  ASSERT_TRUE(peer_.WaitAccepted(2, 3s));
  EXPECT_LT(std::chrono::steady_clock::now() - back, 1800ms);
  ASSERT_TRUE(PollUntil([&] { return client_.IsAvaliable(); }));
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "hb", 2), 10);
  auto hb = peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s);
  ASSERT_TRUE(hb.has_value());
  EXPECT_EQ(hb->connection, 2u);
  EXPECT_EQ(client_.ReconnectThreads(), 1);
}

TEST_F(Channel, DestroyEndsTheReconnectThread) {
  Connect(/*reconnect=*/1);
  ASSERT_EQ(client_.ReconnectThreads(), 1);
  EXPECT_EQ(client_.Destroy(), 0);
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_TRUE(PollUntil([&] { return client_.ReconnectThreads() == 0; }, 1500ms));
  EXPECT_TRUE(peer_.WaitDisconnected(2s));
  EXPECT_EQ(peer_.AcceptedCount(), 1u) << "a stopped thread must not reconnect";
}

TEST(ChannelOptions, InitSharesTheHandlerAndItIsDeletedOnce) {
  static int deleted = 0;
  struct CountingDeal : MessageDeal {
    ~CountingDeal() override { ++deleted; }
  };
  auto client = std::make_unique<TCP_Client>();
  {
    Option o;
    o.clientType = 2;  // refused before any socket is made
    o.handler = std::make_shared<CountingDeal>();
    EXPECT_EQ(client->Init(o), -1);
  }
  EXPECT_EQ(deleted, 0) << "the channel's copy still holds it";
  client.reset();
  EXPECT_EQ(deleted, 1);
}

TEST(ChannelTcp, ConnectsWithKeepAliveAndRecordsTheLocalAddress) {
  testsupport::LogCapture logs;
  const int l = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t slen = sizeof sa;
  ASSERT_EQ(bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  ASSERT_EQ(listen(l, 4), 0);
  ASSERT_EQ(getsockname(l, reinterpret_cast<sockaddr*>(&sa), &slen), 0);
  const int port = ntohs(sa.sin_port);

  TCP_Client client;
  const int fd = client.InitConn(2, 1, "127.0.0.1", port, 0);
  ASSERT_GT(fd, 0);
  int keepalive = 0;
  socklen_t klen = sizeof keepalive;
  getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &klen);
  EXPECT_EQ(keepalive, 1);
  sockaddr_in local{};
  socklen_t llen = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &llen);
  char addr[128];
  int got_port = 0;
  client.GetClientSockName(addr, sizeof addr, &got_port);
  EXPECT_STREQ(addr, "127.0.0.1");
  EXPECT_EQ(got_port, ntohs(local.sin_port));
  EXPECT_TRUE(logs.has("client address:127.0.0.1 clientport_:" + std::to_string(got_port)));

  client.CloseConn();
  close(l);
  client.GetClientSockName(addr, sizeof addr, &got_port);
  EXPECT_TRUE(logs.has("GetClientSockName params error", google::GLOG_ERROR));
  EXPECT_EQ(client.InitConn(2, 1, "127.0.0.1", port, 0), -1);
  EXPECT_TRUE(
      logs.has(std::string("anetTcpConnect failed:creating socket: ") + strerror(ECONNREFUSED)));
}

TEST(ChannelMacAddr, FormatsTheHardwareAddressOrFails) {
  testsupport::LogCapture logs;
  TCP_Client client;
  char buf[32] = {};
  EXPECT_EQ(client.GetMacAddr("lo", buf, sizeof buf), 17);
  EXPECT_STREQ(buf, "00:00:00:00:00:00");
  EXPECT_EQ(client.GetMacAddr("nosuchif0", buf, sizeof buf), -1);
  EXPECT_TRUE(logs.has("ioctl failed", google::GLOG_ERROR));
}

}  // namespace
