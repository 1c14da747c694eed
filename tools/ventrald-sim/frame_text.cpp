#include "frame_text.h"

#include <cstdio>

#include "CSComm.h"

namespace ventraldsim {
namespace {

constexpr size_t kHexShown = 32;

std::string Hex(unsigned value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", value);
  return buf;
}

std::string Quote(const std::string& bytes) { return "\"" + EscapeText(bytes) + "\""; }

std::string CountBytes(size_t n) { return std::to_string(n) + (n == 1 ? " byte" : " bytes"); }

std::string OrNone(const std::string& s) { return s.empty() ? "(none)" : s; }

// " [m_cmd 2]" when a client frame does not carry the client's main command.
std::string MainCommandNote(uint16_t m_cmd) {
  return m_cmd == MCMD_TO_DAEMON ? "" : " [m_cmd " + std::to_string(m_cmd) + ", expected 1]";
}

std::string Generic(uint16_t m_cmd, uint16_t s_cmd, const std::string& body, const char* why) {
  std::string name = CodeName(s_cmd);
  std::string out = "frame m_cmd " + std::to_string(m_cmd) + " s_cmd " + Hex(s_cmd);
  if (!name.empty()) out += " " + name;
  if (why) out += std::string(" (") + why + ")";
  out += ", " + CountBytes(body.size());
  if (!body.empty()) out += ": " + HexBytes(body, kHexShown) + "  " + Quote(body);
  return out;
}

// "1005" + id + "\n" + NUL, as the client formats it.
bool DecodeRegistration(const std::string& body, std::string* id) {
  static const std::string kPrefix = "1005";
  static const std::string kEnd("\n\0", 2);
  if (body.size() < kPrefix.size() + kEnd.size()) return false;
  if (body.compare(0, kPrefix.size(), kPrefix) != 0) return false;
  if (body.compare(body.size() - kEnd.size(), kEnd.size(), kEnd) != 0) return false;
  *id = body.substr(kPrefix.size(), body.size() - kPrefix.size() - kEnd.size());
  return id->find('\0') == std::string::npos;
}

}  // namespace

std::string CodeName(uint16_t s_cmd) {
  switch (s_cmd) {
    case SANDBOX_S2B_OPENBSAPP:
      return "SANDBOX_S2B_OPENBSAPP";
    case SANDBOX_S2B_RESPONSE:
      return "SANDBOX_S2B_RESPONSE";
    case SANDBOX_S2B_OPEN_DRAVIN_PORTAL:
      return "SANDBOX_S2B_OPEN_DRAVIN_PORTAL";
    case SANDBOX_A2F_ILLEGAL:
      return "SANDBOX_A2F_ILLEGAL";
    case SANDBOX_TO_LOCAL:
      return "SANDBOX_TO_LOCAL";
    case SDP_PROTO_REGISTER:
      return "SDP_PROTO_REGISTER";
    case SDP_PROTO_OPEN_SANDBOX:
      return "SDP_PROTO_OPEN_SANDBOX";
    case SDP_PROTO_CLOSE_SANDBOX:
      return "SDP_PROTO_CLOSE_SANDBOX";
    case SDP_PROTO_HEARTBEAT:
      return "SDP_PROTO_HEARTBEAT";
    case SDP_PROTO_HTTPS_QUERY:
      return "SDP_PROTO_HTTPS_QUERY";
    default:
      return "";
  }
}

std::string EscapeText(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out;
}

std::string HexBytes(const std::string& bytes, size_t max) {
  std::string out;
  char buf[4];
  for (size_t i = 0; i < bytes.size() && i < max; ++i) {
    std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned char>(bytes[i]));
    if (!out.empty()) out += ' ';
    out += buf;
  }
  if (bytes.size() > max) out += " ...";
  return out;
}

std::string DescribeReceived(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  const std::string note = MainCommandNote(m_cmd);
  switch (s_cmd) {
    case SDP_PROTO_REGISTER: {
      std::string id;
      if (!DecodeRegistration(body, &id))
        return Generic(m_cmd, s_cmd, body, "registration not in the form 1005<id>\\n\\0");
      return "register (0x1005): sandbox id " + Quote(id) + note;
    }
    case SDP_PROTO_HEARTBEAT: {
      size_t a = body.find('#');
      size_t b = a == std::string::npos ? a : body.find('#', a + 1);
      if (b == std::string::npos || body.find('#', b + 1) != std::string::npos ||
          body.find('\0') != std::string::npos)
        return Generic(m_cmd, s_cmd, body, "heartbeat not in the form id#ipv4#ipv6");
      return "heartbeat (0x1111): sandbox id " + Quote(body.substr(0, a)) + ", ipv4 " +
             OrNone(EscapeText(body.substr(a + 1, b - a - 1))) + ", ipv6 " +
             OrNone(EscapeText(body.substr(b + 1))) + note;
    }
    case SDP_PROTO_HTTPS_QUERY: {
      if (body.empty() || body.back() != '\0' || body.find('\0') != body.size() - 1)
        return Generic(m_cmd, s_cmd, body, "query not ended by one NUL");
      return "https query (0x1113): " + Quote(body.substr(0, body.size() - 1)) + note;
    }
    default:
      return Generic(m_cmd, s_cmd, body, nullptr);
  }
}

std::string DescribeSent(uint16_t m_cmd, uint16_t s_cmd, const std::string& body) {
  std::string name = CodeName(s_cmd);
  std::string out = Hex(s_cmd) + (name.empty() ? "" : " " + name);
  if (m_cmd != MCMD_FROM_DAEMON) out += " m_cmd " + std::to_string(m_cmd);
  out += ", " + CountBytes(body.size());
  if (!body.empty()) out += ": " + Quote(body);
  return out;
}

}  // namespace ventraldsim
