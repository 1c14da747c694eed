// The framed protocol between the client and the peer daemon `ventrald`: the
// frame, the received-message record, the command codes, the framed writer
// and the connection options. Used by TCP_Client and by everything that sends
// or dispatches commands.
//
// Frame on the wire: an 8-byte header of four unsigned 16-bit fields in host
// byte order (m_reserved, m_cmd, s_cmd, msglen), then msglen body bytes,
// 0 <= msglen <= MAX_MSGLEN. Nothing is converted to network order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

// Largest body of one frame. A received body therefore always leaves at least
// one NUL behind it in sdpmsg_t::data.
inline constexpr int MAX_MSGLEN = 64503;  // 0xFBF7
inline constexpr int SDPMSG_HEAD_LEN = 8;

// Main commands: the direction of a frame.
inline constexpr unsigned short MCMD_TO_DAEMON = 1;    // every frame the client sends
inline constexpr unsigned short MCMD_FROM_DAEMON = 2;  // the only frames the client acts on

// Command codes (s_cmd).
// Daemon to client.
inline constexpr unsigned short SANDBOX_S2B_OPENBSAPP = 0x301;           // 769: shell command text
inline constexpr unsigned short SANDBOX_S2B_RESPONSE = 0x303;            // 771: ignored
inline constexpr unsigned short SANDBOX_S2B_OPEN_DRAVIN_PORTAL = 0x306;  // 774: URL text
inline constexpr unsigned short SANDBOX_A2F_ILLEGAL = 0x501;      // 1281: application, to first NUL
inline constexpr unsigned short SANDBOX_TO_LOCAL = 0x1001;        // 4097: pop-up script arguments
inline constexpr unsigned short SDP_PROTO_OPEN_SANDBOX = 0x1012;  // 4114: ignored
inline constexpr unsigned short SDP_PROTO_CLOSE_SANDBOX = 0x1013;  // 4115: ignored
// Client to daemon.
// 4101: "%04X%s\n" formatted with 4101 and the sandbox id, NUL counted.
inline constexpr unsigned short SDP_PROTO_REGISTER = 0x1005;
inline constexpr unsigned short SDP_PROTO_HTTPS_QUERY = 0x1113;  // 4371: query string, NUL counted
// Both directions: client sends "<sandbox id>#<IPv4>#<IPv6>" without NUL;
// the daemon's heartbeats are ignored.
inline constexpr unsigned short SDP_PROTO_HEARTBEAT = 0x1111;  // 4369

// Option::clientType values.
inline constexpr int CLIENT_TYPE_TCP = 3;
inline constexpr int CLIENT_TYPE_UNIX = 4;

// In-memory image of one frame, 64512 bytes. The receiver zero-fills the whole
// record before each frame; the caller owns it.
struct sdpmsg_t {
  unsigned short m_reserved;
  unsigned short m_cmd;
  unsigned short s_cmd;
  unsigned short msglen;
  char data[MAX_MSGLEN + 1];
};
static_assert(sizeof(unsigned short) == 2, "header fields are 16-bit");
static_assert(offsetof(sdpmsg_t, m_reserved) == 0, "wire layout");
static_assert(offsetof(sdpmsg_t, m_cmd) == 2, "wire layout");
static_assert(offsetof(sdpmsg_t, s_cmd) == 4, "wire layout");
static_assert(offsetof(sdpmsg_t, msglen) == 6, "wire layout");
static_assert(offsetof(sdpmsg_t, data) == SDPMSG_HEAD_LEN, "wire layout");
static_assert(sizeof(sdpmsg_t) == 64512, "one frame record is 0xFC00 bytes");

