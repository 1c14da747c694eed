// The server end of the daemon channel: stands in for the peer daemon `ventrald`
// in the channel tests, the daemon's end-to-end tests, tools/ventrald-sim and
// bench/. No gtest, no glog: the simulator links this too.
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
#include <vector>

namespace sdppeer {

// msglen is taken as given, so the header may announce more or fewer bytes than follow.
std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen);
// m_reserved 0, msglen = body.size(). REQUIRES: body.size() <= 65535.
std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body);

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
  // earlier listener. On failure false, and `*error` names the call.
  bool Listen(const std::string& path, std::string* error = nullptr);
  bool Restart(std::string* error = nullptr) {
    return Listen(Locked(mu_, [&] { return path_; }), error);
  }
  // Closes the listening socket and removes its file. Open connections stay
  // open, but what they send is read only once listening again.
  void StopListening();

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
  bool SendRaw(const std::string& bytes, Millis timeout = Millis(5000));

  std::vector<Frame> Frames() const {
    return Locked(mu_, [&] { return frames_; });
  }
  void ClearFrames() {
    Locked(mu_, [&] { frames_.clear(); });
  }
  // Waits until `count` stored frames satisfy `pred` (all frames when empty) and
  // returns them; on time-out those found. For *new* frames, test `arrival` or
  // `connection`, or ClearFrames() first.
  std::vector<Frame> WaitFrames(size_t count, Millis timeout, const Pred& pred = nullptr) const;
  std::optional<Frame> WaitFrame(const Pred& pred, Millis timeout) const;  // the oldest
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
    ~Conn();  // closes fd, once the last holder (server, sender) lets go
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
  void Serve(int listen_fd);  // the listening thread
  void Read(const std::shared_ptr<Conn>& conn);
  void Drop(const std::shared_ptr<Conn>& conn);  // if open: shuts it down and calls back

  mutable std::mutex mu_;               // guards everything below
  mutable std::condition_variable cv_;  // signalled on any change below
  std::string path_;
  int listen_fd_ = -1;
  std::thread server_;
  std::vector<std::shared_ptr<Conn>> conns_;  // the open ones, in accept order
  std::atomic<uint64_t> accepted_{0};         // changed under mu_
  std::vector<Frame> frames_;
  std::function<void(const Frame&)> frame_cb_;
  std::function<void(uint64_t, bool)> conn_cb_;
};

}  // namespace sdppeer
