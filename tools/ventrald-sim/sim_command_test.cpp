#include "sim_command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ventraldsim {
namespace {

using K = CommandKind;

TEST(SimCommandLine, AcceptedLinesGiveTheirCommand) {
  const struct {
    const char* line;
    K kind;
    uint16_t m_cmd, s_cmd;
    std::string body;
    double seconds;
    uint16_t msglen;
  } cases[] = {
      {"open-app echo 'a  b' | tr a z", K::kSend, 2, 0x301, "echo 'a  b' | tr a z", 0, 0},
      {"portal https://p.example/sso?x=1&y=2", K::kSend, 2, 0x306, "https://p.example/sso?x=1&y=2",
       0, 0},
      {"illegal /usr/bin/gimp", K::kSend, 2, 0x501, "/usr/bin/gimp", 0, 0},
      {"popup --title \"Access\"", K::kSend, 2, 0x1001, "--title \"Access\"", 0, 0},
      {"response", K::kSend, 2, 0x303, "", 0, 0},
      {"response done", K::kSend, 2, 0x303, "done", 0, 0},
      {"open-sandbox", K::kSend, 2, 0x1012, "", 0, 0},
      {"close-sandbox", K::kSend, 2, 0x1013, "", 0, 0},
      {"heartbeat", K::kSend, 2, 0x1111, "", 0, 0},
      // Blanks around the command are dropped, inner ones kept, CRLF input accepted.
      {"  \tportal \t https://a b  \t\r\n", K::kSend, 2, 0x306, "https://a b", 0, 0},
      // A backslash means nothing outside raw: shell commands keep theirs.
      {"open-app printf 'a\\n'", K::kSend, 2, 0x301, "printf 'a\\n'", 0, 0},
      {"raw 65535 0xFFFF", K::kSend, 65535, 0xffff, "", 0, 0},
      {"raw 2 769 a\\0\\x41\\x7e\\\\\\n\\r\\t", K::kSend, 2, 769, std::string("a\0A~\\\n\r\t", 8),
       0, 0},
      {"raw-header 2 0x1001 64504", K::kSendHeader, 2, 0x1001, "", 0, 64504},
      {"   # portal http://x", K::kNothing, 0, 0, "", 0, 0},
      {"wait 0.25", K::kWait, 0, 0, "", 0.25, 0},
      {"wait 3600", K::kWait, 0, 0, "", 3600, 0},
      {"wait-client", K::kWaitClient, 0, 0, "", kDefaultClientWaitSeconds, 0},
      {"close", K::kClose, 0, 0, "", 0, 0},
      {"exit\r", K::kQuit, 0, 0, "", 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const ParseResult r = ParseCommandLine(c.line);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.command.kind, c.kind);
    EXPECT_EQ(r.command.m_cmd, c.m_cmd);
    EXPECT_EQ(r.command.s_cmd, c.s_cmd);
    EXPECT_EQ(r.command.body, c.body);
    EXPECT_DOUBLE_EQ(r.command.seconds, c.seconds);
    EXPECT_EQ(r.command.msglen, c.msglen);
  }
  EXPECT_TRUE(ParseCommandLine("raw 2 1 " + std::string(65535, 'a')).ok);
}

TEST(SimCommandLine, BadInputIsRefusedWithAReason) {
  const struct {
    std::string line;
    const char* error_part;
  } cases[] = {
      {"Portal http://x", "unknown command 'Portal'"},
      {"open-app    ", "open-app needs an argument"},
      {"portal", "portal needs an argument"},
      {"illegal", "illegal needs an argument"},
      {"popup", "popup needs an argument"},
      {"heartbeat now", "heartbeat takes no argument (got 'now')"},
      {"close x", "close takes no argument"},
      {"wait", "wait needs a number of seconds"},
      {"wait -1", "'-1' is not a number of seconds"},
      {"wait 3601", "not a number of seconds from 0 to 3600"},
      {"wait .", "not a number of seconds"},
      {"wait 1.2.3", "not a number of seconds"},
      {"raw 2", "raw needs: raw <m_cmd> <s_cmd> [body]"},
      {"raw 65536 1", "m_cmd '65536' is not a number from 0 to 65535"},
      {"raw 2 0x", "s_cmd '0x' is not a number"},
      {"raw 2 12ab", "s_cmd '12ab'"},
      {"raw 2 1 a\\", "backslash at the end"},
      {"raw 2 1 \\q", "unknown escape \\q at offset 0"},
      {"raw 2 1 ab\\x4", "\\x needs two hex digits at offset 2"},
      {"raw 2 1 " + std::string(65536, 'a'), "65536 bytes does not fit"},
      {"raw-header 2 1 70000", "msglen '70000'"},
      {"raw-header 2 1 8 extra", "unexpected text after msglen: 'extra'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    const ParseResult r = ParseCommandLine(c.line);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find(c.error_part), std::string::npos) << "error was: " << r.error;
  }
}

OptionsResult Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "ventrald-sim");
  return ParseOptions(static_cast<int>(args.size()), args.data(), "/default.sock");
}

TEST(SimOptions, DefaultsAndEveryOptionForm) {
  OptionsResult r = Parse({});
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.options.socket_path, "/default.sock");
  EXPECT_TRUE(r.options.commands.empty() && r.options.show_heartbeats && !r.options.help);

  r = Parse({"--socket=/a.sock", "-c", "wait-client", "--command", "portal http://x",
             "--no-heartbeats", "--command=open-app ls -l", "--help"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.options.socket_path, "/a.sock");
  EXPECT_TRUE(!r.options.show_heartbeats && r.options.help);
  ASSERT_EQ(r.options.commands.size(), 3u);
  EXPECT_EQ(r.options.commands[1].body, "http://x");
  EXPECT_EQ(r.options.commands[2].body, "ls -l");
}

TEST(SimOptions, BadOptionsAreRefusedWithAReason) {
  const struct {
    std::vector<const char*> args;
    const char* error_part;
  } cases[] = {
      {{"-s"}, "option -s needs a path"},
      {{"--socket="}, "needs a non-empty path"},
      {{"-c"}, "option -c needs a command"},
      {{"-c", "wait-client", "-c", "portal"}, "command 2 (portal): portal needs an argument"},
      {{"--frob"}, "unknown option '--frob'"},
      {{"portal"}, "unexpected argument 'portal'"},
      {{"--no-heartbeats=1"}, "takes no value"},
      {{"--help=yes"}, "takes no value"},
  };
  for (const auto& c : cases) {
    const OptionsResult r = Parse(c.args);
    EXPECT_FALSE(r.ok) << c.error_part;
    EXPECT_NE(r.error.find(c.error_part), std::string::npos) << "error was: " << r.error;
  }
}

}  // namespace
}  // namespace ventraldsim
