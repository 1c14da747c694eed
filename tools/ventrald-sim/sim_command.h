// The command language and the command line of ventrald-sim, the stand-in for
// the peer daemon that people drive by hand or from a script (tools/demo).
// Parsing is pure (no socket, no I/O), so every error path is unit-tested.
//
// One command per line: a word, then its argument text. Blank lines and lines
// whose first non-blank character is '#' are no-ops. Arguments of the send
// commands are taken verbatim after the blanks that follow the word, except
// that trailing blanks (and a carriage return) are dropped; `raw` bodies
// understand C escapes so that any byte can be sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ventraldsim {

enum class CommandKind {
  kNothing,     // blank line or comment
  kSend,        // send one frame: m_cmd, s_cmd, body
  kSendHeader,  // send only a header announcing `msglen` bytes (raw-header)
  kClose,       // close the client's connection
  kWait,        // sleep `seconds`
  kWaitClient,  // wait up to `seconds` for a client to be connected
  kHelp,
  kQuit,
};

struct Command {
  CommandKind kind = CommandKind::kNothing;
  std::string name;     // the command word as typed ("portal"), empty for kNothing
  uint16_t m_cmd = 0;   // kSend, kSendHeader
  uint16_t s_cmd = 0;   // kSend, kSendHeader
  uint16_t msglen = 0;  // kSendHeader
  std::string body;     // kSend: the exact body bytes
  double seconds = 0;   // kWait, kWaitClient
};

struct ParseResult {
  bool ok = false;
  Command command;
  std::string error;  // when !ok: one line saying what is wrong with the input
};

ParseResult ParseCommandLine(const std::string& line);

// The list of commands, one per line, for `help` and --help.
std::string CommandHelp();

// C escapes of `raw` bodies: \\ \n \r \t \0 and \xHH (exactly two hex digits).
// Any other backslash sequence, or a backslash at the end, is an error.
bool Unescape(const std::string& in, std::string* out, std::string* error);

// A number from 0 to 65535, decimal or 0x-prefixed hexadecimal.
bool ParseU16(const std::string& text, uint16_t* out);

inline constexpr double kDefaultClientWaitSeconds = 30;
inline constexpr double kMaxWaitSeconds = 3600;

struct Options {
  std::string socket_path;
  std::vector<Command> commands;  // from -c, in order; when empty, stdin is read
  bool show_heartbeats = true;
  bool help = false;
};

struct OptionsResult {
  bool ok = false;
  Options options;
  std::string error;
};

// argv[0] is the program name. `default_socket` is used without --socket.
OptionsResult ParseOptions(int argc, const char* const argv[], const std::string& default_socket);

std::string Usage(const std::string& program, const std::string& default_socket);

}  // namespace ventraldsim
