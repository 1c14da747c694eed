#include "peer_server.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "CSComm.h"

namespace sdppeer {

namespace {

constexpr size_t kHead = SDPMSG_HEAD_LEN;

std::string ErrnoText(const char* what) { return std::string(what) + ": " + strerror(errno); }

}  // namespace

std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen) {
  char out[kHead];
  cscomm::EncodeFrameHeader({m_reserved, m_cmd, s_cmd, msglen}, out);
  return std::string(out, kHead);
}

std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  return EncodeHeader(0, m_cmd, s_cmd, static_cast<uint16_t>(body.size())) + body;
}

std::string Frame::Bytes() const { return EncodeHeader(m_reserved, m_cmd, s_cmd, msglen) + body; }

struct PeerServer::Conn {
  Conn(int f, uint64_t i) : fd(f), id(i) {}
  ~Conn() { ::close(fd); }  // when the last holder (reader, sender) lets go
  const int fd;
  const uint64_t id;
  bool open = true, done = false;  // under mu_; done: the reader has ended
  std::thread reader;              // touched by the accepting thread and the destructor only
  std::mutex send_mu;              // keeps the bytes of one send together
};

PeerServer::~PeerServer() {
  StopListening();
  std::vector<std::shared_ptr<Conn>> all;
  {
    std::lock_guard<std::mutex> lock(mu_);
    frame_cb_ = nullptr;
    conn_cb_ = nullptr;
    all = conns_;
  }
  for (const auto& c : all) {
    Drop(c);
    c->reader.join();
  }
}

bool PeerServer::Listen(const std::string& path, std::string* error) {
  StopListening();
  auto fail = [error](const std::string& text) {
    if (error) *error = text;
    return false;
  };
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path)
    return fail("socket path empty or longer than " + std::to_string(sizeof addr.sun_path - 1));
  memcpy(addr.sun_path, path.data(), path.size());
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(ErrnoText("socket"));
  const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (!bound || ::listen(fd, 16) != 0) {
    const std::string text = ErrnoText(bound ? "listen" : "bind");
    ::close(fd);
    if (bound) ::unlink(path.c_str());
    return fail(text);
  }
  std::lock_guard<std::mutex> lock(mu_);
  path_ = path;
  listen_fd_ = fd;
  acceptor_ = std::thread([this, fd] { Accept(fd); });
  return true;
}

bool PeerServer::Restart(std::string* error) { return Listen(Path(), error); }

void PeerServer::StopListening() {
  std::unique_lock<std::mutex> lock(mu_);
  const int fd = std::exchange(listen_fd_, -1);
  std::thread acceptor = std::move(acceptor_);
  const std::string path = path_;
  lock.unlock();
  if (fd < 0) return;
  ::shutdown(fd, SHUT_RDWR);  // ends the accept under way
  acceptor.join();
  ::close(fd);
  ::unlink(path.c_str());
}

void PeerServer::Accept(int listen_fd) {
  for (;;) {
    const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (fd < 0) return;  // shut down by StopListening
    std::shared_ptr<Conn> conn;
    ConnectionCallback cb;
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (auto it = conns_.begin(); it != conns_.end();) {  // joins readers that ended
        if (!(*it)->done) {
          ++it;
          continue;
        }
        (*it)->reader.join();
        it = conns_.erase(it);
      }
      conn = std::make_shared<Conn>(fd, ++accepted_);
      conns_.push_back(current_ = conn);
      cb = conn_cb_;
      cv_.notify_all();
    }
    if (cb) cb(conn->id, true);
    conn->reader = std::thread([this, conn] { Read(conn); });
  }
}

void PeerServer::Read(const std::shared_ptr<Conn>& conn) {
  std::string in;
  char buf[64 * 1024];
  for (;;) {
    const ssize_t n = ::recv(conn->fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    in.append(buf, static_cast<size_t>(n));
    std::vector<Frame> got;
    size_t pos = 0;
    while (in.size() - pos >= kHead) {
      const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(in.data() + pos);
      if (in.size() - pos - kHead < h.msglen) break;
      got.push_back({h.m_reserved, h.m_cmd, h.s_cmd, h.msglen, in.substr(pos + kHead, h.msglen),
                     std::chrono::steady_clock::now(), conn->id});
      pos += kHead + h.msglen;
    }
    in.erase(0, pos);
    FrameCallback cb;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (!conn->open) break;  // closed by CloseConnection: unread frames are dropped
      frames_.insert(frames_.end(), got.begin(), got.end());
      cb = frame_cb_;
      cv_.notify_all();
    }
    if (cb)
      for (const auto& f : got) cb(f);
  }
  Drop(conn);
  std::lock_guard<std::mutex> lock(mu_);
  conn->done = true;
}

