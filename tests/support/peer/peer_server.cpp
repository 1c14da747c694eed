#include "peer_server.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "CSComm.h"

namespace sdppeer {

namespace {

constexpr size_t kHeaderLen = SDPMSG_HEAD_LEN;
constexpr std::chrono::milliseconds kIoCommandTimeout{10000};
// Reads per connection per wake-up, so that one busy client cannot starve the others.
constexpr int kReadsPerWake = 16;

std::string ErrnoText(const char* what) { return std::string(what) + ": " + strerror(errno); }

}  // namespace

std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen) {
  // The product's own codec: the peer frames bytes exactly as the client does.
  char out[kHeaderLen];
  cscomm::EncodeFrameHeader({m_reserved, m_cmd, s_cmd, msglen}, out);
  return std::string(out, kHeaderLen);
}

std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  return EncodeHeader(0, m_cmd, s_cmd, static_cast<uint16_t>(body.size())) + body;
}

std::string Frame::Bytes() const { return EncodeHeader(m_reserved, m_cmd, s_cmd, msglen) + body; }

struct PeerServer::Conn {
  Conn(int f, uint64_t i) : fd(f), id(i) {}
  ~Conn() { ::close(fd); }
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;

  const int fd;  // non-blocking; closed when the last holder lets go
  const uint64_t id;
  // Keeps the bytes of one send call together. A plain mutex: its holder gives
  // up by its own deadline, so waiting for it is bounded too.
  std::mutex send_mu;
  std::string inbuf;  // bytes not yet cut into frames; I/O thread only
};

PeerServer::PeerServer() {
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  io_thread_ = std::thread([this] { IoLoop(); });
}

PeerServer::~PeerServer() {
  {
    std::lock_guard<std::mutex> lock(cmd_mu_);
    quit_ = true;
  }
  Wake();
  io_thread_.join();
  CloseListenFd();
  conns_.clear();
  {
    std::lock_guard<std::mutex> lock(mu_);
    current_.reset();
  }
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

void PeerServer::Wake() {
  uint64_t one = 1;
  if (wake_fd_ >= 0) {
    ssize_t n = ::write(wake_fd_, &one, sizeof one);
    (void)n;  // a full counter still wakes the poll
  }
}

void PeerServer::RunOnIo(std::function<void()> fn) {
  if (std::this_thread::get_id() == io_thread_.get_id()) {
    fn();
    return;
  }
  struct Done {
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
  };
  auto done = std::make_shared<Done>();
  {
    std::lock_guard<std::mutex> lock(cmd_mu_);
    cmds_.push_back([fn = std::move(fn), done] {
      fn();
      std::lock_guard<std::mutex> l(done->mu);
      done->done = true;
      done->cv.notify_all();
    });
  }
  Wake();
  std::unique_lock<std::mutex> lock(done->mu);
  done->cv.wait_for(lock, kIoCommandTimeout, [&] { return done->done; });
}

void PeerServer::IoLoop() {
  for (;;) {
    std::vector<std::function<void()>> cmds;
    bool quit;
    {
      std::lock_guard<std::mutex> lock(cmd_mu_);
      cmds.swap(cmds_);
      quit = quit_;
    }
    for (auto& cmd : cmds) cmd();
    if (quit) return;

    std::vector<pollfd> pfds;
    pfds.push_back({wake_fd_, POLLIN, 0});
    if (listen_fd_ >= 0) pfds.push_back({listen_fd_, POLLIN, 0});
    std::vector<std::shared_ptr<Conn>> polled = conns_;
    for (const auto& c : polled) pfds.push_back({c->fd, POLLIN, 0});

    if (::poll(pfds.data(), pfds.size(), -1) < 0) continue;  // EINTR

    size_t i = 0;
    if (pfds[i++].revents) {
      uint64_t count;
      while (::read(wake_fd_, &count, sizeof count) > 0) {
      }
    }
    if (listen_fd_ >= 0 && pfds[i++].revents) AcceptAll();
    for (const auto& c : polled) {
      if (pfds[i++].revents && !ReadConn(*c)) DropConn(c);
    }
  }
}

void PeerServer::AcceptAll() {
  for (;;) {
    int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR) continue;
      return;  // EAGAIN, or a resource limit: try again on the next wake-up
    }
    std::shared_ptr<Conn> conn;
    {
      std::lock_guard<std::mutex> lock(mu_);
      conn = std::make_shared<Conn>(fd, ++accepted_);
      current_ = conn;
      cv_.notify_all();
    }
    conns_.push_back(conn);
    ConnectionCallback cb;
    {
      std::lock_guard<std::mutex> lock(cb_mu_);
      cb = conn_cb_;
    }
    if (cb) cb(conn->id, true);
  }
}

bool PeerServer::ReadConn(Conn& conn) {
  bool open = true;
  char buf[64 * 1024];
  for (int reads = 0; reads < kReadsPerWake; ++reads) {
    ssize_t n = ::recv(conn.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
      conn.inbuf.append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    open = false;  // end of stream or a hard error
    break;
  }

  std::vector<Frame> got;
  size_t pos = 0;
  const std::string& in = conn.inbuf;
  while (in.size() - pos >= kHeaderLen) {
    const char* h = in.data() + pos;
    Frame f;
    const cscomm::FrameHeader header = cscomm::DecodeFrameHeader(h);
    f.m_reserved = header.m_reserved;
    f.m_cmd = header.m_cmd;
    f.s_cmd = header.s_cmd;
    f.msglen = header.msglen;
    if (in.size() - pos < kHeaderLen + f.msglen) break;
    f.body.assign(h + kHeaderLen, f.msglen);
    f.arrival = std::chrono::steady_clock::now();
    f.connection = conn.id;
    pos += kHeaderLen + f.msglen;
    got.push_back(std::move(f));
  }
  conn.inbuf.erase(0, pos);

  if (!got.empty()) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      frames_.insert(frames_.end(), got.begin(), got.end());
      cv_.notify_all();
    }
    FrameCallback cb;
    {
      std::lock_guard<std::mutex> lock(cb_mu_);
      cb = frame_cb_;
    }
    if (cb)
      for (const auto& f : got) cb(f);
  }
  return open;
}

