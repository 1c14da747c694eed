#include "sim_command.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "frame_text.h"

namespace ventraldsim {
namespace {

// "kind m_cmd/s_cmd msglen seconds body" for a command, "error: ..." otherwise.
std::string Parsed(const std::string& line) {
  const ParseResult r = ParseCommandLine(line);
  const Command& c = r.command;
  char head[64];
  snprintf(head, sizeof head, "%d %u/%#x %u %g ", int(c.kind), c.m_cmd, c.s_cmd, c.msglen,
           c.seconds);
  return r.ok ? head + c.body : "error: " + r.error;
}

// Lines of the command language and what they give; an error row names a part of the error.
TEST(VentraldSim, CommandLinesOptionsAndFrameTexts) {
  const std::pair<std::string, std::string> rows[] = {
      {"  \tportal \t https://a b  \t\r\n", "1 2/0x306 0 0 https://a b"},
      {"raw 2 769 a\\0\\x41\\\\\\n\\r\\t", std::string("1 2/0x301 0 0 a\0A\\\n\r\t", 21)},
      {"raw-header 2 0x1001 64504", "2 2/0x1001 64504 0 "},
      {"   # portal http://x", "0 0/0 0 0 "},
      {"wait-client", "5 0/0 0 30 "},
      {"Portal http://x", "error: unknown command 'Portal'"},
      {"heartbeat now", "error: heartbeat takes no argument (got 'now')"},
      {"wait 3601", "error: not a number of seconds from 0 to 3600"},
      {"raw 2 1 ab\\x4", "error: \\x needs two hex digits at offset 2"},
      {"raw 2 1 " + std::string(65536, 'a'), "error: 65536 bytes does not fit"},
  };
  for (const auto& [line, want] : rows) {
    const std::string got = Parsed(line);
    EXPECT_TRUE(got == want || (want[0] == 'e' && got.find(want.substr(7)) != got.npos)) << got;
  }
  const char* args[] = {"sim", "--socket=/a.sock", "-c", "wait-client", "--no-heartbeats", "x"};
  const OptionsResult r = ParseOptions(5, args, "/default.sock");
  EXPECT_TRUE(r.ok && r.options.socket_path == "/a.sock" && !r.options.show_heartbeats &&
              r.options.commands.size() == 1);
  EXPECT_EQ(ParseOptions(6, args, "/d").error,
            "unexpected argument 'x' (commands go after -c, or on stdin)");
  EXPECT_EQ(
      DescribeReceived(1, 0x1113, std::string("a\0\x01\"\xe6\xa1\x8c", 7)),
      "frame m_cmd 1 s_cmd 0x1113 SDP_PROTO_HTTPS_QUERY (query not ended by one NUL), 7 bytes: "
      "61 00 01 22 e6 a1 8c  \"a\\0\\x01\\\"\xe6\xa1\x8c\"");
}

}  // namespace
}  // namespace ventraldsim
