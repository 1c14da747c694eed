// The probes against route tables of our own and against the sandbox's
// interfaces, where vtest0 carries 10.0.0.5 and the default route.
#include "netprobe.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

std::string Route(const char* iface, const char* dest, const char* flags, const char* mask) {
  return std::string(iface) + "\t" + dest + "\t0101A8C0\t" + flags + "\t0\t0\t0\t" + mask + "\n";
}

TEST(Netprobe, DefaultRouteIsTheFirstUpRouteToEverywhere) {
  const std::string up = "00000000\t0101A8C0\t0003\t0\t0\t0\t00000000";
  const struct {
    std::string body, want;
  } cases[] = {
      // the first up route wins
      {Route("eth0", "0000A8C0", "0001", "00FFFFFF") + "wlan0\t" + up + "\n", "wlan0"},
      {Route("eth0", "00000000", "0002", "00000000") + "eth1\t" + up + "\n", "eth1"},
      {Route("eth0", "00000000", "0001", "000000FF"), ""},
      {"garbage\n\n\t\t\neth0 zz 00 0001\neth2\t" + up + "\neth3\t" + up + "\n", "eth2"},
      {"abcdefghijklmnop\t" + up + "\n", ""},         // too long for a name
      {"abcdefghijklmno\t" + up, "abcdefghijklmno"},  // the longest name, no line feed
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    std::ofstream("/tmp/route") << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\n"
                                << c.body;
    EXPECT_EQ(netprobe::DefaultRouteInterface("/tmp/route"), c.want);
  }
}

// Only what this test adds, no link-local addresses anywhere. "vtes" is a
// prefix of "vtest0" and counts; "vtest1" and "lo" do not.
TEST(Netprobe, Ipv6JoinsTheAddressesOfPrefixNamedInterfaces) {
  const auto ip = [](const std::string& commands) {
    return std::system(("PATH=$PATH:/usr/sbin:/sbin; set -e; " + commands).c_str());
  };
  ASSERT_EQ(ip("ip -6 addr flush dev vtest0; ip link add vtes type veth peer name vtesx; "
               "for l in vtes vtesx; do ip link set $l addrgenmode none; ip link set $l up; done; "
               "ip -6 addr add 2001:db8::5/64 dev vtest0 nodad; ip -6 addr add 2001:db8::6/64 dev "
               "vtest0 nodad; ip -6 addr add 2001:db8:1::7/64 dev vtes nodad; "
               "ip -6 addr add 2001:db8:2::8/64 dev vtest1 nodad"),
            0);
  // In the kernel's order: the interface's newest address first.
  EXPECT_EQ(netprobe::GetSystemIpv6(), "2001:db8::6;2001:db8::5;2001:db8:1::7");
}

}  // namespace
