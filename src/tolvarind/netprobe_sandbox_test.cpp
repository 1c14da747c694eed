// The probes against real interfaces, inside the test sandbox, where vtest0
// carries 10.0.0.5 and the default route.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "netprobe.h"
#include "sandbox.h"

namespace {

TEST(NetprobeSandbox, Ipv4IsTheDefaultRouteInterfaceAddress) {
  EXPECT_EQ(netprobe::DefaultRouteInterface(), testsupport::kSandboxIfName);
  EXPECT_EQ(netprobe::GetSystemIpv4(), testsupport::kSandboxIpv4);
}

TEST(NetprobeSandbox, Ipv6JoinsAddressesOfPrefixNamedInterfaces) {
  // Only what this test adds, no link-local addresses anywhere. "vtes" is a
  // prefix of "vtest0" and counts; "vtest1" and "lo" do not.
  for (const char* args :
       {"-6 addr flush dev vtest0", "-6 addr add 2001:db8::5/64 dev vtest0 nodad",
        "-6 addr add 2001:db8::6/64 dev vtest0 nodad", "link add vtes type veth peer name vtesx",
        "link set vtes addrgenmode none", "link set vtesx addrgenmode none", "link set vtes up",
        "link set vtesx up", "-6 addr add 2001:db8:1::7/64 dev vtes nodad",
        "-6 addr add 2001:db8:2::8/64 dev vtest1 nodad"}) {
    const std::string cmd = std::string("PATH=$PATH:/usr/sbin:/sbin ip ") + args;
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  }
  testsupport::LogCapture logs;
  const std::string got = netprobe::GetSystemIpv6();
  for (const std::string want : {"2001:db8::5", "2001:db8::6", "2001:db8:1::7"}) {
    EXPECT_NE((";" + got + ";").find(";" + want + ";"), std::string::npos) << got;
    EXPECT_TRUE(logs.has("get_system_ipv6:" + want, google::GLOG_INFO)) << want;
  }
  EXPECT_EQ(got.size(), std::string("2001:db8::5;2001:db8::6;2001:db8:1::7").size()) << got;
  EXPECT_EQ(logs.count_prefix("get_system_ipv6:"), 3);
}

TEST(NetprobeSandbox, Ipv6IsEmptyWhenTheInterfaceHasNone) {
  std::ofstream("/proc/sys/net/ipv6/conf/vtest0/disable_ipv6") << "1\n";
  EXPECT_EQ(netprobe::GetSystemIpv6(), "");
}

}  // namespace
