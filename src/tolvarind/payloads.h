// The bytes the client sends on its own initiative: the registration and the
// heartbeat payloads. Pure functions, so the exact bytes are tested without a
// socket.
#pragma once

#include <algorithm>
#include <chrono>
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

// A byte budget for log lines whose number and length others decide, as a
// token bucket: Take(cost) is true while the bucket is not empty and then
// takes `cost`, which may leave it owing; it fills at `perSecond` up to
// `burst`. A line longer than the burst is written in its turn instead of
// never, and over any t seconds the lines let through cost at most
// burst + perSecond * t plus one line. Not thread-safe.
class LineBudget {
 public:
  using Clock = std::chrono::steady_clock;
  LineBudget(double perSecond, double burst)
      : perSecond_(perSecond), burst_(burst), tokens_(burst) {}
  bool Take(double cost, Clock::time_point now = Clock::now()) {
    if (started_)
      tokens_ = std::min(burst_,
                         tokens_ + perSecond_ * std::chrono::duration<double>(now - last_).count());
    started_ = true;
    last_ = now;
    if (tokens_ <= 0) return false;
    tokens_ -= cost;
    return true;
  }

 private:
  const double perSecond_;
  const double burst_;
  double tokens_;
  bool started_ = false;
  Clock::time_point last_;
};