void PeerServer::DropConn(const std::shared_ptr<Conn>& conn) {
  auto it = std::find(conns_.begin(), conns_.end(), conn);
  if (it == conns_.end()) return;
  conns_.erase(it);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (current_ == conn) current_ = conns_.empty() ? nullptr : conns_.back();
    cv_.notify_all();
  }
  ConnectionCallback cb;
  {
    std::lock_guard<std::mutex> lock(cb_mu_);
    cb = conn_cb_;
  }
  if (cb) cb(conn->id, false);
}

void PeerServer::CloseListenFd() {
  if (listen_fd_ < 0) return;
  ::close(listen_fd_);
  listen_fd_ = -1;
  std::lock_guard<std::mutex> lock(mu_);
  ::unlink(path_.c_str());
  listening_ = false;
  cv_.notify_all();
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

  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return fail(ErrnoText("socket"));
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    std::string text = ErrnoText("bind");
    ::close(fd);
    return fail(text);
  }
  if (::listen(fd, 16) < 0) {
    std::string text = ErrnoText("listen");
    ::close(fd);
    ::unlink(path.c_str());
    return fail(text);
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    path_ = path;
    listening_ = true;
  }
  RunOnIo([this, fd] { listen_fd_ = fd; });
  return true;
}

bool PeerServer::Restart(std::string* error) { return Listen(Path(), error); }

void PeerServer::StopListening() {
  RunOnIo([this] { CloseListenFd(); });
}

bool PeerServer::Listening() const {
  std::lock_guard<std::mutex> lock(mu_);
  return listening_;
}

std::string PeerServer::Path() const {
  std::lock_guard<std::mutex> lock(mu_);
  return path_;
}

std::shared_ptr<PeerServer::Conn> PeerServer::Current() const {
  std::lock_guard<std::mutex> lock(mu_);
  return current_;
}

bool PeerServer::Connected() const { return Current() != nullptr; }

uint64_t PeerServer::CurrentConnection() const {
  auto c = Current();
  return c ? c->id : 0;
}

uint64_t PeerServer::AcceptedCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return accepted_;
}

bool PeerServer::WaitConnected(Millis timeout) const {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] { return current_ != nullptr; });
}

bool PeerServer::WaitDisconnected(Millis timeout) const {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] { return current_ == nullptr; });
}

bool PeerServer::WaitAccepted(uint64_t count, Millis timeout) const {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] { return accepted_ >= count; });
}

void PeerServer::CloseConnection() {
  RunOnIo([this] {
    auto conn = Current();
    if (!conn) return;
    ::shutdown(conn->fd, SHUT_RDWR);
    DropConn(conn);
  });
}

void PeerServer::CloseAllConnections() {
  RunOnIo([this] {
    std::vector<std::shared_ptr<Conn>> all = conns_;
    for (const auto& conn : all) {
      ::shutdown(conn->fd, SHUT_RDWR);
      DropConn(conn);
    }
  });
}

bool PeerServer::SendFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body,
                           Millis timeout) {
  if (body.size() > UINT16_MAX) return false;
  return SendBytes(EncodeFrame(m_cmd, s_cmd, body), timeout);
}

bool PeerServer::SendRaw(const std::string& bytes, Millis timeout) {
  return SendBytes(bytes, timeout);
}

bool PeerServer::SendBytes(const std::string& bytes, Millis timeout) {
  const Deadline deadline = std::chrono::steady_clock::now() + timeout;
  auto conn = Current();
  if (!conn) return false;
  std::lock_guard<std::mutex> lock(conn->send_mu);
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t n =
        ::send(conn->fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      off += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{conn->fd, POLLOUT, 0};
      if (::poll(&p, 1, static_cast<int>(left.count()) + 1) == 0) return false;
      continue;
    }
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
  std::vector<Frame> out;
  out.swap(frames_);
  return out;
}

void PeerServer::ClearFrames() {
  std::lock_guard<std::mutex> lock(mu_);
  frames_.clear();
}

std::optional<Frame> PeerServer::WaitFrame(const FramePredicate& pred, Millis timeout) const {
  std::optional<Frame> found;
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait_for(lock, timeout, [&] {
    auto it = std::find_if(frames_.begin(), frames_.end(), [&](const Frame& f) { return pred(f); });
    if (it == frames_.end()) return false;
    found = *it;
    return true;
  });
  return found;
}

std::optional<Frame> PeerServer::WaitFrame(uint16_t s_cmd, Millis timeout) const {
  return WaitFrame([s_cmd](const Frame& f) { return f.s_cmd == s_cmd; }, timeout);
}

std::vector<Frame> PeerServer::WaitFrames(size_t count, Millis timeout,
                                          const FramePredicate& pred) const {
  std::vector<Frame> found;
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait_for(lock, timeout, [&] {
    found.clear();
    for (const auto& f : frames_)
      if (!pred || pred(f)) found.push_back(f);
    return found.size() >= count;
  });
  return found;
}

void PeerServer::SetFrameCallback(FrameCallback cb) {
  std::lock_guard<std::mutex> lock(cb_mu_);
  frame_cb_ = std::move(cb);
}

void PeerServer::SetConnectionCallback(ConnectionCallback cb) {
  std::lock_guard<std::mutex> lock(cb_mu_);
  conn_cb_ = std::move(cb);
}

}  // namespace sdppeer
