// The frame codec on bytes alone. The test peer frames with the same codec, so
// these literal byte images are what keeps both ends honest.
#include "CSComm.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

TEST(FrameCodec, BuildsTheWireImageCutsOutOfRangeBodiesAndDecodesHeaders) {
  const std::string data(MAX_MSGLEN + 1, 'x'), longest("\0\0\x01\0\x11\x11\xf7\xfb", 8);
  const struct {
    const char* what;
    int len;
    std::string header;  // on the wire, followed by `body` bytes of data and a NUL
    int body;
  } cases[] = {
      {"longest body", MAX_MSGLEN, longest, MAX_MSGLEN},
      {"one byte over is cut", MAX_MSGLEN + 1, longest, MAX_MSGLEN},
      {"negative length is cut", -1, longest, MAX_MSGLEN},
      {"round trip", 3, std::string("\0\0\x01\0\x11\x11\x03\0", 8), 3},  // after longer ones
  };
  auto frame = std::make_unique<sdpmsg_t>();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    bool cut = c.len == c.body;
    EXPECT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1111, data.data(), c.len, &cut), 8 + c.body);
    EXPECT_EQ(cut, c.len != c.body);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame.get()), 8 + c.body + 1),
              c.header + data.substr(0, c.body) + '\0');
    const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(c.header.data());
    EXPECT_EQ((std::vector<int>{h.m_reserved, h.m_cmd, h.s_cmd, h.msglen}),
              (std::vector<int>{0, 1, 0x1111, c.body}));
    char again[SDPMSG_HEAD_LEN];
    cscomm::EncodeFrameHeader(h, again);
    EXPECT_EQ(std::string(again, sizeof again), c.header);
  }
  // A null body leaves the body zero whatever the length says.
  EXPECT_EQ(cscomm::BuildFrame(frame.get(), 2, 3, nullptr, 4, nullptr), SDPMSG_HEAD_LEN + 4);
  EXPECT_EQ(std::string(frame->data, 4), std::string(4, '\0'));
}

}  // namespace
