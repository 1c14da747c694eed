// The channel against a real Unix socket in a temporary directory, with the
// test peer playing the daemon.
#include "tcp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "anet.h"
#include "log_capture.h"
#include "peer_server.h"

using namespace std::chrono_literals;
using sdppeer::PeerServer;

namespace {

class TempDir {
 public:
  TempDir() {
    std::string tmpl = ::testing::TempDir() + "chanXXXXXX";
    if (mkdtemp(tmpl.data())) path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string Hex(const std::string& bytes) {
  std::string out;
  char b[4];
  for (unsigned char c : bytes) {
    snprintf(b, sizeof b, "%s%02x", out.empty() ? "" : " ", c);
    out += b;
  }
  return out;
}

bool LittleEndian() {
  const uint16_t probe = 1;
  return *reinterpret_cast<const unsigned char*>(&probe) == 1;
}

// A body whose size and content follow from (tag, i), so that any mixing of
// two frames' bytes shows.
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
bool PollUntil(Pred pred, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// Position of the first record with this exact text, -1 when absent.
int IndexOf(const std::vector<std::string>& texts, const std::string& text) {
  for (size_t i = 0; i < texts.size(); ++i)
    if (texts[i] == text) return static_cast<int>(i);
  return -1;
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    std::string err;
    ASSERT_TRUE(peer_.Listen(path_, &err)) << err;
  }

  // Connects the client (again) and waits until the peer has accepted it.
  int Connect(int reconnect = 0) {
    const uint64_t before = peer_.AcceptedCount();
    Option o = UnixOption(path_, reconnect);
    const int fd = client_.Init(o);
    EXPECT_GT(fd, 0);
    EXPECT_TRUE(peer_.WaitAccepted(before + 1, 2s));
    return fd;
  }

  TempDir dir_;
  std::string path_ = dir_.path() + "/d.sock";
  PeerServer peer_;
  testsupport::LogCapture logs_;
  TCP_Client client_;  // last: gone before the peer it talks to
  std::unique_ptr<sdpmsg_t> msg_ = std::make_unique<sdpmsg_t>();
};

// ---- Sending -------------------------------------------------------------

TEST_F(Channel, SendWritesExactFrameBytes) {
  Connect();
  struct Case {
    unsigned short s_cmd;
    std::string body;
    std::string hex;  // little-endian wire image
  } cases[] = {
      {SDP_PROTO_HEARTBEAT, "abc", "00 00 01 00 11 11 03 00 61 62 63"},
      {SDP_PROTO_REGISTER, std::string("1005abc\n", 9), "00 00 01 00 05 10 09 00 31 30 30 35 61 62 63 0a 00"},
      {SDP_PROTO_HTTPS_QUERY, "", "00 00 01 00 13 11 00 00"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    peer_.ClearFrames();
    EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, c.s_cmd, c.body.data(), static_cast<int>(c.body.size())),
              static_cast<int>(c.body.size()) + 8);
    auto f = peer_.WaitFrame(c.s_cmd, 2s);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->Bytes(), sdppeer::EncodeFrame(MCMD_TO_DAEMON, c.s_cmd, c.body));
    if (LittleEndian()) {
      EXPECT_EQ(Hex(f->Bytes()), c.hex);
    }
  }
  EXPECT_EQ(logs_.count_prefix("warning msglen:"), 0);
}

TEST_F(Channel, SendCutsOversizeBodyAndWarns) {
  Connect();
  std::string src(70000, '\0');
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<char>('a' + i % 26);
  struct Case {
    int len;
    const char* warning;  // nullptr: sent whole
  } cases[] = {
      {MAX_MSGLEN, nullptr},
      {MAX_MSGLEN + 1, "warning msglen:64504 over max msglen:64503 cut message m_cmd:1 s_cmd:4369"},
      {-1, "warning msglen:-1 over max msglen:64503 cut message m_cmd:1 s_cmd:4369"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.len);
    logs_.clear();
    peer_.ClearFrames();
    EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(), c.len), 64511);
    // A small frame behind it shows the stream is still in step.
    ASSERT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_REGISTER, "x", 1), 9);
    auto frames = peer_.WaitFrames(2, 2s);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].msglen, MAX_MSGLEN);
    EXPECT_EQ(frames[0].body, src.substr(0, MAX_MSGLEN));
    EXPECT_EQ(frames[1].body, "x");
    if (c.warning) {
      EXPECT_TRUE(logs_.has(c.warning, google::GLOG_WARNING));
    } else {
      EXPECT_EQ(logs_.count_prefix("warning msglen:"), 0);
    }
  }
}

