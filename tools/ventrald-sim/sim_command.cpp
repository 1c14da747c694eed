#include "sim_command.h"

#include <cstdlib>
#include <cstring>

#include "CSComm.h"

namespace ventraldsim {
namespace {

enum class Arg { kNone, kRequired, kOptional };

// The commands that send one frame with m_cmd 2, as the peer daemon does.
struct SendVerb {
  const char* name;
  uint16_t s_cmd;
  Arg arg;
  const char* arg_help;
  const char* what;
};

constexpr SendVerb kSendVerbs[] = {
    {"open-app", SANDBOX_S2B_OPENBSAPP, Arg::kRequired, "<shell command>",
     "the daemon runs it through /bin/sh -c"},
    {"portal", SANDBOX_S2B_OPEN_DRAVIN_PORTAL, Arg::kRequired, "<url>",
     "the daemon runs dravinSSO.sh <url>"},
    {"illegal", SANDBOX_A2F_ILLEGAL, Arg::kRequired, "<app>",
     "the daemon notifies: <app> not whitelisted"},
    {"popup", SANDBOX_TO_LOCAL, Arg::kRequired, "<args>", "the daemon runs sdpPopup.sh <args>"},
    {"response", SANDBOX_S2B_RESPONSE, Arg::kOptional, "[text]", "only logged"},
    {"open-sandbox", SDP_PROTO_OPEN_SANDBOX, Arg::kNone, "", "only logged"},
    {"close-sandbox", SDP_PROTO_CLOSE_SANDBOX, Arg::kNone, "", "only logged"},
    {"heartbeat", SDP_PROTO_HEARTBEAT, Arg::kNone, "", "logged for the 1st, 6th, 11th ..."},
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string TrimRight(std::string s) {
  while (!s.empty() && (IsBlank(s.back()) || s.back() == '\r' || s.back() == '\n')) s.pop_back();
  return s;
}

// Splits off the first blank-separated word; `rest` starts after the blanks.
void SplitWord(const std::string& text, std::string* word, std::string* rest) {
  size_t end = 0;
  while (end < text.size() && !IsBlank(text[end])) ++end;
  size_t next = end;
  while (next < text.size() && IsBlank(text[next])) ++next;
  *word = text.substr(0, end);
  *rest = text.substr(next);
}

ParseResult Fail(std::string error) {
  ParseResult r;
  r.error = std::move(error);
  return r;
}

ParseResult Ok(Command c) {
  ParseResult r;
  r.ok = true;
  r.command = std::move(c);
  return r;
}

// Non-negative decimal seconds: digits, optionally a point and more digits.
bool ParseSeconds(const std::string& text, double* out) {
  if (text.empty()) return false;
  bool digits = false, point = false;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      digits = true;
    } else if (c == '.' && !point) {
      point = true;
    } else {
      return false;
    }
  }
  if (!digits) return false;
  *out = std::strtod(text.c_str(), nullptr);
  return *out <= kMaxWaitSeconds;
}

std::string Quoted(const std::string& s) { return "'" + s + "'"; }

ParseResult ParseRaw(const std::string& name, const std::string& args) {
  std::string m_text, rest, s_text, body_text;
  SplitWord(args, &m_text, &rest);
  SplitWord(rest, &s_text, &body_text);
  const char* usage =
      name == "raw" ? "raw <m_cmd> <s_cmd> [body]" : "raw-header <m_cmd> <s_cmd> <msglen>";
  if (m_text.empty() || s_text.empty()) return Fail(name + " needs: " + usage);
  Command c;
  c.name = name;
  if (!ParseU16(m_text, &c.m_cmd))
    return Fail(name + ": m_cmd " + Quoted(m_text) + " is not a number from 0 to 65535");
  if (!ParseU16(s_text, &c.s_cmd))
    return Fail(name + ": s_cmd " + Quoted(s_text) + " is not a number from 0 to 65535");
  if (name == "raw-header") {
    std::string len_text = body_text, extra;
    SplitWord(body_text, &len_text, &extra);
    if (len_text.empty()) return Fail(name + " needs: " + usage);
    if (!extra.empty()) return Fail(name + ": unexpected text after msglen: " + Quoted(extra));
    if (!ParseU16(len_text, &c.msglen))
      return Fail(name + ": msglen " + Quoted(len_text) + " is not a number from 0 to 65535");
    c.kind = CommandKind::kSendHeader;
    return Ok(std::move(c));
  }
  std::string error;
  if (!Unescape(body_text, &c.body, &error)) return Fail(name + ": " + error);
  if (c.body.size() > 65535)
    return Fail(name + ": body of " + std::to_string(c.body.size()) +
                " bytes does not fit the 16-bit length field");
  c.kind = CommandKind::kSend;
  return Ok(std::move(c));
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ParseU16(const std::string& text, uint16_t* out) {
  if (text.empty()) return false;
  unsigned long value = 0;
  size_t i = 0;
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    i = 2;
  }
  for (; i < text.size(); ++i) {
    int d =
        base == 16 ? HexValue(text[i]) : (text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1);
    if (d < 0) return false;
    value = value * base + d;
    if (value > 65535) return false;
  }
  *out = static_cast<uint16_t>(value);
  return true;
}

bool Unescape(const std::string& in, std::string* out, std::string* error) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '\\') {
      out->push_back(in[i]);
      continue;
    }
    if (i + 1 == in.size()) {
      *error = "backslash at the end of the body (write \\\\ for one backslash)";
      return false;
    }
    char e = in[++i];
    switch (e) {
      case '\\':
        out->push_back('\\');
        break;
      case 'n':
        out->push_back('\n');
        break;
      case 'r':
        out->push_back('\r');
        break;
      case 't':
        out->push_back('\t');
        break;
      case '0':
        out->push_back('\0');
        break;
      case 'x': {
        int hi = i + 1 < in.size() ? HexValue(in[i + 1]) : -1;
        int lo = i + 2 < in.size() ? HexValue(in[i + 2]) : -1;
        if (hi < 0 || lo < 0) {
          *error = "\\x needs two hex digits at offset " + std::to_string(i - 1);
          return false;
        }
        out->push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        break;
      }
      default:
        *error = std::string("unknown escape \\") + e + " at offset " + std::to_string(i - 1) +
                 " (known: \\\\ \\n \\r \\t \\0 \\xHH)";
        return false;
    }
  }
  return true;
}