void PeerServer::Drop(const std::shared_ptr<Conn>& conn) {
  ConnectionCallback cb;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!conn->open) return;
    conn->open = false;
    ::shutdown(conn->fd, SHUT_RDWR);  // wakes its reader and any sender
    if (current_ == conn) {
      current_ = nullptr;
      for (const auto& c : conns_)
        if (c->open) current_ = c;
    }
    cb = conn_cb_;
    cv_.notify_all();
  }
  if (cb) cb(conn->id, false);
}

std::shared_ptr<PeerServer::Conn> PeerServer::Current() const {
  std::lock_guard<std::mutex> lock(mu_);
  return current_;
}

std::string PeerServer::Path() const {
  std::lock_guard<std::mutex> lock(mu_);
  return path_;
}

bool PeerServer::Connected() const { return Current() != nullptr; }

uint64_t PeerServer::CurrentConnection() const {
  const auto c = Current();
  return c ? c->id : 0;
}

uint64_t PeerServer::AcceptedCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return accepted_;
}

bool PeerServer::WaitConnected(Millis timeout) const {
  return Wait(timeout, [&] { return current_ != nullptr; });
}

bool PeerServer::WaitDisconnected(Millis timeout) const {
  return Wait(timeout, [&] { return current_ == nullptr; });
}

bool PeerServer::WaitAccepted(uint64_t count, Millis timeout) const {
  return Wait(timeout, [&] { return accepted_ >= count; });
}

void PeerServer::CloseConnection() {
  if (const auto c = Current()) Drop(c);
}

void PeerServer::CloseAllConnections() {
  std::vector<std::shared_ptr<Conn>> all;
  {
    std::lock_guard<std::mutex> lock(mu_);
    all = conns_;
  }
  for (const auto& c : all) Drop(c);
}

bool PeerServer::SendFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body,
                           Millis timeout) {
  return body.size() <= UINT16_MAX && SendRaw(EncodeFrame(m_cmd, s_cmd, body), timeout);
}

bool PeerServer::SendRaw(const std::string& bytes, Millis timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto conn = Current();
  if (!conn) return false;
  std::lock_guard<std::mutex> lock(conn->send_mu);
  for (size_t off = 0; off < bytes.size();) {
    const ssize_t n =
        ::send(conn->fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      off += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    const auto left =
        std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now());
    pollfd p{conn->fd, POLLOUT, 0};
    if (errno != EAGAIN || left.count() <= 0 || ::poll(&p, 1, int(left.count()) + 1) <= 0)
      return false;
  }
  return true;
}

std::vector<Frame> PeerServer::Frames() const {
  std::lock_guard<std::mutex> lock(mu_);
  return frames_;
}

size_t PeerServer::FrameCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return frames_.size();
}

std::vector<Frame> PeerServer::TakeFrames() {
  std::lock_guard<std::mutex> lock(mu_);
  return std::exchange(frames_, {});
}

void PeerServer::ClearFrames() {
  std::lock_guard<std::mutex> lock(mu_);
  frames_.clear();
}

std::optional<Frame> PeerServer::WaitFrame(const FramePredicate& pred, Millis timeout) const {
  std::optional<Frame> found;
  Wait(timeout, [&] {
    for (const auto& f : frames_)
      if (pred(f)) return (found = f).has_value();
    return false;
  });
  return found;
}

std::optional<Frame> PeerServer::WaitFrame(uint16_t s_cmd, Millis timeout) const {
  return WaitFrame([s_cmd](const Frame& f) { return f.s_cmd == s_cmd; }, timeout);
}

std::vector<Frame> PeerServer::WaitFrames(size_t count, Millis timeout,
                                          const FramePredicate& pred) const {
  std::vector<Frame> found;
  Wait(timeout, [&] {
    found.clear();
    for (const auto& f : frames_)
      if (!pred || pred(f)) found.push_back(f);
    return found.size() >= count;
  });
  return found;
}

void PeerServer::SetFrameCallback(FrameCallback cb) {
  std::lock_guard<std::mutex> lock(mu_);
  frame_cb_ = std::move(cb);
}

void PeerServer::SetConnectionCallback(ConnectionCallback cb) {
  std::lock_guard<std::mutex> lock(mu_);
  conn_cb_ = std::move(cb);
}

}  // namespace sdppeer
