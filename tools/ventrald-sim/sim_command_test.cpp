#include "sim_command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CSComm.h"

namespace ventraldsim {
namespace {

struct SendCase {
  const char* line;
  uint16_t m_cmd;
  uint16_t s_cmd;
  std::string body;
};

TEST(SimCommandLine, SendCommandsMapToTheirCodesAndKeepTheArgumentVerbatim) {
  const std::vector<SendCase> cases = {
      {"open-app echo 'a  b' | tr a z", 2, 0x301, "echo 'a  b' | tr a z"},
      {"portal https://portal.example/sso?x=1&y=2", 2, 0x306, "https://portal.example/sso?x=1&y=2"},
      {"illegal /usr/bin/gimp", 2, 0x501, "/usr/bin/gimp"},
      {"popup --title \"Access\" --text \"denied\"", 2, 0x1001,
       "--title \"Access\" --text \"denied\""},
      {"response", 2, 0x303, ""},
      {"response done", 2, 0x303, "done"},
      {"open-sandbox", 2, 0x1012, ""},
      {"close-sandbox", 2, 0x1013, ""},
      {"heartbeat", 2, 0x1111, ""},
      // Blanks around the command are dropped, inner ones kept, CRLF input accepted.
      {"  \tportal \t https://a b  \t\r\n", 2, 0x306, "https://a b"},
      // A backslash means nothing outside raw: shell commands keep theirs.
      {"open-app printf 'a\\n'", 2, 0x301, "printf 'a\\n'"},
      {"raw 2 769 ls", 2, 769, "ls"},
      {"raw 0x1 0x1111 abc", 1, 0x1111, "abc"},
      {"raw 2 0xFFFF", 2, 0xffff, ""},
      {"raw 65535 0 x", 65535, 0, "x"},
      {"raw 2 0x501 a\\0b", 2, 0x501, std::string("a\0b", 3)},
      {"raw 2 0x301 \\x41\\x7e\\\\\\n\\r\\t", 2, 0x301, "A~\\\n\r\t"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ParseResult r = ParseCommandLine(c.line);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.command.kind, CommandKind::kSend);
    EXPECT_EQ(r.command.m_cmd, c.m_cmd);
    EXPECT_EQ(r.command.s_cmd, c.s_cmd);
    EXPECT_EQ(r.command.body, c.body);
  }
}

TEST(SimCommandLine, ControlCommandsAndNoOps) {
  struct Case {
    const char* line;
    CommandKind kind;
    double seconds;
  };
  const std::vector<Case> cases = {
      {"", CommandKind::kNothing, 0},
      {"   \t ", CommandKind::kNothing, 0},
      {"# portal http://x", CommandKind::kNothing, 0},
      {"   # indented comment", CommandKind::kNothing, 0},
      {"wait 2", CommandKind::kWait, 2},
      {"wait 0.25", CommandKind::kWait, 0.25},
      {"wait 0", CommandKind::kWait, 0},
      {"wait 3600", CommandKind::kWait, 3600},
      {"wait-client", CommandKind::kWaitClient, kDefaultClientWaitSeconds},
      {"wait-client 5", CommandKind::kWaitClient, 5},
      {"close", CommandKind::kClose, 0},
      {"help", CommandKind::kHelp, 0},
      {"quit", CommandKind::kQuit, 0},
      {"exit\r", CommandKind::kQuit, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ParseResult r = ParseCommandLine(c.line);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.command.kind, c.kind);
    EXPECT_DOUBLE_EQ(r.command.seconds, c.seconds);
  }
}

TEST(SimCommandLine, RawHeaderAnnouncesAnyLength) {
  ParseResult r = ParseCommandLine("raw-header 2 0x1001 64504");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.command.kind, CommandKind::kSendHeader);
  EXPECT_EQ(r.command.m_cmd, 2);
  EXPECT_EQ(r.command.s_cmd, 0x1001);
  EXPECT_EQ(r.command.msglen, 64504);
}

TEST(SimCommandLine, BadInputIsRefusedWithAReason) {
  struct Case {
    const char* line;
    const char* error_part;
  };
  const std::vector<Case> cases = {
      {"frobnicate", "unknown command 'frobnicate'"},
      {"Portal http://x", "unknown command 'Portal'"},
      {"open-app", "open-app needs an argument"},
      {"open-app    ", "open-app needs an argument"},
      {"portal", "portal needs an argument"},
      {"illegal", "illegal needs an argument"},
      {"popup", "popup needs an argument"},
      {"heartbeat now", "heartbeat takes no argument (got 'now')"},
      {"open-sandbox 1", "takes no argument"},
      {"close x", "close takes no argument"},
      {"quit now", "quit takes no argument"},
      {"wait", "wait needs a number of seconds"},
      {"wait -1", "'-1' is not a number of seconds"},
      {"wait 1e3", "not a number of seconds"},
      {"wait 3601", "not a number of seconds from 0 to 3600"},
      {"wait .", "not a number of seconds"},
      {"wait 1.2.3", "not a number of seconds"},
      {"wait-client soon", "'soon' is not a number of seconds"},
      {"raw", "raw needs: raw <m_cmd> <s_cmd> [body]"},
      {"raw 2", "raw needs"},
      {"raw 65536 1", "m_cmd '65536' is not a number from 0 to 65535"},
      {"raw 2 0x10000", "s_cmd '0x10000' is not a number"},
      {"raw 2 0x", "s_cmd '0x' is not a number"},
      {"raw -1 2", "m_cmd '-1'"},
      {"raw 2 12ab", "s_cmd '12ab'"},
      {"raw 2 1 a\\", "backslash at the end"},
      {"raw 2 1 \\q", "unknown escape \\q at offset 0"},
      {"raw 2 1 ab\\x4", "\\x needs two hex digits at offset 2"},
      {"raw 2 1 \\xg0", "\\x needs two hex digits"},
      {"raw-header 2 1", "raw-header needs"},
      {"raw-header 2 1 70000", "msglen '70000'"},
      {"raw-header 2 1 8 extra", "unexpected text after msglen: 'extra'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ParseResult r = ParseCommandLine(c.line);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find(c.error_part), std::string::npos) << "error was: " << r.error;
  }
}

TEST(SimCommandLine, RawBodyMustFitTheLengthField) {
  std::string fits = "raw 2 1 " + std::string(65535, 'a');
  EXPECT_TRUE(ParseCommandLine(fits).ok);
  ParseResult r = ParseCommandLine("raw 2 1 " + std::string(65536, 'a'));
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.error.find("65536 bytes does not fit"), std::string::npos) << r.error;
}

TEST(SimCommandLine, HelpListsExactlyTheCommandsTheParserKnows) {
  // Command words are the first word of the help's lines indented by two blanks.
  std::vector<std::string> listed;
  const std::string help = CommandHelp();
  size_t pos = 0;
  while (pos < help.size()) {
    size_t end = help.find('\n', pos);
    std::string line = help.substr(pos, end - pos);
    pos = end == std::string::npos ? help.size() : end + 1;
    if (line.size() > 2 && line.compare(0, 2, "  ") == 0 && line[2] != ' ')
      listed.push_back(line.substr(2, line.find(' ', 2) - 2));
  }
  const std::vector<std::string> want = {
      "open-app",     "portal",        "illegal",     "popup", "response",
      "open-sandbox", "close-sandbox", "heartbeat",   "raw",   "raw-header",
      "close",        "wait",          "wait-client", "help",  "quit"};
  EXPECT_EQ(listed, want);
  for (const auto& word : listed) {
    ParseResult r = ParseCommandLine(word);
    EXPECT_EQ(r.error.find("unknown command"), std::string::npos) << word << ": " << r.error;
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
  EXPECT_TRUE(r.options.commands.empty());
  EXPECT_TRUE(r.options.show_heartbeats);
  EXPECT_FALSE(r.options.help);

  r = Parse({"-s", "/a.sock", "-c", "wait-client", "--command", "portal http://x",
             "--no-heartbeats", "--command=open-app ls -l"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.options.socket_path, "/a.sock");
  EXPECT_FALSE(r.options.show_heartbeats);
  ASSERT_EQ(r.options.commands.size(), 3u);
  EXPECT_EQ(r.options.commands[0].kind, CommandKind::kWaitClient);
  EXPECT_EQ(r.options.commands[1].s_cmd, 0x306);
  EXPECT_EQ(r.options.commands[1].body, "http://x");
  EXPECT_EQ(r.options.commands[2].body, "ls -l");

  r = Parse({"--socket=/b.sock"});
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.options.socket_path, "/b.sock");

  EXPECT_TRUE(Parse({"--help"}).options.help);
  EXPECT_TRUE(Parse({"-h"}).options.help);
}

TEST(SimOptions, BadOptionsAreRefusedWithAReason) {
  struct Case {
    std::vector<const char*> args;
    const char* error_part;
  };
  const std::vector<Case> cases = {
      {{"--socket"}, "option --socket needs a path"},
      {{"-s"}, "option -s needs a path"},
      {{"--socket="}, "needs a non-empty path"},
      {{"-c"}, "option -c needs a command"},
      {{"-c", "wait-client", "-c", "portal"}, "command 2 (portal): portal needs an argument"},
      {{"-c", "bogus"}, "command 1 (bogus): unknown command"},
      {{"--frob"}, "unknown option '--frob'"},
      {{"-x"}, "unknown option '-x'"},
      {{"portal"}, "unexpected argument 'portal'"},
      {{"--no-heartbeats=1"}, "takes no value"},
      {{"--help=yes"}, "takes no value"},
  };
  for (const auto& c : cases) {
    OptionsResult r = Parse(c.args);
    EXPECT_FALSE(r.ok) << c.error_part;
    EXPECT_NE(r.error.find(c.error_part), std::string::npos) << "error was: " << r.error;
  }
}

}  // namespace
}  // namespace ventraldsim