ParseResult ParseCommandLine(const std::string& raw_line) {
  std::string line = TrimRight(raw_line);
  size_t start = 0;
  while (start < line.size() && IsBlank(line[start])) ++start;
  line.erase(0, start);
  if (line.empty() || line[0] == '#') return Ok(Command{});

  std::string word, args;
  SplitWord(line, &word, &args);

  for (const SendVerb& verb : kSendVerbs) {
    if (word != verb.name) continue;
    if (verb.arg == Arg::kRequired && args.empty())
      return Fail(word + " needs an argument: " + word + " " + verb.arg_help);
    if (verb.arg == Arg::kNone && !args.empty())
      return Fail(word + " takes no argument (got " + Quoted(args) + ")");
    Command c;
    c.kind = CommandKind::kSend;
    c.name = word;
    c.m_cmd = MCMD_FROM_DAEMON;
    c.s_cmd = verb.s_cmd;
    c.body = args;
    return Ok(std::move(c));
  }

  if (word == "raw" || word == "raw-header") return ParseRaw(word, args);

  Command c;
  c.name = word;
  if (word == "wait" || word == "wait-client") {
    c.kind = word == "wait" ? CommandKind::kWait : CommandKind::kWaitClient;
    if (args.empty()) {
      if (word == "wait") return Fail("wait needs a number of seconds: wait <seconds>");
      c.seconds = kDefaultClientWaitSeconds;
      return Ok(std::move(c));
    }
    if (!ParseSeconds(args, &c.seconds))
      return Fail(word + ": " + Quoted(args) + " is not a number of seconds from 0 to " +
                  std::to_string(static_cast<int>(kMaxWaitSeconds)));
    return Ok(std::move(c));
  }
  if (word == "close" || word == "help" || word == "quit" || word == "exit") {
    if (!args.empty()) return Fail(word + " takes no argument (got " + Quoted(args) + ")");
    c.kind = word == "close"  ? CommandKind::kClose
             : word == "help" ? CommandKind::kHelp
                              : CommandKind::kQuit;
    return Ok(std::move(c));
  }
  return Fail("unknown command " + Quoted(word) + "; 'help' lists the commands");
}

