#include "anet.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

__attribute__((format(printf, 2, 3))) void anetSetError(char* err, const char* fmt, ...) {
  if (!err) return;
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(err, ANET_ERR_LEN, fmt, ap);
  va_end(ap);
}

}  // namespace

int anetSetBlock(char* err, int fd, int non_block) {
  int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    anetSetError(err, "fcntl(F_GETFL): %s", strerror(errno));
    return ANET_ERR;
  }
  if (non_block)
    flags |= O_NONBLOCK;
  else
    flags &= ~O_NONBLOCK;
  if (fcntl(fd, F_SETFL, flags) == -1) {
    anetSetError(err, "fcntl(F_SETFL,O_NONBLOCK): %s", strerror(errno));
    return ANET_ERR;
  }
  return ANET_OK;
}

int anetNonBlock(char* err, int fd) { return anetSetBlock(err, fd, 1); }

int anetBlock(char* err, int fd) { return anetSetBlock(err, fd, 0); }

int anetTcpKeepAlive(char* err, int fd) {
  int yes = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &yes, sizeof yes) == -1) {
    anetSetError(err, "setsockopt SO_KEEPALIVE: %s", strerror(errno));
    return ANET_ERR;
  }
  return ANET_OK;
}

int anetSetReuseAddr(char* err, int fd) {
  int yes = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == -1) {
    anetSetError(err, "setsockopt SO_REUSEADDR: %s", strerror(errno));
    return ANET_ERR;
  }
  return ANET_OK;
}

int anetUnixGenericConnect(char* err, const char* path, int flags) {
  if (!path) {
    anetSetError(err, "connect: %s", strerror(EINVAL));
    return ANET_ERR;
  }
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s == -1) {
    anetSetError(err, "creating socket: %s", strerror(errno));
    return ANET_ERR;
  }
  if (anetSetReuseAddr(err, s) == ANET_ERR) {
    close(s);
    return ANET_ERR;
  }
  sockaddr_un sa;
  memset(&sa, 0, sizeof sa);
  sa.sun_family = AF_UNIX;
  // A longer path is cut to what sun_path holds with its terminator.
  strncpy(sa.sun_path, path, sizeof(sa.sun_path) - 1);
  if ((flags & ANET_CONNECT_NONBLOCK) && anetNonBlock(err, s) != ANET_OK) {
    close(s);
    return ANET_ERR;
  }
  if (connect(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == -1) {
    if (errno == EINPROGRESS && (flags & ANET_CONNECT_NONBLOCK)) return s;
    anetSetError(err, "connect: %s", strerror(errno));
    close(s);
    return ANET_ERR;
  }
  return s;
}

int anetUnixConnect(char* err, const char* path) {
  return anetUnixGenericConnect(err, path, ANET_CONNECT_NONE);
}

int anetUnixNonBlockConnect(char* err, const char* path) {
  return anetUnixGenericConnect(err, path, ANET_CONNECT_NONBLOCK);
}

int anetTcpGenericConnect(char* err, const char* addr, int port, int flags) {
  char portstr[6];  // cuts anything past five digits, as intended for a u16 port
  snprintf(portstr, sizeof portstr, "%d", port);

  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* servinfo = nullptr;
  int rv = getaddrinfo(addr, portstr, &hints, &servinfo);
  if (rv != 0) {
    anetSetError(err, "%s", gai_strerror(rv));
    return ANET_ERR;
  }

  int s = ANET_ERR;
  bool connected = false;
  bool hard_error = false;
  for (addrinfo* p = servinfo; p != nullptr && !connected && !hard_error; p = p->ai_next) {
    s = socket(p->ai_family, p->ai_socktype | SOCK_CLOEXEC, p->ai_protocol);
    if (s == -1) continue;
    if (anetSetReuseAddr(err, s) == ANET_ERR ||
        ((flags & ANET_CONNECT_NONBLOCK) && anetNonBlock(err, s) != ANET_OK)) {
      hard_error = true;
      break;
    }
    if (connect(s, p->ai_addr, p->ai_addrlen) == -1) {
      if (errno == EINPROGRESS && (flags & ANET_CONNECT_NONBLOCK)) {
        connected = true;
        break;
      }
      close(s);
      s = ANET_ERR;
      continue;
    }
    connected = true;
  }
  if (!connected && !hard_error) anetSetError(err, "creating socket: %s", strerror(errno));
  if (!connected && s != ANET_ERR) {
    close(s);
    s = ANET_ERR;
  }
  freeaddrinfo(servinfo);
  return connected ? s : ANET_ERR;
}

int anetTcpConnect(char* err, const char* addr, int port) {
  return anetTcpGenericConnect(err, addr, port, ANET_CONNECT_NONE);
}

int anetTcpNonBlockConnect(char* err, const char* addr, int port) {
  return anetTcpGenericConnect(err, addr, port, ANET_CONNECT_NONBLOCK);
}
