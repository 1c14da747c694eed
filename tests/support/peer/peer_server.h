// The server end of the daemon channel: stands in for the peer daemon `ventrald`
// in the channel tests, the daemon's end-to-end tests and tools/ventrald-sim.
//
// One background I/O thread accepts connections on a Unix stream socket and cuts
// what every connection sends into frames (8-byte header of four u16 in host
// byte order: m_reserved, m_cmd, s_cmd, msglen; then msglen body bytes). Every
// frame is kept, in arrival order, with its header, body, arrival time and the
// number of the connection that carried it, until ClearFrames()/TakeFrames().
//
// Connections are numbered from 1 in accept order. The "current" connection is
// the most recently accepted one that is still open; sends and CloseConnection()
// act on it. Older connections that stay open are still read.
//
// Threads: every method is thread-safe and may be called from any thread,
// including from the callbacks. Every wait takes a deadline; nothing blocks
// longer than its timeout (sends included). No gtest, no glog: failures are
// reported by return values and, for Listen, an error text.
//
// Typical use:
//   sdppeer::PeerServer peer;
//   ASSERT_TRUE(peer.Listen(dir + "/peer.sock"));
//   ... start the client ...
//   ASSERT_TRUE(peer.WaitConnected(2s));
//   auto hb = peer.WaitFrame([](const sdppeer::Frame& f) { return f.s_cmd == 0x1111; }, 5s);
//   peer.SendFrame(2, 0x306, "https://portal");
//   peer.CloseConnection(); peer.StopListening();   // the peer "goes away"
//   peer.Restart();                                  // ... and comes back
//   peer.WaitAccepted(2, 3s);
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
  uint16_t m_reserved = 0;
  uint16_t m_cmd = 0;
  uint16_t s_cmd = 0;
  uint16_t msglen = 0;
  std::string body;                               // exactly msglen bytes
  std::chrono::steady_clock::time_point arrival;  // when its last byte was read
  uint64_t connection = 0;                        // 1-based accept number

  // The frame as it stood on the wire: header then body.
  std::string Bytes() const;
};

// The 8-byte header in host byte order; msglen is taken as given, so a header
// may announce more (or fewer) bytes than follow it.
std::string EncodeHeader(uint16_t m_reserved, uint16_t m_cmd, uint16_t s_cmd, uint16_t msglen);
// A whole frame: header with m_reserved 0 and msglen = body.size(), then body.
// REQUIRES: body.size() <= 65535.
std::string EncodeFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body);

class PeerServer {
 public:
  using Millis = std::chrono::milliseconds;
  using FramePredicate = std::function<bool(const Frame&)>;
  // Called on the I/O thread for every complete frame, after it is stored.
  using FrameCallback = std::function<void(const Frame&)>;
  // Called on the I/O thread when connection `id` is accepted (true) or ends (false).
  using ConnectionCallback = std::function<void(uint64_t id, bool connected)>;

  static constexpr Millis kSendTimeout{5000};

  PeerServer();
  // Stops listening (removing the socket file), closes every connection and ends the I/O thread.
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  // Listens on `path` (a stale socket file there is removed first; the parent
  // directory must exist). Stops an earlier listener first. On failure returns
  // false and, when `error` is given, stores a text naming the failed call.
  bool Listen(const std::string& path, std::string* error = nullptr);
  // Listens again on the last path given to Listen().
  bool Restart(std::string* error = nullptr);
  // Closes the listening socket and removes its file; open connections stay.
  void StopListening();
  bool Listening() const;
  std::string Path() const;

  // Connections.
  bool Connected() const;              // a current connection exists
  uint64_t CurrentConnection() const;  // its number, 0 when none
  uint64_t AcceptedCount() const;      // connections accepted so far
  bool WaitConnected(Millis timeout) const;
  bool WaitDisconnected(Millis timeout) const;  // no current connection
  // True once at least `count` connections have been accepted in all.
  bool WaitAccepted(uint64_t count, Millis timeout) const;
  // Shuts the current connection down in both directions and closes it: the
  // client's next receive sees end of stream and its next send fails.
  // Unread bytes of that connection are dropped. No-op when none is open.
  void CloseConnection();
  // CloseConnection() for every open connection.
  void CloseAllConnections();

  // Sending, to the current connection. False when none is open, on a send
  // error, or when the client does not take the bytes within `timeout`.
  // Bytes of one call are never interleaved with those of another.
  bool SendFrame(uint16_t m_cmd, uint16_t s_cmd, const std::string& body,
                 Millis timeout = kSendTimeout);
  bool SendRaw(const std::string& bytes, Millis timeout = kSendTimeout);

  // Received frames.
  std::vector<Frame> Frames() const;  // a copy, in arrival order
  size_t FrameCount() const;
  std::vector<Frame> TakeFrames();  // returns the frames and forgets them
  void ClearFrames();
  // The first stored frame (oldest first) for which `pred` holds, waiting up to
  // `timeout` for one to arrive. To wait for a *new* frame, let `pred` test
  // `arrival` or `connection`, or ClearFrames() first.
  std::optional<Frame> WaitFrame(const FramePredicate& pred, Millis timeout) const;
  // The first frame with this s_cmd.
  std::optional<Frame> WaitFrame(uint16_t s_cmd, Millis timeout) const;
  // Waits until `count` stored frames satisfy `pred` (all frames when `pred` is
  // empty) and returns them; on time-out returns those found (fewer).
  std::vector<Frame> WaitFrames(size_t count, Millis timeout,
                                const FramePredicate& pred = nullptr) const;

  void SetFrameCallback(FrameCallback cb);
  void SetConnectionCallback(ConnectionCallback cb);

 private:
  struct Conn;
  using Deadline = std::chrono::steady_clock::time_point;

  void IoLoop();
  // Runs `fn` on the I/O thread and waits for it (directly when already on it).
  void RunOnIo(std::function<void()> fn);
  void Wake();
  void AcceptAll();
  // Reads what is available; false when the connection ended.
  bool ReadConn(Conn& conn);
  void DropConn(const std::shared_ptr<Conn>& conn);  // I/O thread only
  void CloseListenFd();                              // I/O thread only
  std::shared_ptr<Conn> Current() const;
  bool SendBytes(const std::string& bytes, Millis timeout);

  int wake_fd_ = -1;  // eventfd; written to interrupt the I/O thread's poll
  std::thread io_thread_;

  // Owned by the I/O thread (and by the destructor after it joined).
  int listen_fd_ = -1;
  std::vector<std::shared_ptr<Conn>> conns_;

  std::mutex cmd_mu_;  // guards cmds_, quit_
  std::vector<std::function<void()>> cmds_;
  bool quit_ = false;

  mutable std::mutex mu_;               // guards everything below
  mutable std::condition_variable cv_;  // signalled on any change below
  std::string path_;
  bool listening_ = false;
  std::shared_ptr<Conn> current_;
  uint64_t accepted_ = 0;
  std::vector<Frame> frames_;

  std::mutex cb_mu_;  // guards the two callbacks
  FrameCallback frame_cb_;
  ConnectionCallback conn_cb_;
};

}  // namespace sdppeer