std::string CommandHelp() {
  std::string out = "Commands (one per line; '#' starts a comment line):\n";
  char buf[256];
  for (const SendVerb& verb : kSendVerbs) {
    std::string head = std::string(verb.name) + (verb.arg_help[0] ? " " : "") + verb.arg_help;
    std::snprintf(buf, sizeof buf, "  %-28s 0x%-6x %s\n", head.c_str(), verb.s_cmd, verb.what);
    out += buf;
  }
  out +=
      "  raw <m_cmd> <s_cmd> [body]   send any frame; numbers decimal or 0x..., body with\n"
      "                               escapes \\\\ \\n \\r \\t \\0 \\xHH\n"
      "  raw-header <m_cmd> <s_cmd> <msglen>\n"
      "                               send only a header announcing msglen bytes (above\n"
      "                               64503 the daemon drops the connection)\n"
      "  close                        close the client's connection (it reconnects)\n"
      "  wait <seconds>               pause, e.g. wait 1.5\n"
      "  wait-client [seconds]        wait for a client to connect (default 30)\n"
      "  help                         this list\n"
      "  quit | exit                  stop (end of input does too)\n";
  return out;
}

OptionsResult ParseOptions(int argc, const char* const argv[], const std::string& default_socket) {
  OptionsResult r;
  r.options.socket_path = default_socket;
  auto fail = [&r](std::string error) {
    r.ok = false;
    r.error = std::move(error);
    return r;
  };
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool has_inline = false;
    if (arg.compare(0, 2, "--") == 0) {
      size_t eq = arg.find('=');
      if (eq != std::string::npos) {
        value = arg.substr(eq + 1);
        arg.erase(eq);
        has_inline = true;
      }
    }
    auto take_value = [&](std::string* out) {
      if (has_inline) {
        *out = value;
        return true;
      }
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    if (arg == "-h" || arg == "--help") {
      if (has_inline) return fail("option --help takes no value");
      r.options.help = true;
    } else if (arg == "-s" || arg == "--socket") {
      if (!take_value(&r.options.socket_path)) return fail("option " + arg + " needs a path");
      if (r.options.socket_path.empty()) return fail("option " + arg + " needs a non-empty path");
    } else if (arg == "-c" || arg == "--command") {
      std::string text;
      if (!take_value(&text)) return fail("option " + arg + " needs a command");
      ParseResult p = ParseCommandLine(text);
      if (!p.ok)
        return fail("command " + std::to_string(r.options.commands.size() + 1) + " (" + text +
                    "): " + p.error);
      r.options.commands.push_back(std::move(p.command));
    } else if (arg == "--no-heartbeats") {
      if (has_inline) return fail("option --no-heartbeats takes no value");
      r.options.show_heartbeats = false;
    } else if (!arg.empty() && arg[0] == '-') {
      return fail("unknown option " + Quoted(arg));
    } else {
      return fail("unexpected argument " + Quoted(arg) + " (commands go after -c, or on stdin)");
    }
  }
  r.ok = true;
  return r;
}

std::string Usage(const std::string& program, const std::string& default_socket) {
  return "Usage: " + program +
         " [options]\n"
         "Plays the peer daemon ventrald for a tolvarind client: listens on a Unix socket,\n"
         "prints every frame the client sends, decoded, and sends the commands given with\n"
         "-c (in order, then exits) or read line by line from standard input.\n"
         "\n"
         "Options:\n"
         "  -s, --socket PATH    listen here (default " +
         default_socket +
         ")\n"
         "  -c, --command LINE   a command to run; repeat for several\n"
         "      --no-heartbeats  do not print the client's heartbeats\n"
         "  -h, --help           this text\n"
         "\n" +
         CommandHelp() +
         "\n"
         "Example:\n"
         "  " +
         program +
         " -c 'wait-client' -c 'portal https://portal.example/' -c 'wait 2'\n"
         "\n"
         "Exit status: 0 when every command succeeded, 1 when one failed, 2 for bad options.\n";
}

}  // namespace ventraldsim
