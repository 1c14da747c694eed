// A peer that accepts one connection on a Unix stream socket and then reads
// only when told to: it stands in for a peer daemon that stops reading, so
// that whatever the client sends piles up in the socket.
#pragma once

#include <chrono>
#include <string>

namespace fault {

class SilentPeer {
 public:
  SilentPeer() = default;
  ~SilentPeer();
  SilentPeer(const SilentPeer&) = delete;
  SilentPeer& operator=(const SilentPeer&) = delete;

  bool Listen(const std::string& path);
  // Accepts a connection (closing an earlier one); false when none came
  // within `timeout`.
  bool Accept(std::chrono::milliseconds timeout);
  bool Send(const std::string& bytes);
  // Everything the client sent so far, read without blocking.
  std::string Drain();
  // Closes the accepted connection: the client sees end of stream.
  void CloseConnection();

 private:
  int listen_fd_ = -1;
  int conn_fd_ = -1;
  std::string path_;
};

}  // namespace fault
