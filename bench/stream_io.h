// Whole-buffer send and receive on a stream socket, for the benchmark tools
// that move frame bytes without the channel's codec.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

namespace benchio {

// False when the peer closed or an error came first.
inline bool SendAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

inline bool RecvAll(int fd, char* p, size_t n) {
  while (n > 0) {
    const ssize_t r = recv(fd, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

}  // namespace benchio
