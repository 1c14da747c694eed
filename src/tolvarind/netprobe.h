// Address probes of the heartbeat: which interface carries the default route,
// and the IPv4 and IPv6 addresses it has. Called from the heartbeat thread;
// they keep no state, so any thread may call them.
#pragma once

#include <string>

#include "sdp_paths.h"

namespace netprobe {

// Name of the first interface in a route table of the "/proc/net/route" form
// whose route is up, has destination 0.0.0.0 and mask 0.0.0.0. Empty when the
// file cannot be read or holds no default route.
std::string DefaultRouteInterface(const char* routeFile = sdp_paths::kProcNetRoute);

// Dotted IPv4 address of the default-route interface (SIOCGIFADDR); empty on
// any failure.
std::string GetSystemIpv4(const char* routeFile = sdp_paths::kProcNetRoute);

// Numeric IPv6 addresses of every interface whose name is a prefix of the
// default-route interface's name, in getifaddrs order, joined by ";". Empty
// when there is none or on failure.
std::string GetSystemIpv6(const char* routeFile = sdp_paths::kProcNetRoute);

}  // namespace netprobe
