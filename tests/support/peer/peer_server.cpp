#include "peer_server.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "CSComm.h"

namespace sdppeer {

std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen) {
  char out[SDPMSG_HEAD_LEN];
  cscomm::EncodeFrameHeader({m_reserved, m_cmd, s_cmd, msglen}, out);
  return std::string(out, sizeof out);
}

std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  return EncodeHeader(0, m_cmd, s_cmd, static_cast<uint16_t>(body.size())) + body;
}

PeerServer::Conn::~Conn() { ::close(fd); }

bool PeerServer::Listen(const std::string& path, std::string* error) {
  StopListening();
  auto fail = [error](const char* what) {
    if (error) *error = std::string(what) + ": " + strerror(errno);
    return false;
  };
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  errno = ENAMETOOLONG;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return fail("socket path");
  path.copy(addr.sun_path, path.size());
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail("socket");
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0) {
    fail("bind/listen");
    ::close(fd);
    return false;
  }
  std::lock_guard<std::mutex> lock(mu_);
  path_ = path;
  listen_fd_ = fd;
  server_ = std::thread([this, fd] { Serve(fd); });
  return true;
}

void PeerServer::StopListening() {
  std::unique_lock<std::mutex> lock(mu_);
  const int fd = std::exchange(listen_fd_, -1);
  std::thread server = std::move(server_);
  const std::string path = path_;
  lock.unlock();
  if (fd < 0) return;
  ::shutdown(fd, SHUT_RDWR);  // wakes the serving thread, whose accept then fails
  server.join();
  ::close(fd);
  ::unlink(path.c_str());
}

// Polls the listener and the open connections. Nothing else needs a wake-up:
// a connection closed from another thread is shut down, which wakes the poll.
void PeerServer::Serve(int listen_fd) {
  for (;;) {
    const auto conns = Locked(mu_, [&] { return conns_; });
    std::vector<pollfd> fds{{listen_fd, POLLIN, 0}};
    for (const auto& c : conns) fds.push_back({c->fd, POLLIN, 0});
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;  // EINTR
    for (size_t i = 0; i < conns.size(); ++i)
      if (fds[i + 1].revents) Read(conns[i]);
    if (!fds[0].revents) continue;
    const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && errno != EINTR && errno != ECONNABORTED) return;  // StopListening
    if (fd < 0) continue;
    std::unique_lock<std::mutex> lock(mu_);
    const std::shared_ptr<Conn> conn(new Conn{fd, ++accepted_, {}, {}});
    conns_.push_back(conn);
    const auto cb = conn_cb_;
    cv_.notify_all();
    lock.unlock();
    if (cb) cb(conn->id, true);
  }
}

void PeerServer::Read(const std::shared_ptr<Conn>& conn) {
  char buf[64 * 1024];
  const ssize_t n = ::recv(conn->fd, buf, sizeof buf, MSG_DONTWAIT);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (n <= 0) return Drop(conn);
  std::string& in = conn->in;
  in.append(buf, static_cast<size_t>(n));
  std::vector<Frame> got;
  size_t pos = 0;
  while (in.size() - pos >= SDPMSG_HEAD_LEN) {
    const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(in.data() + pos);
    if (in.size() - pos - SDPMSG_HEAD_LEN < h.msglen) break;
    got.push_back({h.m_reserved, h.m_cmd, h.s_cmd, h.msglen,
                   in.substr(pos + SDPMSG_HEAD_LEN, h.msglen), std::chrono::steady_clock::now(),
                   conn->id});
    pos += SDPMSG_HEAD_LEN + h.msglen;
  }
  in.erase(0, pos);
  std::unique_lock<std::mutex> lock(mu_);
  // Closed by CloseConnection: unread frames are dropped.
  if (std::find(conns_.begin(), conns_.end(), conn) == conns_.end()) return;
  frames_.insert(frames_.end(), got.begin(), got.end());
  const auto cb = frame_cb_;
  cv_.notify_all();
  lock.unlock();
  if (cb)
    for (const auto& f : got) cb(f);
}

void PeerServer::Drop(const std::shared_ptr<Conn>& conn) {
  std::unique_lock<std::mutex> lock(mu_);
  const auto it = std::find(conns_.begin(), conns_.end(), conn);
  if (it == conns_.end()) return;
  conns_.erase(it);
  ::shutdown(conn->fd, SHUT_RDWR);  // the client sees end of stream; wakes a sender and the poll
  cv_.notify_all();
  const auto cb = conn_cb_;
  lock.unlock();
  if (cb) cb(conn->id, false);
}

bool PeerServer::SendRaw(const std::string& bytes, Millis timeout) {
  const auto conn = Current();
  if (!conn) return false;
  std::lock_guard<std::mutex> lock(conn->send_mu);
  // A send that takes nothing for this long fails; never 0, which would mean no limit.
  const timeval tv{timeout.count() / 1000, timeout.count() % 1000 * 1000 + 1};
  ::setsockopt(conn->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  for (size_t off = 0; off < bytes.size();) {
    const ssize_t n = ::send(conn->fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) off += static_cast<size_t>(n);
  }
  return true;
}

std::vector<Frame> PeerServer::WaitFrames(size_t count, Millis timeout, const Pred& pred) const {
  std::vector<Frame> found;
  Wait(timeout, [&] {
    found.clear();
    for (const auto& f : frames_)
      if (!pred || pred(f)) found.push_back(f);
    return found.size() >= count;
  });
  return found;
}

std::optional<Frame> PeerServer::WaitFrame(const Pred& pred, Millis timeout) const {
  const auto found = WaitFrames(1, timeout, pred);
  return found.empty() ? std::nullopt : std::optional<Frame>(found[0]);
}

}  // namespace sdppeer
