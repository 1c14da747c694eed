// The dispatch benchmark's baseline: the least a client can do with the
// daemon's frames. It connects to the peer's socket, reads each frame (8-byte
// header, then exactly msglen body bytes) and writes one flushed line per frame
// in glog's line shape, then goes on until the peer closes.
//
// With --glog the line goes through glog instead, set up as the daemon sets
// it up (every record flushed at once), into files named by <log file> as
// the INFO prefix. That splits the daemon's cost into what glog costs per line
// and what the daemon adds.
//
// Usage: min_reader [--glog] <socket path> <log file>
#include <glog/logging.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "stream_io.h"

int main(int argc, char** argv) {
  const bool useGlog = argc == 4 && std::strcmp(argv[1], "--glog") == 0;
  if (useGlog) {
    --argc;
    ++argv;
  }
  if (argc != 3) {
    std::fprintf(stderr, "usage: min_reader [--glog] <socket path> <log file>\n");
    return 2;
  }
  FILE* log = nullptr;
  if (useGlog) {
    google::InitGoogleLogging("min_reader");
    google::SetStderrLogging(google::GLOG_FATAL);
    google::SetLogDestination(google::GLOG_INFO, argv[2]);
    FLAGS_logbufsecs = 0;
  } else if (!(log = std::fopen(argv[2], "we"))) {
    std::perror(argv[2]);
    return 1;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, argv[1], sizeof(addr.sun_path) - 1);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    std::perror("connect");
    return 1;
  }
  const long tid = syscall(SYS_gettid);
  static char body[65536];
  for (;;) {
    unsigned char head[8];
    if (!benchio::RecvAll(fd, reinterpret_cast<char*>(head), sizeof head)) break;
    uint16_t s_cmd, msglen;
    std::memcpy(&s_cmd, head + 4, 2);
    std::memcpy(&msglen, head + 6, 2);
    if (msglen > 0 && !benchio::RecvAll(fd, body, msglen)) break;
    if (useGlog) {
      LOG(INFO) << " got message from server cmd 0x:" << std::hex << s_cmd;
      continue;
    }
    timeval tv;
    gettimeofday(&tv, nullptr);
    tm t;
    localtime_r(&tv.tv_sec, &t);
    std::fprintf(log, "I%04d%02d%02d %02d:%02d:%02d.%06ld %5ld min_reader.cpp:%d]  got message from server cmd 0x:%x\n",
                 t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                 static_cast<long>(tv.tv_usec), tid, __LINE__, s_cmd);
    std::fflush(log);
  }
  if (log) std::fclose(log);
  close(fd);
  return 0;
}
