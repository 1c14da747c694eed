#include "tcp_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "anet.h"

namespace {

constexpr std::chrono::seconds kReconnectInterval{1};
// How long a receive waits for the reconnect thread while the connection is
// down. Its caller logs each failed receive, so this is also the pace of that
// line during an outage: about once a second instead of thousands of times.
constexpr std::chrono::seconds kRecvWaitWhileDown{1};

// Reads exactly `len` bytes; false when recv reports end of stream or an error.
bool RecvAll(int fd, char* buf, size_t len) {
  size_t got = 0;
  while (got < len) {
    ssize_t n = recv(fd, buf + got, len - got, 0);
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

// Copies a string field by its length and without a terminator, as the
// channel always has: a shorter new value leaves the tail of the old one
// behind it. The last byte is never written, so the field stays terminated.
template <size_t N>
void CopyUnterminated(char (&dst)[N], const char (&src)[N]) {
  memcpy(dst, src, strnlen(src, N - 1));
}

class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() {
    if (fd_ >= 0) close(fd_);
  }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  int fd_;
};

}  // namespace

TCP_Client::TCP_Client() : stop_(false), sockfd_(-1) {
  option_.reserved1[0] = 0;
  option_.reserved1[1] = 1;
  option_.reserved1[2] = 1;
  option_.reserved1[3] = 5;
  option_.reserved2 = 0;
  option_.reconnect = 0;
  option_.protocol = 2;
  option_.version = 1;
  option_.sendTimeout = 0;
  option_.recvTimeout = 0;
  option_.clientType = 2;
  option_.handler = nullptr;
}

TCP_Client::~TCP_Client() {
  // A detached reconnect thread would outlive the object and touch freed
  // memory, so the destructor ends it itself before closing.
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(reconn_mu_);
    stop_.store(true, std::memory_order_release);
    threads.swap(reconn_threads_);
  }
  reconn_cv_.notify_all();
  for (auto& t : threads)
    if (t.joinable()) t.join();
  CloseConn();
  option_.handler.reset();
}

void TCP_Client::CopyOption(const Option& opt) {
  option_.reserved0 = opt.reserved0;
  memcpy(option_.reserved1, opt.reserved1, sizeof option_.reserved1);
  option_.reserved2 = opt.reserved2;
  option_.reconnect = opt.reconnect;
  option_.port = opt.port;
  option_.protocol = opt.protocol;
  option_.version = opt.version;
  option_.sendTimeout = opt.sendTimeout;
  option_.recvTimeout = opt.recvTimeout;
  CopyUnterminated(option_.unixPath, opt.unixPath);
  CopyUnterminated(option_.host, opt.host);
  option_.clientType = opt.clientType;
  option_.handler = opt.handler;
}