TEST_F(Channel, SendWithoutConnectionFailsQuietly) {
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  EXPECT_TRUE(logs_.texts().empty());
}

std::atomic<int> g_sigpipes{0};

TEST_F(Channel, SendToVanishedPeerFailsWithEpipeAndNoSigpipe) {
  struct sigaction count{}, old{};
  count.sa_handler = [](int) { g_sigpipes++; };
  sigaction(SIGPIPE, &count, &old);
  g_sigpipes = 0;

  Connect();
  peer_.CloseConnection();
  EXPECT_EQ(client_.SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3), -1);
  EXPECT_TRUE(logs_.has("errno: EPIPE (connection broken)", google::GLOG_ERROR));
  EXPECT_TRUE(client_.IsAvaliable()) << "a failed send must not close the connection";
  EXPECT_EQ(g_sigpipes.load(), 0);
  sigaction(SIGPIPE, &old, nullptr);
}

// ---- Receiving -----------------------------------------------------------

TEST_F(Channel, ReceiveZeroFillsTheRecordBeforeEveryFrame) {
  Connect();
  const std::string big(MAX_MSGLEN, 'z');
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, big));
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SDP_PROTO_HEARTBEAT, ""));
  ASSERT_TRUE(peer_.SendFrame(MCMD_FROM_DAEMON, SANDBOX_S2B_OPEN_DRAVIN_PORTAL, "abc"));

  memset(msg_.get(), 0x5A, sizeof *msg_);
  ASSERT_EQ(client_.RecvMessage(msg_.get()), MAX_MSGLEN);
  EXPECT_EQ(std::string(msg_->data, MAX_MSGLEN), big);
  EXPECT_EQ(msg_->data[MAX_MSGLEN], '\0') << "a full body still leaves its terminator";

  ASSERT_EQ(client_.RecvMessage(msg_.get()), 0);
  EXPECT_EQ(msg_->m_cmd, MCMD_FROM_DAEMON);
  EXPECT_EQ(msg_->s_cmd, SDP_PROTO_HEARTBEAT);
  EXPECT_EQ(msg_->msglen, 0);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data), std::string(sizeof msg_->data, '\0'));

  ASSERT_EQ(client_.RecvMessage(msg_.get()), 3);
  EXPECT_EQ(msg_->s_cmd, SANDBOX_S2B_OPEN_DRAVIN_PORTAL);
  EXPECT_EQ(std::string(msg_->data, sizeof msg_->data),
            "abc" + std::string(sizeof msg_->data - 3, '\0'));
  EXPECT_TRUE(client_.IsAvaliable());
}

TEST_F(Channel, OversizeHeaderAbandonsTheStreamAndCloses) {
  const int fd = Connect();
  // A valid-looking body follows; it must not be taken for a frame.
  ASSERT_TRUE(peer_.SendRaw(sdppeer::EncodeHeader(0, 2, 4097, 64504) +
                            sdppeer::EncodeFrame(2, 4097, "next")));
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  const auto texts = logs_.texts();
  const int got = IndexOf(texts, "got error message:2 4097 0 64504");
  const int failed = IndexOf(texts, "read  package  failed");
  const int closed = IndexOf(texts, "TCP_Client::CloseConn() fd:" + std::to_string(fd));
  EXPECT_GE(got, 0);
  EXPECT_GT(failed, got);
  EXPECT_GT(closed, failed);
  EXPECT_TRUE(logs_.has("got error message:2 4097 0 64504", google::GLOG_ERROR));
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_TRUE(peer_.WaitDisconnected(2s)) << "the peer must see the client close";
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
}

