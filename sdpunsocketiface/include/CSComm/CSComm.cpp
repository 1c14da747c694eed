#include "CSComm.h"

#include <errno.h>
#include <glog/logging.h>
#include <string.h>
#include <sys/socket.h>

namespace cscomm {

namespace {

void PutU16(char* p, unsigned short v) { memcpy(p, &v, sizeof v); }

unsigned short GetU16(const char* p) {
  unsigned short v;
  memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

void EncodeFrameHeader(const FrameHeader& header, char* out) {
  PutU16(out + offsetof(sdpmsg_t, m_reserved), header.m_reserved);
  PutU16(out + offsetof(sdpmsg_t, m_cmd), header.m_cmd);
  PutU16(out + offsetof(sdpmsg_t, s_cmd), header.s_cmd);
  PutU16(out + offsetof(sdpmsg_t, msglen), header.msglen);
}

FrameHeader DecodeFrameHeader(const char* in) {
  FrameHeader h;
  h.m_reserved = GetU16(in + offsetof(sdpmsg_t, m_reserved));
  h.m_cmd = GetU16(in + offsetof(sdpmsg_t, m_cmd));
  h.s_cmd = GetU16(in + offsetof(sdpmsg_t, s_cmd));
  h.msglen = GetU16(in + offsetof(sdpmsg_t, msglen));
  return h;
}

int BuildFrame(sdpmsg_t* frame, unsigned short m_cmd, unsigned short s_cmd, const char* data,
               int len, bool* cut) {
  memset(frame, 0, sizeof *frame);
  const bool too_long = len < 0 || len > MAX_MSGLEN;
  const int body = too_long ? MAX_MSGLEN : len;
  frame->m_cmd = m_cmd;
  frame->s_cmd = s_cmd;
  frame->msglen = static_cast<unsigned short>(body);
  if (body > 0 && data != nullptr) memcpy(frame->data, data, static_cast<size_t>(body));
  if (cut) *cut = too_long;
  return SDPMSG_HEAD_LEN + body;
}

}  // namespace cscomm

int SocketRWriter::SendMessage(int fd, unsigned short m_cmd, unsigned short s_cmd, const char* data,
                               int len) {
  std::lock_guard<std::mutex> lock(wmutex_);
  sdpmsg_t frame;  // on the stack: no allocation per frame
  bool cut = false;
  const int total = cscomm::BuildFrame(&frame, m_cmd, s_cmd, data, len, &cut);
  if (cut) {
    LOG(WARNING) << "warning msglen:" << len << " over max msglen:" << MAX_MSGLEN
                 << " cut message m_cmd:" << m_cmd << " s_cmd:" << s_cmd;
  }
  const char* bytes = reinterpret_cast<const char*>(&frame);
  int sent = 0;
  while (sent < total) {
    ssize_t n = ::send(fd, bytes + sent, static_cast<size_t>(total - sent), MSG_NOSIGNAL);
    if (n <= 0) {
      // Only a broken connection is worth a line; the receiver closes and reconnects.
      if (errno == EPIPE) LOG(ERROR) << "errno: EPIPE (connection broken)";
      return -1;
    }
    sent += static_cast<int>(n);
  }
  return total;
}
