#include "netprobe.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "log_capture.h"

namespace {

// A route table in the scratch directory; `body` follows the column titles.
std::string RouteFile(const std::string& body) {
  const char* tmp = std::getenv("TMPDIR");
  const std::string path = std::string(tmp && *tmp ? tmp : TOLVARIND_TEST_SCRATCH) + "/route." +
                           std::to_string(getpid());
  std::ofstream(path) << "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\t"
                         "Window\tIRTT\n"
                      << body;
  return path;
}

std::string Route(const char* iface, const char* dest, const char* flags, const char* mask) {
  return std::string(iface) + "\t" + dest + "\t0101A8C0\t" + flags + "\t0\t0\t0\t" + mask +
         "\t0\t0\t0\n";
}

TEST(DefaultRouteInterface, PicksFirstUpRouteToEverywhere) {
  const struct {
    std::string body, want;
  } cases[] = {
      {"", ""},
      {Route("eth0", "0000A8C0", "0001", "00FFFFFF") +
           Route("wlan0", "00000000", "0003", "00000000"),
       "wlan0"},
      {Route("eth1", "00000000", "0003", "00000000") +
           Route("eth0", "00000000", "0003", "00000000"),
       "eth1"},
      {Route("eth0", "00000000", "0002", "00000000") +
           Route("eth1", "00000000", "0003", "00000000"),
       "eth1"},
      {Route("eth0", "00000000", "0001", "000000FF"), ""},
      {"garbage\n\n\t\t\neth0 zz 00 0001\n" + Route("eth2", "00000000", "0003", "00000000"),
       "eth2"},
      {Route("abcdefghijklmnopq", "00000000", "0003", "00000000"), ""},  // too long for a name
      {"eth3\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0", "eth3"},  // no line feed
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    const std::string path = RouteFile(c.body);
    EXPECT_EQ(netprobe::DefaultRouteInterface(path.c_str()), c.want);
    unlink(path.c_str());
  }
}

TEST(DefaultRouteInterface, ProbesGiveNothingWithoutARouteOrAnInterface) {
  testsupport::LogCapture logs;
  EXPECT_EQ(netprobe::DefaultRouteInterface("/nonexistent/route"), "");
  EXPECT_EQ(logs.count_prefix("open route table failed:/nonexistent/route"), 1);
  for (const std::string& body :
       {std::string(), Route("nosuch9", "00000000", "0003", "00000000")}) {
    const std::string path = RouteFile(body);
    logs.clear();
    EXPECT_EQ(netprobe::GetSystemIpv4(path.c_str()), "");
    EXPECT_EQ(netprobe::GetSystemIpv6(path.c_str()), "");
    EXPECT_EQ(logs.count_prefix("no default route in " + path), body.empty() ? 2 : 0);
    unlink(path.c_str());
  }
}

}  // namespace
