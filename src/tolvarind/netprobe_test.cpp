#include "netprobe.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "log_capture.h"

namespace {

constexpr char kHeader[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string ScratchDir() {
  const char* tmp = std::getenv("TMPDIR");
  return tmp && *tmp ? tmp : TOLVARIND_TEST_SCRATCH;
}

class RouteFile {
 public:
  explicit RouteFile(const std::string& body)
      : path_(ScratchDir() + "/route." + std::to_string(getpid()) + "." +
              std::to_string(counter_++)) {
    std::ofstream(path_) << body;
  }
  ~RouteFile() { unlink(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  static inline int counter_ = 0;
  std::string path_;
};

struct RouteCase {
  const char* name;
  std::string body;
  std::string want;
};

TEST(DefaultRouteInterface, PicksFirstUpRouteToEverywhere) {
  const RouteCase cases[] = {
      {"header only", kHeader, ""},
      {"default after a subnet route",
       std::string(kHeader) + "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                              "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n",
       "wlan0"},
      {"first of two defaults wins",
       std::string(kHeader) + "eth1\t00000000\t0101A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                              "eth0\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
       "eth1"},
      {"route not up is skipped",
       std::string(kHeader) + "eth0\t00000000\t0101A8C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"
                              "eth1\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
       "eth1"},
      {"zero destination with a mask is not a default",
       std::string(kHeader) + "eth0\t00000000\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n", ""},
      {"garbage lines are skipped",
       std::string(kHeader) + "garbage\n\n\t\t\neth0 zz 00 0001\n" +
           "eth2\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
       "eth2"},
      {"over-long interface name is skipped",
       std::string(kHeader) +
           "abcdefghijklmnopq\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
       ""},
      {"no trailing line feed",
       std::string(kHeader) + "eth3\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0", "eth3"},
  };
  for (const auto& c : cases) {
    RouteFile file(c.body);
    EXPECT_EQ(netprobe::DefaultRouteInterface(file.path()), c.want) << c.name;
  }
}

TEST(DefaultRouteInterface, MissingFileGivesNothingAndWarns) {
  testsupport::LogCapture logs;
  const std::string path = ScratchDir() + "/no-such-route-file";
  EXPECT_EQ(netprobe::DefaultRouteInterface(path.c_str()), "");
  EXPECT_EQ(logs.count_prefix("open route table failed:" + path), 1);
}

TEST(Probes, InterfaceThatDoesNotExistGivesEmptyAddresses) {
  RouteFile file(std::string(kHeader) +
                 "nosuch9\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n");
  EXPECT_EQ(netprobe::GetSystemIpv4(file.path()), "");
  EXPECT_EQ(netprobe::GetSystemIpv6(file.path()), "");
}

TEST(Probes, NoDefaultRouteGivesEmptyAddresses) {
  testsupport::LogCapture logs;
  RouteFile file(kHeader);
  EXPECT_EQ(netprobe::GetSystemIpv4(file.path()), "");
  EXPECT_EQ(netprobe::GetSystemIpv6(file.path()), "");
  EXPECT_EQ(logs.count_prefix(std::string("no default route in ") + file.path()), 2);
}

}  // namespace
