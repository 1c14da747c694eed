// The process's glog set-up: files under the installation's log directory, one
// per severity, flushed record by record, and glog's crash report routed into
// the ERROR log. Exactly one instance lives on main's stack for the whole run.
#pragma once

#include <cstddef>

class SandboxLOG {
 public:
  // `program` names the logger (the first element of the argument vector).
  explicit SandboxLOG(const char* program);
  ~SandboxLOG();
  SandboxLOG(const SandboxLOG&) = delete;
  SandboxLOG& operator=(const SandboxLOG&) = delete;
};

// glog's failure writer: writes `size` bytes of `data` as one ERROR record.
// REQUIRES: `data` is not null when `size` is not 0.
void SignalHandle(const char* data, std::size_t size);
