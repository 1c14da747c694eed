// Human-readable text for frames, used by ventrald-sim to print what the client
// sends and what it sends back. Pure functions of the frame's fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ventraldsim {

// The code's name ("SDP_PROTO_HEARTBEAT"), or "" for a code the protocol lacks.
std::string CodeName(uint16_t s_cmd);

// Bytes as readable text: printable ASCII and UTF-8 as they are, a double
// quote and a backslash escaped, other bytes as \n \r \t \0 or \xHH.
std::string EscapeText(const std::string& bytes);

// Space-separated lower-case hex of the first `max` bytes, "..." when cut.
std::string HexBytes(const std::string& bytes, size_t max);

// One line for a frame received from the client, decoded by its code:
//   register (0x1005): sandbox id "abc"
//   heartbeat (0x1111): sandbox id "abc", ipv4 10.0.0.5, ipv6 (none)
//   https query (0x1113): "a=1&b=2"
// Anything else, or a body not in its code's form, as code, name, hex and text.
std::string DescribeReceived(uint16_t m_cmd, uint16_t s_cmd, const std::string& body);

// One line for a frame this tool sends: the code, its name and the body.
std::string DescribeSent(uint16_t m_cmd, uint16_t s_cmd, const std::string& body);

}  // namespace ventraldsim
