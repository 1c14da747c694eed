// The frame codec on bytes alone. The test peer frames with the same codec, so
// these literal byte images are what keeps both ends honest.
#include "CSComm.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

TEST(FrameCodec, BuildsTheWireImageCutsOutOfRangeBodiesAndDecodesHeaders) {
  ASSERT_EQ(htons(1), 256) << "the byte images below are little-endian";
  const std::string big(MAX_MSGLEN + 1, 'x'), longest("\0\0\x01\0\x11\x11\xf7\xfb", 8);
  const struct {
    const char* what;
    const char* data;
    int len;
    std::string header;  // on the wire, followed by `body` bytes of data and a NUL
    int body;
    bool cut;
  } cases[] = {
      {"round trip", "abc", 3, std::string("\0\0\x01\0\x11\x11\x03\0", 8), 3, false},
      {"empty body", "", 0, std::string("\0\0\x01\0\x11\x11\0\0", 8), 0, false},
      {"longest body", big.data(), MAX_MSGLEN, longest, MAX_MSGLEN, false},
      {"one byte over", big.data(), MAX_MSGLEN + 1, longest, MAX_MSGLEN, true},
      {"negative length", big.data(), -1, longest, MAX_MSGLEN, true},
  };
  auto frame = std::make_unique<sdpmsg_t>();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    bool cut = !c.cut;
    const int total =
        cscomm::BuildFrame(frame.get(), MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, c.data, c.len, &cut);
    EXPECT_EQ(cut, c.cut);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame.get()), size_t(total) + 1),
              c.header + std::string(c.data, size_t(c.body)) + '\0');

    const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(c.header.data());
    EXPECT_EQ((std::vector<int>{h.m_reserved, h.m_cmd, h.s_cmd, h.msglen}),
              (std::vector<int>{0, MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, c.body}));
    EXPECT_FALSE(cscomm::IsOversize(h));
    char again[SDPMSG_HEAD_LEN];
    cscomm::EncodeFrameHeader(h, again);
    EXPECT_EQ(std::string(again, sizeof again), c.header);
  }
  // A header off the wire that announces one byte more than a frame may hold.
  const cscomm::FrameHeader over = cscomm::DecodeFrameHeader("\x07\0\x02\0\x01\x03\xf8\xfb");
  EXPECT_TRUE(cscomm::IsOversize(over));
  EXPECT_EQ((std::vector<int>{over.m_reserved, over.m_cmd, over.s_cmd, over.msglen}),
            (std::vector<int>{7, MCMD_FROM_DAEMON, SANDBOX_S2B_OPENBSAPP, MAX_MSGLEN + 1}));
  // A null body leaves the body zero whatever the length says.
  EXPECT_EQ(cscomm::BuildFrame(frame.get(), 2, 3, nullptr, 4, nullptr), SDPMSG_HEAD_LEN + 4);
  EXPECT_EQ(std::string(frame->data, 4), std::string(4, '\0'));
}

}  // namespace
