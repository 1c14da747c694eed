// The bytes the client sends on its own initiative: the registration and the
// heartbeat payloads. Pure functions, so the exact bytes are tested without a
// socket.
#pragma once

#include <string>

namespace payload {

// "%04X%s\n" of 4101 and `sandboxId`, cut to fit a 128-byte buffer, followed
// by its terminating NUL, which is sent too (9 bytes for the id "abc").
std::string Registration(const char* sandboxId);

// sandbox id "#" IPv4 "#" IPv6, without a terminating NUL.
std::string Heartbeat(const std::string& sandboxId, const std::string& ipv4,
                      const std::string& ipv6);

}  // namespace payload

// Every-N sampling in glog's manner: Next() is true for the 1st, (N+1)th,
// (2N+1)th ... call. Not thread-safe; the command loop owns its sampler.
class EveryNSampler {
 public:
  explicit EveryNSampler(int n) : n_(n) {}
  bool Next() {
    ++occurrences_;
    if (++occurrences_mod_n_ > n_) occurrences_mod_n_ -= n_;
    return occurrences_mod_n_ == 1;
  }
  unsigned long occurrences() const { return occurrences_; }

 private:
  const int n_;
  unsigned long occurrences_ = 0;
  int occurrences_mod_n_ = 0;
};
