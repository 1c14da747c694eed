// Socket helpers of the daemon channel (the `anet` family): connecting Unix and
// TCP stream sockets and setting their options. Used by TCP_Client.
//
// Every helper returns ANET_ERR (-1) on failure and then writes a message into
// `err` (at most ANET_ERR_LEN bytes, NUL-terminated); a null `err` is allowed.
// Every socket created here is close-on-exec and, unless a non-blocking
// variant is asked for, blocking.
#pragma once

inline constexpr int ANET_OK = 0;
inline constexpr int ANET_ERR = -1;
inline constexpr int ANET_ERR_LEN = 256;

// Flags of the generic connects.
inline constexpr int ANET_CONNECT_NONE = 0;
inline constexpr int ANET_CONNECT_NONBLOCK = 1;

// Connects an AF_UNIX stream socket to `path`, of which at most the first 107
// characters are used. Returns the descriptor or ANET_ERR. With
// ANET_CONNECT_NONBLOCK the socket is non-blocking and a connect still in
// progress counts as success.
int anetUnixGenericConnect(char* err, const char* path, int flags);
int anetUnixConnect(char* err, const char* path);
int anetUnixNonBlockConnect(char* err, const char* path);

// Resolves `addr` (any family) and connects to the first address that accepts.
int anetTcpGenericConnect(char* err, const char* addr, int port, int flags);
int anetTcpConnect(char* err, const char* addr, int port);
int anetTcpNonBlockConnect(char* err, const char* addr, int port);

// SO_KEEPALIVE on, with the kernel's idle, interval and count left as they are.
int anetTcpKeepAlive(char* err, int fd);
int anetSetReuseAddr(char* err, int fd);

// O_NONBLOCK on (non_block != 0) or off.
int anetSetBlock(char* err, int fd, int non_block);
int anetNonBlock(char* err, int fd);
int anetBlock(char* err, int fd);
