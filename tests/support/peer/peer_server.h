// The server end of the daemon channel: stands in for the peer daemon `ventrald`
// in the channel tests, the daemon's end-to-end and fault tests, tools/ventrald-sim
// and bench/.
//
// A thread accepts connections on a Unix stream socket and one thread per
// connection cuts what it sends into frames with the product's codec (CSComm.h).
// Every frame is kept, in arrival order, until ClearFrames()/TakeFrames().
// Connections are numbered from 1 in accept order; the "current" one is the
// newest still open: sends and CloseConnection() act on it.
//
// Every method is thread-safe and may be called from the callbacks, except
// Listen/Restart/StopListening from a connection callback (that runs on the
// accepting thread they join). Every wait takes a deadline. No gtest, no glog:
// the simulator tool links this too.
//
//   sdppeer::PeerServer peer;
//   ASSERT_TRUE(peer.Listen(dir + "/peer.sock"));
//   auto hb = peer.WaitFrame(0x1111, 5s);
//   peer.SendFrame(2, 0x306, "https://portal");
//   peer.CloseConnection(); peer.StopListening();   // the peer "goes away"
//   peer.Restart(); peer.WaitAccepted(2, 3s);        // ... and comes back
#pragma once

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

// One frame as received from a client.
struct Frame {
  uint16_t m_reserved = 0, m_cmd = 0, s_cmd = 0, msglen = 0;
  std::string body;                               // exactly msglen bytes
  std::chrono::steady_clock::time_point arrival;  // when its last byte was read
  uint64_t connection = 0;                        // 1-based accept number

  // The frame as it stood on the wire: header then body.
  std::string Bytes() const;
};

// The 8-byte header; msglen is taken as given, so it may announce more or fewer
// bytes than follow.
std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen);
// Header with m_reserved 0 and msglen = body.size(), then body. REQUIRES: body.size() <= 65535.
std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body);

class PeerServer {
 public:
  using Millis = std::chrono::milliseconds;
  using FramePredicate = std::function<bool(const Frame&)>;
  // Called for every complete frame, after it is stored, on its connection's thread.
  using FrameCallback = std::function<void(const Frame&)>;
  // Called when connection `id` is accepted (true; before any of its frames) or ends (false).
  using ConnectionCallback = std::function<void(uint64_t id, bool connected)>;

  PeerServer() = default;
  // Stops listening, closes every connection (without callbacks) and joins the threads.
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  // Listens on `path` (a stale socket file there is removed first), after
  // stopping an earlier listener. On failure false, and `*error` names the call.
  bool Listen(const std::string& path, std::string* error = nullptr);
  bool Restart(std::string* error = nullptr);  // Listen() on the last path again
  // Closes the listening socket and removes its file; open connections stay.
  void StopListening();
  std::string Path() const;

  bool Connected() const;              // a current connection exists
  uint64_t CurrentConnection() const;  // its number, 0 when none
  uint64_t AcceptedCount() const;
  bool WaitConnected(Millis timeout) const;
  bool WaitDisconnected(Millis timeout) const;              // no current connection
  bool WaitAccepted(uint64_t count, Millis timeout) const;  // `count` accepted in all
  // Shuts the current connection down both ways: the client sees end of stream,
  // and what it sent and was not read yet is dropped. No-op when none is open.
  void CloseConnection();
  void CloseAllConnections();

  // To the current connection; false when none is open, on an error, or when the
  // client does not take the bytes within `timeout`. One call's bytes stay together.
  bool SendFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body,
                 Millis timeout = Millis(5000));
  bool SendRaw(const std::string& bytes, Millis timeout = Millis(5000));

  std::vector<Frame> Frames() const;  // a copy, in arrival order
  size_t FrameCount() const;
  std::vector<Frame> TakeFrames();  // returns the frames and forgets them
  void ClearFrames();
  // The oldest stored frame for which `pred` holds, waiting up to `timeout` for
  // one. For a *new* frame, test `arrival` or `connection`, or ClearFrames() first.
  std::optional<Frame> WaitFrame(const FramePredicate& pred, Millis timeout) const;
  std::optional<Frame> WaitFrame(uint16_t s_cmd, Millis timeout) const;
  // Waits until `count` stored frames satisfy `pred` (all frames when empty) and
  // returns them; on time-out those found.
  std::vector<Frame> WaitFrames(size_t count, Millis timeout,
                                const FramePredicate& pred = nullptr) const;

  void SetFrameCallback(FrameCallback cb);
  void SetConnectionCallback(ConnectionCallback cb);

 private:
  struct Conn;
  void Accept(int listen_fd);
  void Read(const std::shared_ptr<Conn>& conn);
  void Drop(const std::shared_ptr<Conn>& conn);  // shuts it down and calls back, once
  std::shared_ptr<Conn> Current() const;
  template <class Pred>
  bool Wait(Millis timeout, Pred pred) const {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }

  mutable std::mutex mu_;               // guards everything below
  mutable std::condition_variable cv_;  // signalled on any change below
  std::string path_;
  int listen_fd_ = -1;
  std::thread acceptor_;
  std::vector<std::shared_ptr<Conn>> conns_;  // accepted, reader not yet joined
  std::shared_ptr<Conn> current_;
  uint64_t accepted_ = 0;
  std::vector<Frame> frames_;
  FrameCallback frame_cb_;
  ConnectionCallback conn_cb_;
};

}  // namespace sdppeer
