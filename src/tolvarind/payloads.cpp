#include "payloads.h"

#include <cstdio>
#include <cstring>

#include "CSComm.h"

namespace payload {

std::string Registration(const char* sandboxId) {
  char buf[128] = {0};
  std::snprintf(buf, sizeof(buf), "%04X%s\n", static_cast<unsigned>(SDP_PROTO_REGISTER), sandboxId);
  return std::string(buf, std::strlen(buf) + 1);
}

std::string Heartbeat(const std::string& sandboxId, const std::string& ipv4,
                      const std::string& ipv6) {
  return sandboxId + "#" + ipv4 + "#" + ipv6;
}

}  // namespace payload