int TCP_Client::Init(Option& opt) {
  if (&opt != &option_) CopyOption(opt);
  if (InitSocket() != 0) {
    LOG(ERROR) << "Init failed";
    return -1;
  }
  const int fd = sockfd_.load();
  if (opt.recvTimeout != 0) {
    timeval tv{opt.recvTimeout, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  if (opt.sendTimeout != 0) {
    timeval tv{opt.sendTimeout, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  }
  if (option_.reconnect != 0) {
    // One reconnect thread is enough: a second one could race the first to
    // reconnect and leave an extra connection open.
    bool start = false;
    {
      std::lock_guard<std::mutex> lock(reconn_mu_);
      if (reconn_running_ == 0) {
        start = true;
        ++reconn_running_;
      }
    }
    if (start) {
      LOG(INFO) << "start handle reconnect thread";
      std::thread t([this] {
        HandleClientReconn();
        std::lock_guard<std::mutex> lock(reconn_mu_);
        --reconn_running_;
      });
      std::lock_guard<std::mutex> lock(reconn_mu_);
      reconn_threads_.push_back(std::move(t));
    }
  }
  return sockfd_.load();
}

int TCP_Client::InitConn(unsigned short protocol, unsigned short version, const char* host,
                         int port, int reconnect) {
  Option opt;
  opt.protocol = protocol;
  opt.version = version;
  opt.port = static_cast<uint16_t>(port);
  opt.reconnect = static_cast<uint8_t>(reconnect);
  opt.clientType = CLIENT_TYPE_TCP;
  if (host) strncpy(opt.host, host, sizeof(opt.host) - 1);
  return Init(opt);
}

int TCP_Client::InitSocket() {
  std::lock_guard<std::mutex> lock(fdmutex_);
  char err[ANET_ERR_LEN];
  int ret = -1;
  // An earlier descriptor is overwritten, not closed: only a second Init while
  // connected gets here with one, and its connection is left as it is.
  if (option_.clientType == CLIENT_TYPE_UNIX) {
    memset(err, 0, sizeof err);
    peer_refusal_.clear();
    const int fd = anetUnixConnect(err, option_.unixPath);
    sockfd_.store(fd);
    if (fd == ANET_ERR) {
      LOG(ERROR) << "anetUnixConnect failed:" << err;
    } else {
      // Whoever listens on the socket gets to send commands: only root or
      // the client's own user may. Anyone could have bound the name first.
      ucred cred{};
      socklen_t len = sizeof cred;
      const std::string why =
          getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0
              ? PeerUidRefusal(cred.uid, geteuid())
              : std::string("SO_PEERCRED: ") + strerror(errno);
      if (why.empty()) {
        ret = 0;
      } else {
        peer_refusal_ = std::string(option_.unixPath) + ": " + why;
        LOG(ERROR) << "not trusted: " << peer_refusal_;
        close(fd);
        sockfd_.store(-1);
      }
    }
  } else if (option_.clientType == CLIENT_TYPE_TCP) {
    memset(err, 0, sizeof err);
    const int fd = anetTcpConnect(err, option_.host, option_.port);
    if (fd == ANET_ERR) {
      LOG(ERROR) << "anetTcpConnect failed:" << err;
      sockfd_.store(-1);
    } else {
      sockfd_.store(fd);
      memset(err, 0, sizeof err);
      sockaddr_in local;
      memset(&local, 0, sizeof local);
      socklen_t local_len = sizeof local;
      if (anetTcpKeepAlive(err, fd) == ANET_ERR) {
        LOG(ERROR) << "anetTcpKeepAlive failed:" << err;
        close(fd);
        sockfd_.store(-1);
      } else if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) == -1) {
        LOG(ERROR) << "getsockname failed:" << strerror(errno);
        close(fd);
        sockfd_.store(-1);
      } else {
        memset(clientaddr_, 0, sizeof clientaddr_);
        inet_ntop(AF_INET, &local.sin_addr, clientaddr_, sizeof clientaddr_);
        clientport_ = ntohs(local.sin_port);
        LOG(INFO) << "client address:" << clientaddr_ << " clientport_:" << clientport_;
        ret = 0;
      }
    }
  } else {
    // "unkonw" is the text the logs have always carried; kept on purpose.
    LOG(ERROR) << "unkonw client type:" << option_.clientType;
  }
  LOG(INFO) << "Init Socket ret:" << ret;
  if (ret == 0) connected_cv_.notify_all();
  return ret;
}

void TCP_Client::HandleClientReconn() {
  LOG(INFO) << "HandleConnReconnThread start";
  while (!stop_.load(std::memory_order_acquire)) {
    int fd;
    {
      std::lock_guard<std::mutex> lock(fdmutex_);
      fd = sockfd_.load();
    }
    if (fd <= 0) {
      LOG(INFO) << "try connect to server";
      InitSocket();
    }
    // A one-second pause that Destroy() cuts short.
    std::unique_lock<std::mutex> lock(reconn_mu_);
    reconn_cv_.wait_for(lock, kReconnectInterval,
                        [this] { return stop_.load(std::memory_order_acquire); });
  }
}

bool TCP_Client::IsAvaliable() {
  std::lock_guard<std::mutex> lock(fdmutex_);
  return sockfd_.load() > 0;
}

void TCP_Client::CloseConn() {
  std::lock_guard<std::mutex> lock(fdmutex_);
  const int fd = sockfd_.load();
  // Descriptor 0 counts as open here, though everything else treats it as
  // "not connected"; kept as it has always been.
  if (fd >= 0) {
    LOG(INFO) << "TCP_Client::CloseConn() fd:" << fd;
    shutdown(fd, SHUT_RDWR);  // also ends the copies senders hold
    close(fd);
    sockfd_.store(-1);
  }
}

int TCP_Client::Destroy() {
  // Stop first, so that the thread cannot reconnect what is closed next.
  {
    std::lock_guard<std::mutex> lock(reconn_mu_);
    stop_.store(true, std::memory_order_release);
  }
  reconn_cv_.notify_all();
  CloseConn();
  return 0;
}

std::string TCP_Client::PeerRefusal() {
  std::lock_guard<std::mutex> lock(fdmutex_);
  return peer_refusal_;
}

std::string TCP_Client::PeerUidRefusal(uid_t peerUid, uid_t self) {
  if (peerUid == 0 || peerUid == self) return "";
  return "peer uid " + std::to_string(peerUid) + " is neither root nor the client's uid " +
         std::to_string(self);
}

int TCP_Client::ReconnectThreads() {
  std::lock_guard<std::mutex> lock(reconn_mu_);
  return reconn_running_;
}

void TCP_Client::GetClientSockName(char* buf, int len, int* port) {
  std::lock_guard<std::mutex> lock(fdmutex_);
  if (len < 1 || port == nullptr || buf == nullptr || sockfd_.load() <= 0) {
    LOG(ERROR) << "GetClientSockName params error";
    return;
  }
  memcpy(buf, clientaddr_, std::min(static_cast<size_t>(len), sizeof clientaddr_));
  *port = clientport_;
}

int TCP_Client::GetMacAddr(const char* ifname, char* buf, int len) {
  if (ifname == nullptr || buf == nullptr || len < 1) {
    LOG(ERROR) << "GetMacAddr params error";
    return -1;
  }
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) {
    LOG(ERROR) << "socket failed";
    return -1;
  }
  FdCloser closer(s);
  ifreq ifr;
  memset(&ifr, 0, sizeof ifr);
  strncpy(ifr.ifr_name, ifname, sizeof(ifr.ifr_name) - 1);
  if (ioctl(s, SIOCGIFHWADDR, &ifr) < 0) {
    LOG(ERROR) << "ioctl failed";
    return -1;
  }
  const unsigned char* mac = reinterpret_cast<const unsigned char*>(ifr.ifr_hwaddr.sa_data);
  return snprintf(buf, static_cast<size_t>(len), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1],
                  mac[2], mac[3], mac[4], mac[5]);
}