TEST_F(Channel, PeerClosingMidStreamFailsTheReceive) {
  const std::string header10 = sdppeer::EncodeHeader(0, 2, SANDBOX_S2B_OPENBSAPP, 10);
  struct Case {
    const char* name;
    std::string tail;  // sent after one whole frame, just before the close
    const char* error;
  } cases[] = {
      {"between frames", "", "read pack head failed:"},
      {"inside the header", header10.substr(0, 4), "read pack head failed:"},
      {"inside the body", header10 + "abc", "read pack body failed:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
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

TEST_F(Channel, ReceiveWithoutConnectionReturnsAtOnceAndQuietly) {
  EXPECT_FALSE(client_.IsAvaliable());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 200ms);
  EXPECT_TRUE(logs_.texts().empty());
}

// ---- Concurrency ---------------------------------------------------------

TEST_F(Channel, ConcurrentSendersAndReceiverKeepEveryFrameWhole) {
  Connect();
  constexpr int kPerSender = 60;
  constexpr int kToClient = 60;
  constexpr unsigned short kTags[] = {0x2001, 0x2002};
  constexpr unsigned short kDown = 0x3003;

  std::atomic<int> send_failures{0};
  std::vector<std::thread> senders;
  for (unsigned short tag : kTags) {
    senders.emplace_back([&, tag] {
      for (int i = 0; i < kPerSender; ++i) {
        const std::string b = Body(tag, i);
        if (client_.SendMessage(MCMD_TO_DAEMON, tag, b.data(), static_cast<int>(b.size())) !=
            static_cast<int>(b.size()) + 8)
          ++send_failures;
      }
    });
  }
  std::atomic<int> received{0};
  std::atomic<int> bad{0};
  std::thread receiver([&] {
    auto msg = std::make_unique<sdpmsg_t>();
    for (int i = 0; i < kToClient; ++i) {
      const int n = client_.RecvMessage(msg.get());
      if (n < 0) return;
      const std::string want = Body(kDown, i);
      if (msg->s_cmd != kDown || n != static_cast<int>(want.size()) ||
          memcmp(msg->data, want.data(), want.size()) != 0)
        ++bad;
      ++received;
    }
  });

  int peer_sent = 0;
  while (peer_sent < kToClient && peer_.SendFrame(MCMD_FROM_DAEMON, kDown, Body(kDown, peer_sent)))
    ++peer_sent;
  for (auto& t : senders) t.join();
  const auto frames = peer_.WaitFrames(2 * kPerSender, 30s);
  PollUntil([&] { return received.load() == peer_sent; }, 30s);
  if (received.load() < kToClient) peer_.CloseConnection();  // wakes a receiver left waiting
  receiver.join();

  EXPECT_EQ(peer_sent, kToClient);
  EXPECT_EQ(received.load(), kToClient);
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(send_failures.load(), 0);
  ASSERT_EQ(frames.size(), 2u * kPerSender);
  for (unsigned short tag : kTags) {
    int i = 0;
    for (const auto& f : frames) {
      if (f.s_cmd != tag) continue;
      EXPECT_EQ(f.m_cmd, MCMD_TO_DAEMON);
      EXPECT_TRUE(f.body == Body(tag, i)) << "tag " << tag << " frame " << i;
      ++i;
    }
    EXPECT_EQ(i, kPerSender) << "tag " << tag;
  }
}

// ---- Connecting ----------------------------------------------------------

TEST_F(Channel, InitWithoutListenerFailsAndStartsNoThread) {
  // A path with nothing at all, and a socket file whose listener has gone.
  const std::string stale = dir_.path() + "/stale.sock";
  {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, stale.c_str(), sizeof(sa.sun_path) - 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    close(s);
  }
  struct Case {
    std::string path;
    int err;
  } cases[] = {{dir_.path() + "/missing.sock", ENOENT}, {stale, ECONNREFUSED}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    logs_.clear();
    TCP_Client client;  // fresh: a second Init would keep the tail of the first path
    Option o = UnixOption(c.path, /*reconnect=*/1);
    EXPECT_EQ(client.Init(o), -1);
    EXPECT_EQ(logs_.texts(), (std::vector<std::string>{
                                 std::string("anetUnixConnect failed:connect: ") + strerror(c.err),
                                 "Init Socket ret:-1", "Init failed"}));
    EXPECT_TRUE(logs_.has("Init failed", google::GLOG_ERROR));
    EXPECT_EQ(client.ReconnectThreads(), 0);
    EXPECT_FALSE(client.IsAvaliable());
  }
}

TEST_F(Channel, UnknownClientTypeIsRefusedAndKeepsTheDescriptor) {
  Connect();
  logs_.clear();
  Option o = UnixOption(path_);
  o.clientType = 2;
  EXPECT_EQ(client_.Init(o), -1);
  EXPECT_EQ(logs_.texts(),
            (std::vector<std::string>{"unkonw client type:2", "Init Socket ret:-1", "Init failed"}));
  EXPECT_TRUE(client_.IsAvaliable()) << "the earlier descriptor stays";
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "still", 5), 13);
  EXPECT_TRUE(peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s).has_value());
}

