#include "frame_text.h"

#include <gtest/gtest.h>

#include <string>

namespace ventraldsim {
namespace {

std::string S(const char* bytes, size_t n) { return std::string(bytes, n); }

// Decoded client frames are printed whole; a body not in its code's form falls
// back to hex and text, with the reason and the byte count (`want` is then a
// part of the line).
TEST(FrameText, ClientFramesAreDecodedOrShownRawWithTheReason) {
  const struct {
    uint16_t m_cmd, s_cmd;
    std::string body, want;
  } cases[] = {
      {1, 0x1005, S("1005abc\n\0", 9), "register (0x1005): sandbox id \"abc\""},
      {1, 0x1005, S("1005\n\0", 6), "register (0x1005): sandbox id \"\""},
      {1, 0x1111, "abc#10.0.0.5#fe80::1;fe80::2",
       "heartbeat (0x1111): sandbox id \"abc\", ipv4 10.0.0.5, ipv6 fe80::1;fe80::2"},
      {1, 0x1111, "abc##", "heartbeat (0x1111): sandbox id \"abc\", ipv4 (none), ipv6 (none)"},
      {1, 0x1113, S("a=1&b=2\0", 8), "https query (0x1113): \"a=1&b=2\""},
      {2, 0x1111, "abc#1.2.3.4#",
       "heartbeat (0x1111): sandbox id \"abc\", ipv4 1.2.3.4, ipv6 (none) [m_cmd 2, expected 1]"},
      {1, 0x1005, "1005abc\n",
       "frame m_cmd 1 s_cmd 0x1005 SDP_PROTO_REGISTER (registration not in the form "
       "1005<id>\\n\\0), 8 bytes: 31 30 30 35 61 62 63 0a  \"1005abc\\n\""},
      {1, 0x1234, S("a\0\x01\"\\\xe6\xa1\x8c\x7f", 9),
       "frame m_cmd 1 s_cmd 0x1234, 9 bytes: 61 00 01 22 5c e6 a1 8c 7f  "
       "\"a\\0\\x01\\\"\\\\\xe6\xa1\x8c\\x7f\""},
      {1, 0x301, "", "frame m_cmd 1 s_cmd 0x301 SANDBOX_S2B_OPENBSAPP, 0 bytes"},
      {1, 0x1005, S("1006abc\n\0", 9), "(registration not in the form 1005<id>\\n\\0), 9 bytes"},
      {1, 0x1005, S("1005a\0b\n\0", 9), "(registration not in the form 1005<id>\\n\\0), 9 bytes"},
      {1, 0x1005, "", "(registration not in the form 1005<id>\\n\\0), 0 bytes"},
      {1, 0x1111, "abc#10.0.0.5", "(heartbeat not in the form id#ipv4#ipv6), 12 bytes"},
      {1, 0x1111, "a#b#c#d", "(heartbeat not in the form id#ipv4#ipv6), 7 bytes"},
      {1, 0x1111, S("abc#1.2.3.4#\0", 13), "(heartbeat not in the form id#ipv4#ipv6), 13 bytes"},
      {1, 0x1113, "a=1", "(query not ended by one NUL), 3 bytes"},
      {1, 0x1113, S("a\0b\0", 4), "(query not ended by one NUL), 4 bytes"},
      {1, 0x1113, "", "(query not ended by one NUL), 0 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    const std::string got = DescribeReceived(c.m_cmd, c.s_cmd, c.body);
    if (c.want[0] == '(')
      EXPECT_NE(got.find(c.want), std::string::npos) << got;
    else
      EXPECT_EQ(got, c.want);
  }
}

TEST(FrameText, SentFramesAndHexDumps) {
  EXPECT_EQ(DescribeSent(2, 0x306, "https://x"),
            "0x306 SANDBOX_S2B_OPEN_DRAVIN_PORTAL, 9 bytes: \"https://x\"");
  EXPECT_EQ(DescribeSent(2, 0x1111, ""), "0x1111 SDP_PROTO_HEARTBEAT, 0 bytes");
  EXPECT_EQ(DescribeSent(1, 0x4242, S("a\nb", 3)), "0x4242 m_cmd 1, 3 bytes: \"a\\nb\"");
  EXPECT_EQ(DescribeSent(2, 0x501, "a"), "0x501 SANDBOX_A2F_ILLEGAL, 1 byte: \"a\"");
  EXPECT_EQ(HexBytes("ab", 2), "61 62");
  EXPECT_EQ(HexBytes("abc", 2), "61 62 ...");
  EXPECT_EQ(HexBytes("", 2), "");
}

TEST(FrameText, EveryProtocolCodeHasAName) {
  for (uint16_t code : {0x301, 0x303, 0x306, 0x501, 0x1001, 0x1005, 0x1012, 0x1013, 0x1111, 0x1113})
    EXPECT_FALSE(CodeName(code).empty()) << std::hex << code;
  EXPECT_EQ(CodeName(0x302), "");
}

}  // namespace
}  // namespace ventraldsim
