// The frame reader, fed the way the peer daemon feeds it: the input's bytes
// are written into a real Unix stream connection and the peer end closes, then
// TCP_Client::RecvMessage is called until it gives up. Every result is checked
// against a plain walk over the same bytes: whole frames come out exactly (the
// rest of the record stays zero), and the first bad or cut frame ends the
// connection with -1.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "CSComm.h"
#include "fuzz_support.h"
#include "tcp_client.h"

namespace {

// One listening socket for the whole run, in a private directory.
struct Listener {
  std::string dir;
  std::string path;
  int fd = -1;
};
Listener* g_listener = nullptr;

void RemoveListener() {
  if (!g_listener) return;
  close(g_listener->fd);
  unlink(g_listener->path.c_str());
  rmdir(g_listener->dir.c_str());
}

// Keeps a large record off the stack; the reader zeroes it itself.
sdpmsg_t g_msg;
const char g_zeros[sizeof(sdpmsg_t)] = {};

uint16_t U16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::QuietLogging();
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/fuzz_frame.XXXXXX";
  FUZZ_CHECK(mkdtemp(tmpl.data()) != nullptr);
  g_listener = new Listener;
  g_listener->dir = tmpl;
  g_listener->path = tmpl + "/peer.sock";
  g_listener->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  FUZZ_CHECK(g_listener->fd >= 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  FUZZ_CHECK(g_listener->path.size() < sizeof addr.sun_path);
  std::memcpy(addr.sun_path, g_listener->path.c_str(), g_listener->path.size());
  FUZZ_CHECK(bind(g_listener->fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0);
  FUZZ_CHECK(listen(g_listener->fd, 4) == 0);
  std::atexit(RemoveListener);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TCP_Client client;
  Option opt;
  opt.clientType = CLIENT_TYPE_UNIX;
  std::memcpy(opt.unixPath, g_listener->path.c_str(), g_listener->path.size());
  FUZZ_CHECK(client.Init(opt) > 0);
  const int peer = accept4(g_listener->fd, nullptr, nullptr, SOCK_CLOEXEC);
  FUZZ_CHECK(peer >= 0);
  // Never blocks: an input that does not fit the socket buffer at once is
  // skipped rather than fed by a second thread.
  size_t sent = 0;
  while (sent < size) {
    ssize_t n = send(peer, data + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  close(peer);
  if (sent < size) return 0;

  size_t off = 0;
  for (;;) {
    const int got = client.RecvMessage(&g_msg);
    const size_t left = size - off;
    bool whole = left >= SDPMSG_HEAD_LEN;
    uint16_t msglen = 0;
    if (whole) {
      msglen = U16(data + off + 6);
      whole = msglen <= MAX_MSGLEN && left - SDPMSG_HEAD_LEN >= msglen;
    }
    if (!whole) {
      FUZZ_CHECK(got == -1);
      FUZZ_CHECK(!client.IsAvaliable());
      break;
    }
    FUZZ_CHECK(got == msglen);
    FUZZ_CHECK(g_msg.m_reserved == U16(data + off));
    FUZZ_CHECK(g_msg.m_cmd == U16(data + off + 2));
    FUZZ_CHECK(g_msg.s_cmd == U16(data + off + 4));
    FUZZ_CHECK(g_msg.msglen == msglen);
    FUZZ_CHECK(std::memcmp(g_msg.data, data + off + SDPMSG_HEAD_LEN, msglen) == 0);
    // Nothing of an earlier, longer frame may show behind this one.
    FUZZ_CHECK(std::memcmp(g_msg.data + msglen, g_zeros, sizeof g_msg.data - msglen) == 0);
    off += SDPMSG_HEAD_LEN + msglen;
  }
  // Disconnected now: the next receive fails at once, without touching the record.
  std::memset(&g_msg, 0x5a, sizeof g_msg);
  FUZZ_CHECK(client.RecvMessage(&g_msg) == -1);
  FUZZ_CHECK(g_msg.m_cmd == 0x5a5a);
  return 0;
}