TEST_F(Channel, DescriptorIsBlockingCloseOnExecWithTimeouts) {
  Option o = UnixOption(path_);
  o.recvTimeout = 7;
  o.sendTimeout = 9;
  const int fd = client_.Init(o);
  ASSERT_GT(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  timeval tv{};
  socklen_t len = sizeof tv;
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
  EXPECT_EQ(tv.tv_sec, 7);
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
  EXPECT_EQ(tv.tv_sec, 9);
  EXPECT_TRUE(logs_.has("Init Socket ret:0", google::GLOG_INFO));
}

TEST_F(Channel, LongSocketPathIsCutTo107Characters) {
  const std::string prefix = dir_.path() + "/";
  ASSERT_LT(prefix.size(), 100u);
  const std::string cut = prefix + std::string(107 - prefix.size(), 'p');
  ASSERT_EQ(cut.size(), 107u);
  ASSERT_TRUE(peer_.Listen(cut));
  Option o = UnixOption(cut + std::string(200 - cut.size(), 'q'));
  ASSERT_EQ(strlen(o.unixPath), 200u);
  EXPECT_GT(client_.Init(o), 0);
  EXPECT_TRUE(peer_.WaitConnected(2s));
}

TEST_F(Channel, SecondInitKeepsTheTailOfTheEarlierPath) {
  Option first = UnixOption(dir_.path() + "/abcdefgh.sock");
  EXPECT_EQ(client_.Init(first), -1);  // nobody listens there

  // The shorter path is copied without a terminator over the longer one.
  ASSERT_TRUE(peer_.Listen(dir_.path() + "/zzcdefgh.sock"));
  Option second = UnixOption(dir_.path() + "/zz");
  EXPECT_GT(client_.Init(second), 0);
  EXPECT_TRUE(peer_.WaitAccepted(1, 2s));
  EXPECT_STREQ(client_.option().unixPath, (dir_.path() + "/zzcdefgh.sock").c_str());

  // Init with its own options copies nothing and connects there again.
  client_.CloseConn();
  EXPECT_GT(client_.Init(client_.option()), 0);
  EXPECT_TRUE(peer_.WaitAccepted(2, 2s));
}

TEST_F(Channel, CloseConnIsIdempotentAndLogsOnce) {
  const int fd = Connect();
  client_.CloseConn();
  client_.CloseConn();
  EXPECT_EQ(logs_.count_prefix("TCP_Client::CloseConn() fd:"), 1);
  EXPECT_TRUE(logs_.has("TCP_Client::CloseConn() fd:" + std::to_string(fd), google::GLOG_INFO));
  EXPECT_FALSE(client_.IsAvaliable());
  EXPECT_TRUE(peer_.WaitDisconnected(2s));
}

// ---- Reconnecting --------------------------------------------------------

TEST_F(Channel, ReconnectsWithinASecondOfThePeerComingBack) {
  Connect(/*reconnect=*/1);
  EXPECT_TRUE(logs_.has("start handle reconnect thread", google::GLOG_INFO));
  EXPECT_TRUE(logs_.wait_prefix("HandleConnReconnThread start", 2s));
  EXPECT_EQ(client_.ReconnectThreads(), 1);

  // The peer goes away: the receive fails and closes, which wakes the thread.
  peer_.CloseConnection();
  peer_.StopListening();
  EXPECT_EQ(client_.RecvMessage(msg_.get()), -1);
  EXPECT_FALSE(client_.IsAvaliable());
  ASSERT_TRUE(logs_.wait_prefix("try connect to server", 2s));
  EXPECT_TRUE(logs_.wait_prefix("anetUnixConnect failed:connect: ", 2s));

  ASSERT_TRUE(peer_.Restart());
  const auto back = std::chrono::steady_clock::now();
  ASSERT_TRUE(peer_.WaitAccepted(2, 3s));
  EXPECT_LT(std::chrono::steady_clock::now() - back, 1800ms);
  EXPECT_TRUE(PollUntil([&] { return client_.IsAvaliable(); }, 2s));

  // Both directions work on the new connection.
  EXPECT_EQ(client_.SendMessage(1, SDP_PROTO_HEARTBEAT, "hb", 2), 10);
  auto hb = peer_.WaitFrame(SDP_PROTO_HEARTBEAT, 2s);
  ASSERT_TRUE(hb.has_value());
  EXPECT_EQ(hb->connection, 2u);
  ASSERT_TRUE(peer_.SendFrame(2, SANDBOX_S2B_RESPONSE, "ok"));
  EXPECT_EQ(client_.RecvMessage(msg_.get()), 2);
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

// ---- Options and TCP -----------------------------------------------------

TEST(ChannelOptions, InitSharesTheHandlerAndItIsDeletedOnce) {
  static int deleted = 0;
  struct CountingDeal : MessageDeal {
    ~CountingDeal() override { ++deleted; }
  };
  deleted = 0;
  auto client = std::make_unique<TCP_Client>();
  {
    Option o;
    o.clientType = 2;  // refused before any socket is made
    o.handler = std::make_shared<CountingDeal>();
    EXPECT_EQ(client->Init(o), -1);
  }
  EXPECT_EQ(deleted, 0) << "the channel's copy still holds it";
  EXPECT_NE(client->option().handler, nullptr);
  client.reset();
  EXPECT_EQ(deleted, 1);
}

TEST(ChannelTcp, ConnectsAndRecordsTheLocalAddress) {
  testsupport::LogCapture logs;
  int l = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(l, 0);
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
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &klen), 0);
  EXPECT_EQ(keepalive, 1);

  sockaddr_in peer{};
  socklen_t plen = sizeof peer;
  const int a = accept4(l, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
  ASSERT_GE(a, 0);
  const int local_port = ntohs(peer.sin_port);
  EXPECT_TRUE(logs.has("client address:127.0.0.1 clientport_:" + std::to_string(local_port),
                       google::GLOG_INFO));
  char addr[128];
  int got_port = 0;
  client.GetClientSockName(addr, sizeof addr, &got_port);
  EXPECT_STREQ(addr, "127.0.0.1");
  EXPECT_EQ(got_port, local_port);

  client.CloseConn();
  close(a);
  close(l);
  got_port = -7;
  client.GetClientSockName(addr, sizeof addr, &got_port);
  EXPECT_TRUE(logs.has("GetClientSockName params error", google::GLOG_ERROR));
  EXPECT_EQ(got_port, -7);

  // Nobody listens on the port any more.
  EXPECT_EQ(client.InitConn(2, 1, "127.0.0.1", port, 0), -1);
  EXPECT_TRUE(logs.has(std::string("anetTcpConnect failed:creating socket: ") + strerror(ECONNREFUSED),
                       google::GLOG_ERROR));
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

// ---- anet helpers --------------------------------------------------------

TEST(Anet, BlockingModeTogglesAndErrorsNameTheCall) {
  char err[ANET_ERR_LEN] = {};
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(s, 0);
  EXPECT_EQ(anetNonBlock(err, s), ANET_OK);
  EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(anetBlock(err, s), ANET_OK);
  EXPECT_FALSE(fcntl(s, F_GETFL) & O_NONBLOCK);
  close(s);

  struct Case {
    int (*call)(char*, int);
    std::string text;
  } cases[] = {
      {anetNonBlock, std::string("fcntl(F_GETFL): ") + strerror(EBADF)},
      {anetTcpKeepAlive, std::string("setsockopt SO_KEEPALIVE: ") + strerror(EBADF)},
      {anetSetReuseAddr, std::string("setsockopt SO_REUSEADDR: ") + strerror(EBADF)},
  };
  for (const Case& c : cases) {
    memset(err, 0, sizeof err);
    EXPECT_EQ(c.call(err, -1), ANET_ERR);
    EXPECT_EQ(std::string(err), c.text);
    EXPECT_EQ(c.call(nullptr, -1), ANET_ERR) << "a null error buffer is allowed";
  }
}

TEST(Anet, NonBlockingUnixConnectGivesANonBlockingDescriptor) {
  TempDir dir;
  PeerServer peer;
  ASSERT_TRUE(peer.Listen(dir.path() + "/nb.sock"));
  char err[ANET_ERR_LEN] = {};
  const int fd = anetUnixNonBlockConnect(err, (dir.path() + "/nb.sock").c_str());
  ASSERT_GT(fd, 0) << err;
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(peer.WaitConnected(2s));
  close(fd);
}

}  // namespace
