#include "netprobe.h"

#include <arpa/inet.h>
#include <glog/logging.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/route.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "unique_fd.h"

namespace netprobe {
namespace {

using util::UniqueFd;
using util::UniqueFile;

struct IfaddrsFree {
  void operator()(ifaddrs* a) const { freeifaddrs(a); }
};

// One data line of the route table; false when it does not parse or names an
// interface too long to be one.
bool ParseRouteLine(const char* line, std::string& iface, unsigned long& dest, unsigned& flags,
                    unsigned long& mask) {
  char name[64] = {0};
  unsigned long gateway = 0;
  if (std::sscanf(line, "%63s %lx %lx %x %*d %*d %*d %lx", name, &dest, &gateway, &flags, &mask) !=
      5)
    return false;
  if (std::strlen(name) >= IFNAMSIZ) return false;
  iface = name;
  return true;
}

}  // namespace

std::string DefaultRouteInterface(const char* routeFile) {
  UniqueFile file(std::fopen(routeFile, "re"));
  if (!file) {
    LOG(WARNING) << "open route table failed:" << routeFile << " " << std::strerror(errno);
    return "";
  }
  char* line = nullptr;
  size_t cap = 0;
  std::string found;
  bool header = true;
  while (getline(&line, &cap, file.get()) != -1) {
    if (header) {  // column titles
      header = false;
      continue;
    }
    std::string iface;
    unsigned long dest = 0, mask = 0;
    unsigned flags = 0;
    if (!ParseRouteLine(line, iface, dest, flags, mask)) continue;
    if (dest == 0 && mask == 0 && (flags & RTF_UP)) {
      found = iface;
      break;
    }
  }
  std::free(line);
  if (found.empty()) LOG(WARNING) << "no default route in " << routeFile;
  return found;
}

std::string GetSystemIpv4(const char* routeFile) {
  const std::string dev = DefaultRouteInterface(routeFile);
  if (dev.empty()) return "";

  UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    LOG(ERROR) << "get_system_ipv4 socket failed:" << std::strerror(errno);
    return "";
  }
  ifreq ifr;
  std::memset(&ifr, 0, sizeof(ifr));
  std::memcpy(ifr.ifr_name, dev.c_str(), dev.size());  // dev.size() < IFNAMSIZ
  if (ioctl(fd.get(), SIOCGIFADDR, &ifr) < 0) {
    LOG(WARNING) << "get_system_ipv4 ioctl failed:" << dev << " " << std::strerror(errno);
    return "";
  }
  const auto* sin = reinterpret_cast<const sockaddr_in*>(&ifr.ifr_addr);
  char text[INET_ADDRSTRLEN] = {0};
  if (!inet_ntop(AF_INET, &sin->sin_addr, text, sizeof(text))) return "";
  return text;
}

std::string GetSystemIpv6(const char* routeFile) {
  const std::string dev = DefaultRouteInterface(routeFile);
  if (dev.empty()) return "";

  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) {
    LOG(ERROR) << "getifaddrs failed:" << std::strerror(errno);
    return "";
  }
  std::unique_ptr<ifaddrs, IfaddrsFree> list(raw);

  std::string out;
  for (const ifaddrs* a = list.get(); a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET6 || !a->ifa_name) continue;
    // A prefix of the route's interface name counts as the same interface.
    if (dev.compare(0, std::strlen(a->ifa_name), a->ifa_name) != 0) continue;
    char host[NI_MAXHOST] = {0};
    int rc = getnameinfo(a->ifa_addr, sizeof(sockaddr_in6), host, NI_MAXHOST, nullptr, 0,
                         NI_NUMERICHOST);
    if (rc != 0) {
      LOG(ERROR) << "getnameinfo() failed:" << gai_strerror(rc);
      continue;
    }
    LOG(INFO) << "get_system_ipv6:" << host;
    if (!out.empty()) out += ";";
    out += host;
  }
  return out;
}

}  // namespace netprobe