int TCP_Client::SendMessage(unsigned short m_cmd, unsigned short s_cmd, const char* data, int len) {
  // The frame goes out on a copy of the descriptor taken under fdmutex_: the
  // receiver may close the connection (and the reconnect thread reuse its
  // number for a new one) while a send is under way, and a bare number would
  // then name some other file. CloseConn shuts the socket down, so a send
  // blocked on a peer that stopped reading ends there too.
  int fd;
  {
    std::lock_guard<std::mutex> lock(fdmutex_);
    const int cur = sockfd_.load();
    fd = cur >= 0 ? fcntl(cur, F_DUPFD_CLOEXEC, 0) : -1;
  }
  FdCloser closer(fd);
  return rwriter_.SendMessage(fd, m_cmd, s_cmd, data, len);
}

int TCP_Client::RecvMessage(sdpmsg_t* msg) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(fdmutex_);
    fd = sockfd_.load();
  }
  if (fd <= 0) {
    if (ReconnectThreads() == 0) {
      usleep(500);  // nobody reconnects: only keeps a looping caller from spinning
      return -1;
    }
    // The reconnect thread tries once a second; the receive goes on as soon
    // as it has succeeded.
    std::unique_lock<std::mutex> lock(fdmutex_);
    connected_cv_.wait_for(lock, kRecvWaitWhileDown, [this] { return sockfd_.load() > 0; });
    fd = sockfd_.load();
    if (fd <= 0) return -1;
  }

  bool ok = false;
  {
    std::lock_guard<std::mutex> lock(rwriter_.rmutex_);
    memset(msg, 0, sizeof *msg);
    char head[SDPMSG_HEAD_LEN];
    if (!RecvAll(fd, head, sizeof head)) {
      const int e = errno;
      LOG(ERROR) << "read pack head failed:" << e << " " << strerror(e);
    } else {
      const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(head);
      msg->m_reserved = h.m_reserved;
      msg->m_cmd = h.m_cmd;
      msg->s_cmd = h.s_cmd;
      msg->msglen = h.msglen;
      if (cscomm::IsOversize(h)) {
        // No way to find the next frame boundary: the stream is given up.
        LOG(ERROR) << "got error message:" << h.m_cmd << " " << h.s_cmd << " " << h.m_reserved
                   << " " << h.msglen;
      } else if (h.msglen == 0 || RecvAll(fd, msg->data, h.msglen)) {
        ok = true;
      } else {
        const int e = errno;
        LOG(ERROR) << "read pack body failed:" << e << " " << strerror(e);
      }
    }
  }
  if (!ok) {
    // Two spaces either side of "package": the text as it has always read.
    LOG(ERROR) << "read  package  failed";
    CloseConn();
    return -1;
  }
  return msg->msglen;
}
