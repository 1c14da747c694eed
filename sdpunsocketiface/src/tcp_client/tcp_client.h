// TCP_Client: the client end of the channel to the peer daemon `ventrald`.
// It connects a Unix-domain (or TCP) stream socket, sends and receives frames
// (CSComm.h), and, when asked, reconnects from a thread of its own once a
// second while the connection is down. The client object owns exactly one.
//
// Threads: one receiver (RecvMessage), any number of senders (SendMessage)
// and the reconnect thread share the object. Locks, never two at once:
//   fdmutex_            sockfd_ (all of InitSocket and CloseConn, and every
//                       read), clientaddr_, clientport_, peer_refusal_;
//                       connected_cv_ waits on it
//   rwriter_.rmutex_    one whole frame received
//   rwriter_.wmutex_    one whole frame sent
//   reconn_mu_          the reconnect threads' bookkeeping and their wake-up
// RecvMessage calls CloseConn only after releasing the read lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CSComm.h"

class TCP_Client : public ClientComm {
 public:
  TCP_Client();
  // Stops and joins the reconnect thread, closes the connection and lets go of
  // the handler.
  ~TCP_Client() override;
  TCP_Client(const TCP_Client&) = delete;
  TCP_Client& operator=(const TCP_Client&) = delete;

  // Copies `opt` (unless it is option() itself), connects, applies the
  // time-outs and, if `opt.reconnect`, starts the reconnect thread.
  // Returns the new descriptor (> 0) or -1.
  int Init(Option& opt);
  // Init with a TCP Option for `host`:`port`.
  int InitConn(unsigned short protocol, unsigned short version, const char* host, int port,
               int reconnect);
  // One connection attempt with the current options: 0 or -1.
  int InitSocket();
  // Body of the reconnect thread: until Destroy(), once a second, reconnects a
  // lost connection.
  void HandleClientReconn();
  // True while connected. (The spelling is the interface's.)
  bool IsAvaliable();
  void CloseConn();
  // Closes the connection and tells the reconnect thread to end; returns 0.
  int Destroy();
  // The local address and port of a TCP connection. REQUIRES: buf holds len bytes.
  void GetClientSockName(char* buf, int len, int* port);
  // "AA:BB:CC:DD:EE:FF" of interface `ifname` into `buf`; the snprintf count or -1.
  int GetMacAddr(const char* ifname, char* buf, int len);

  // Sends one frame (SocketRWriter::SendMessage) on a copy of the current
  // descriptor, so that a concurrent CloseConn cannot turn it into another
  // file's number. -1 while disconnected.
  int SendMessage(unsigned short m_cmd, unsigned short s_cmd, const char* data, int len);
  // Receives one frame into `msg` (zeroed in full first); returns the body
  // length or -1. Any failure closes the connection, which the reconnect
  // thread then restores. While disconnected it waits for that, up to a
  // second, and returns -1 if the connection is still down; without a
  // reconnect thread it returns -1 after 500 microseconds.
  int RecvMessage(sdpmsg_t* msg);

  // The options in use, e.g. for Init(option()) to connect again with them.
  Option& option() { return option_; }
  // Reconnect threads started and not yet ended.
  int ReconnectThreads();
  // Why the last Unix connection was closed at once because of who listened
  // on the socket; "" when the last attempt did not refuse its peer.
  std::string PeerRefusal();

  // Why a peer with credentials `peerUid` is not to be trusted by a client
  // whose effective uid is `self`; "" when it is (root or `self`).
  static std::string PeerUidRefusal(uid_t peerUid, uid_t self);

 private:
  void CopyOption(const Option& opt);

  std::mutex fdmutex_;         // guards the descriptor; see the list above
  std::atomic<bool> stop_;     // true: the reconnect thread ends
  int clientport_ = 0;         // local port of a TCP connection, host order
  char clientaddr_[128] = {};  // local IPv4 address of a TCP connection
  // Written only under fdmutex_; atomic for Init's read of its own result.
  std::atomic<int> sockfd_;
  std::condition_variable connected_cv_;  // a connection was made (with fdmutex_)
  std::string peer_refusal_;              // under fdmutex_
  Option option_;
  SocketRWriter rwriter_;  // the read and write locks

  std::mutex reconn_mu_;               // guards reconn_threads_, reconn_running_
  std::condition_variable reconn_cv_;  // cuts the reconnect thread's 1-second wait on stop
  std::vector<std::thread> reconn_threads_;
  int reconn_running_ = 0;
};
