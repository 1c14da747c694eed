// The server end of the daemon channel: stands in for the peer daemon `ventrald`
// in the channel tests, the daemon's end-to-end tests, tools/ventrald-sim and
// bench/. No gtest, no glog: the simulator links this too. Small enough to live
// in this one header.
//
// While listening, one thread accepts connections on a Unix stream socket and
// cuts what every open connection sends into frames with the product's codec
// (CSComm.h). Every frame is kept, in arrival order, until ClearFrames().
// Connections are numbered from 1 in accept order; the "current" one is the
// newest still open: sends and CloseConnection() act on it.
//
// Every method is thread-safe and may be called from the callbacks (which run
// on that thread), except Listen/Restart/StopListening. Every wait takes a deadline.
#pragma once

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CSComm.h"

namespace sdppeer {

// `len` is taken as given, so the header may announce more or fewer bytes than follow.
inline std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t len) {
  char out[SDPMSG_HEAD_LEN];
  cscomm::EncodeFrameHeader({m_reserved, m_cmd, s_cmd, len}, out);
  return std::string(out, sizeof out);
}

// m_reserved 0, msglen = body.size(). REQUIRES: body.size() <= 65535.
inline std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  return EncodeHeader(0, m_cmd, s_cmd, static_cast<uint16_t>(body.size())) + body;
}

struct Frame {
  uint16_t m_reserved = 0, m_cmd = 0, s_cmd = 0, msglen = 0;
  std::string body;                               // exactly msglen bytes
  std::chrono::steady_clock::time_point arrival;  // when its last byte was read
  uint64_t connection = 0;                        // 1-based accept number
  // As it stood on the wire.
  std::string Bytes() const { return EncodeHeader(m_reserved, m_cmd, s_cmd, msglen) + body; }
};

class PeerServer {
 public:
  using Millis = std::chrono::milliseconds;
  using Pred = std::function<bool(const Frame&)>;

  // Stops listening and closes every connection, without callbacks.
  ~PeerServer() { StopListening(); }

  // Listens on `path` (a stale socket there is removed first) after stopping an
  // earlier listener. On failure false, and `*error` says why.
  bool Listen(const std::string& path, std::string* error = nullptr) {
    StopListening();
    sockaddr_un addr{AF_UNIX, {}};
    int fd = -1;
    errno = ENAMETOOLONG;
    if (!path.empty() && path.size() < sizeof addr.sun_path) {
      path.copy(addr.sun_path, path.size());
      struct stat st;
      if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
      fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 16) != 0) {
      if (error) *error = "listening on " + path + ": " + strerror(errno);
      if (fd >= 0) ::close(fd);
      return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    path_ = path;
    listen_fd_ = fd;
    server_ = std::thread([this, fd] { Serve(fd); });
    return true;
  }
  bool Restart(std::string* error = nullptr) { return Listen(std::string(path_), error); }
  // Closes the listening socket and removes its file. Open connections stay
  // open, but what they send is read only once listening again.
  void StopListening() {
    std::unique_lock<std::mutex> lock(mu_);
    if (listen_fd_ < 0) return;
    const int fd = std::exchange(listen_fd_, -1);
    ::shutdown(fd, SHUT_RDWR);  // the serving thread's accept fails
    ::unlink(path_.c_str());
    std::thread server = std::move(server_);
    lock.unlock();
    server.join();
    ::close(fd);
  }

  bool Connected() const { return CurrentConnection() != 0; }
  uint64_t CurrentConnection() const {  // 0 when none is open
    const auto c = Current();
    return c ? c->id : 0;
  }
  uint64_t AcceptedCount() const { return accepted_; }
  bool WaitConnected(Millis timeout) const {
    return Wait(timeout, [&] { return !conns_.empty(); });
  }
  bool WaitDisconnected(Millis timeout) const {
    return Wait(timeout, [&] { return conns_.empty(); });
  }
  bool WaitAccepted(uint64_t count, Millis timeout) const {
    return Wait(timeout, [&] { return accepted_ >= count; });
  }
  // Shuts the current connection down both ways: the client sees end of stream,
  // and what it sent and was not read yet is dropped.
  void CloseConnection() {
    if (const auto c = Current()) Drop(c);
  }
  void CloseAllConnections() {
    for (const auto& c : Locked(mu_, [&] { return conns_; })) Drop(c);
  }