// Byte-level helpers, free of sockets and logging.
namespace cscomm {

struct FrameHeader {
  unsigned short m_reserved = 0;
  unsigned short m_cmd = 0;
  unsigned short s_cmd = 0;
  unsigned short msglen = 0;
};

// REQUIRES: `out` / `in` hold SDPMSG_HEAD_LEN bytes.
void EncodeFrameHeader(const FrameHeader& header, char* out);
FrameHeader DecodeFrameHeader(const char* in);

// True when a received header announces more than a frame may carry.
inline bool IsOversize(const FrameHeader& header) { return header.msglen > MAX_MSGLEN; }

// Lays one outgoing frame out in `frame` (zeroed in full first): m_reserved 0,
// `m_cmd`, `s_cmd`, and the body. A `len` below 0 or above MAX_MSGLEN is cut:
// the body becomes the first MAX_MSGLEN bytes of `data` (which must then hold
// that many) and `*cut` is set. A null `data` leaves the body zero.
// Returns the number of bytes to write: SDPMSG_HEAD_LEN + body length.
int BuildFrame(sdpmsg_t* frame, unsigned short m_cmd, unsigned short s_cmd, const char* data,
               int len, bool* cut);

}  // namespace cscomm

// The two locks of one connection; it holds no descriptor, each call gets one.
// Threads: any number of senders and one or more receivers at once. The read
// and write locks are separate, so a receive blocked in recv never holds up a
// send; neither is ever held together with the channel's descriptor lock.
class SocketRWriter {
 public:
  // Sends one frame on `fd` (blocking, MSG_NOSIGNAL) under wmutex_, so two
  // senders never interleave bytes. An out-of-range `len` is cut to
  // MAX_MSGLEN with a WARNING. Returns the frame length (len + 8, or 64511
  // when cut) or -1; only EPIPE is logged. Never closes `fd`.
  int SendMessage(int fd, unsigned short m_cmd, unsigned short s_cmd, const char* data, int len);

 private:
  friend class TCP_Client;  // takes rmutex_ around a whole receive

  std::mutex rmutex_;  // held for the whole receive of one frame
  std::mutex wmutex_;  // held for the whole send of one frame
};

// Base of the channel objects; only its destructor is virtual.
class ClientComm {
 public:
  virtual ~ClientComm() {}
};

// Optional message handler carried by Option. Nothing in this program creates one.
class MessageDeal {
 public:
  virtual ~MessageDeal() {}
  virtual int OnTimer() { return 0; }
  virtual int Process(int) { return 0; }
};

// Connection options, handed to TCP_Client::Init by reference and copied there.
// A value-initialised Option (`Option opt;`) is all zero, handler null. It is
// not a plain record: fill it field by field, never with memset.
//
// Ownership of `handler`: shared. The Option owns the handler, and Init copies
// every field into the channel's own Option, so both hold it; a shared_ptr lets
// each copy own it and deletes it (through its virtual destructor) exactly once,
// when the last Option holding it goes. A raw owning pointer would be deleted
// twice, once by the caller's Option and once by the channel's copy.
struct Option {
  uint32_t reserved0 = 0;                   // copied, never read
  signed char reserved1[4] = {0, 0, 0, 0};  // copied, never read
  uint8_t reserved2 = 0;                    // copied, never read
  uint8_t reconnect = 0;                    // non-zero: Init starts the reconnect thread
  uint16_t port = 0;                        // TCP port (CLIENT_TYPE_TCP)
  uint16_t protocol = 0;                    // peer's protocol number; kept, unused
  uint16_t version = 0;                     // peer's protocol version; kept, unused
  uint16_t sendTimeout = 0;                 // seconds, SO_SNDTIMEO; 0 = unbounded
  uint16_t recvTimeout = 0;                 // seconds, SO_RCVTIMEO; 0 = unbounded
  char unixPath[512] = {};                  // socket path (CLIENT_TYPE_UNIX)
  char host[128] = {};                      // host name or address (CLIENT_TYPE_TCP)
  int32_t clientType = 0;                   // CLIENT_TYPE_TCP or CLIENT_TYPE_UNIX
  std::shared_ptr<MessageDeal> handler;     // optional; see ownership above
};
