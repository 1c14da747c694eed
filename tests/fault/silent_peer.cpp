#include "silent_peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace fault {

SilentPeer::~SilentPeer() {
  CloseConnection();
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    unlink(path_.c_str());
  }
}

bool SilentPeer::Listen(const std::string& path) {
  path_ = path;
  unlink(path.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  return bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
         listen(listen_fd_, 4) == 0;
}

bool SilentPeer::Accept(std::chrono::milliseconds timeout) {
  pollfd p{listen_fd_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(timeout.count())) != 1) return false;
  CloseConnection();
  conn_fd_ = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
  return conn_fd_ >= 0;
}

bool SilentPeer::Send(const std::string& bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t n = send(conn_fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n <= 0) return false;
    off += static_cast<size_t>(n);
  }
  return true;
}

std::string SilentPeer::Drain() {
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = recv(conn_fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

void SilentPeer::CloseConnection() {
  if (conn_fd_ < 0) return;
  close(conn_fd_);
  conn_fd_ = -1;
}

}  // namespace fault