  // To the current connection; false when none is open, on an error, or when the
  // client takes nothing for `timeout`. One call's bytes stay together.
  bool SendFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body,
                 Millis timeout = Millis(5000)) {
    return body.size() <= UINT16_MAX && SendRaw(EncodeFrame(m_cmd, s_cmd, body), timeout);
  }
  bool SendRaw(const std::string& bytes, Millis timeout = Millis(5000)) {
    const auto conn = Current();
    if (!conn) return false;
    std::lock_guard<std::mutex> lock(conn->send_mu);
    // Never 0, which would mean no limit.
    const timeval tv{timeout.count() / 1000, timeout.count() % 1000 * 1000 + 1};
    ::setsockopt(conn->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    for (size_t off = 0; off < bytes.size();) {
      const ssize_t n = ::send(conn->fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
      if (n < 0 && errno != EINTR) return false;
      if (n > 0) off += static_cast<size_t>(n);
    }
    return true;
  }

  std::vector<Frame> Frames() const {
    return Locked(mu_, [&] { return frames_; });
  }
  void ClearFrames() {
    Locked(mu_, [&] { frames_.clear(); });
  }
  // Waits until `count` stored frames satisfy `pred` (all frames when empty) and
  // returns them; on time-out those found. For *new* frames, test `arrival` or
  // `connection`, or ClearFrames() first.
  std::vector<Frame> WaitFrames(size_t count, Millis timeout, const Pred& pred = nullptr) const {
    std::vector<Frame> found;
    Wait(timeout, [&] {
      found.clear();
      for (const auto& f : frames_)
        if (!pred || pred(f)) found.push_back(f);
      return found.size() >= count;
    });
    return found;
  }
  std::optional<Frame> WaitFrame(const Pred& pred, Millis timeout) const {  // the oldest
    const auto found = WaitFrames(1, timeout, pred);
    return found.empty() ? std::nullopt : std::optional<Frame>(found[0]);
  }
  std::optional<Frame> WaitFrame(uint16_t s_cmd, Millis timeout) const {
    return WaitFrame([s_cmd](const Frame& f) { return f.s_cmd == s_cmd; }, timeout);
  }

  // For every frame, after it is stored.
  void SetFrameCallback(std::function<void(const Frame&)> cb) {
    Locked(mu_, [&] { frame_cb_ = std::move(cb); });
  }
  // When connection `id` is accepted (true; before any of its frames) or ends (false).
  void SetConnectionCallback(std::function<void(uint64_t id, bool connected)> cb) {
    Locked(mu_, [&] { conn_cb_ = std::move(cb); });
  }

 private:
  struct Conn {
    ~Conn() { ::close(fd); }  // once the last holder (server, sender) lets go
    const int fd;
    const uint64_t id;
    std::string in;      // the start of a frame not yet whole; the serving thread's
    std::mutex send_mu;  // keeps the bytes of one send together
  };

  template <class F>
  static auto Locked(std::mutex& mu, F f) -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mu);
    return f();
  }
  template <class P>
  bool Wait(Millis timeout, P pred) const {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }
  std::shared_ptr<Conn> Current() const {
    return Locked(mu_, [&] { return conns_.empty() ? nullptr : conns_.back(); });
  }

  // Polls the listener and the open connections. Nothing else needs a wake-up:
  // a connection closed from another thread is shut down, which wakes the poll.
  void Serve(int listen_fd) {
    for (;;) {
      const auto conns = Locked(mu_, [&] { return conns_; });
      std::vector<pollfd> fds{{listen_fd, POLLIN, 0}};
      for (const auto& c : conns) fds.push_back({c->fd, POLLIN, 0});
      if (::poll(fds.data(), fds.size(), -1) < 0) continue;  // EINTR
      for (size_t i = 0; i < conns.size(); ++i)
        if (fds[i + 1].revents) Read(conns[i]);
      if (!fds[0].revents) continue;
      const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);  // ready: no wait
      if (fd < 0) return;  // shut down by StopListening
      std::unique_lock<std::mutex> lock(mu_);
      const std::shared_ptr<Conn> conn(new Conn{fd, ++accepted_, {}, {}});
      conns_.push_back(conn);
      const auto cb = conn_cb_;
      cv_.notify_all();
      lock.unlock();
      if (cb) cb(conn->id, true);
    }
  }

  void Read(const std::shared_ptr<Conn>& conn) {
    char buf[64 * 1024];
    const ssize_t n = ::recv(conn->fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (n <= 0) return Drop(conn);
    conn->in.append(buf, static_cast<size_t>(n));
    std::vector<Frame> got;
    size_t pos = 0;
    for (const std::string& in = conn->in; in.size() - pos >= SDPMSG_HEAD_LEN;) {
      const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(in.data() + pos);
      if (in.size() - pos - SDPMSG_HEAD_LEN < h.msglen) break;
      got.push_back({h.m_reserved, h.m_cmd, h.s_cmd, h.msglen,
                     in.substr(pos + SDPMSG_HEAD_LEN, h.msglen), std::chrono::steady_clock::now(),
                     conn->id});
      pos += SDPMSG_HEAD_LEN + h.msglen;
    }
    conn->in.erase(0, pos);
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

  // If it is open: shuts it down (which wakes a sender and the poll) and calls back.
  void Drop(const std::shared_ptr<Conn>& conn) {
    std::unique_lock<std::mutex> lock(mu_);
    const auto it = std::find(conns_.begin(), conns_.end(), conn);
    if (it == conns_.end()) return;
    conns_.erase(it);
    ::shutdown(conn->fd, SHUT_RDWR);
    cv_.notify_all();
    const auto cb = conn_cb_;
    lock.unlock();
    if (cb) cb(conn->id, false);
  }

  mutable std::mutex mu_;               // guards everything below but path_
  mutable std::condition_variable cv_;  // signalled on any change below
  std::string path_;                    // written by Listen alone
  int listen_fd_ = -1;
  std::thread server_;
  std::vector<std::shared_ptr<Conn>> conns_;  // the open ones, in accept order
  std::atomic<uint64_t> accepted_{0};         // changed under mu_
  std::vector<Frame> frames_;
  std::function<void(const Frame&)> frame_cb_;
  std::function<void(uint64_t, bool)> conn_cb_;
};

}  // namespace sdppeer
