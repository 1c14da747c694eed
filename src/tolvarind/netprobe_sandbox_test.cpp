// The probes against real interfaces, inside the test sandbox, where vtest0
// carries 10.0.0.5 and the default route.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "log_capture.h"
#include "netprobe.h"
#include "sandbox.h"

namespace {

void Ip(const std::string& args) {
  const char* ip = access("/usr/sbin/ip", X_OK) == 0 ? "/usr/sbin/ip" : "/sbin/ip";
  const std::string cmd = std::string(ip) + " " + args;
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

std::set<std::string> Split(const std::string& joined, size_t* pieces) {
  std::set<std::string> out;
  std::stringstream in(joined);
  std::string item;
  *pieces = 0;
  while (std::getline(in, item, ';')) {
    out.insert(item);
    ++*pieces;
  }
  return out;
}

TEST(NetprobeSandbox, Ipv4IsTheDefaultRouteInterfaceAddress) {
  EXPECT_EQ(netprobe::DefaultRouteInterface(), testsupport::kSandboxIfName);
  EXPECT_EQ(netprobe::GetSystemIpv4(), testsupport::kSandboxIpv4);
}

TEST(NetprobeSandbox, Ipv6JoinsAddressesOfPrefixNamedInterfaces) {
  // Only what this test adds: no link-local addresses anywhere.
  Ip("-6 addr flush dev vtest0");
  Ip("-6 addr add 2001:db8::5/64 dev vtest0 nodad");
  Ip("-6 addr add 2001:db8::6/64 dev vtest0 nodad");
  // "vtes" is a prefix of "vtest0" and counts; "vtest1" and "lo" do not.
  Ip("link add vtes type veth peer name vtesx");
  Ip("link set vtes addrgenmode none");
  Ip("link set vtesx addrgenmode none");
  Ip("link set vtes up");
  Ip("link set vtesx up");
  Ip("-6 addr add 2001:db8:1::7/64 dev vtes nodad");
  Ip("-6 addr add 2001:db8:2::8/64 dev vtest1 nodad");

  testsupport::LogCapture logs;
  size_t pieces = 0;
  auto got = Split(netprobe::GetSystemIpv6(), &pieces);
  EXPECT_EQ(got, (std::set<std::string>{"2001:db8::5", "2001:db8::6", "2001:db8:1::7"}));
  EXPECT_EQ(pieces, 3u);
  EXPECT_TRUE(logs.has("get_system_ipv6:2001:db8::5", google::GLOG_INFO));
  EXPECT_TRUE(logs.has("get_system_ipv6:2001:db8:1::7", google::GLOG_INFO));
  EXPECT_EQ(logs.count_prefix("get_system_ipv6:"), 3);
}

TEST(NetprobeSandbox, Ipv6IsEmptyWhenTheInterfaceHasNone) {
  std::ofstream("/proc/sys/net/ipv6/conf/vtest0/disable_ipv6") << "1\n";
  EXPECT_EQ(netprobe::GetSystemIpv6(), "");
}

}  // namespace
