// The frame codec on bytes alone: what goes on the wire for a given frame, and
// what a received header says. The test peer uses the same codec, so these
// literal byte images are what keeps both ends honest.
#include "CSComm.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

std::string Wire(const sdpmsg_t& frame, int total) {
  return std::string(reinterpret_cast<const char*>(&frame), static_cast<size_t>(total));
}

TEST(FrameCodec, BuildsTheWireImageCutsOutOfRangeBodiesAndDecodesHeaders) {
  ASSERT_EQ(htons(1), 256) << "the byte images below are little-endian";
  const std::string big(MAX_MSGLEN + 1, 'x');
  const struct {
    const char* what;
    const char* data;
    int len;
    std::string header;  // the 8 bytes expected on the wire
    int body;            // body bytes that follow
    bool cut;
  } cases[] = {
      {"round trip", "abc", 3, std::string("\0\0\x01\0\x11\x11\x03\0", 8), 3, false},
      {"empty body", "", 0, std::string("\0\0\x01\0\x11\x11\0\0", 8), 0, false},
      {"longest body", big.data(), MAX_MSGLEN, std::string("\0\0\x01\0\x11\x11\xf7\xfb", 8),
       MAX_MSGLEN, false},
      {"one byte over", big.data(), MAX_MSGLEN + 1, std::string("\0\0\x01\0\x11\x11\xf7\xfb", 8),
       MAX_MSGLEN, true},
      {"negative length", big.data(), -1, std::string("\0\0\x01\0\x11\x11\xf7\xfb", 8), MAX_MSGLEN,
       true},
  };
  auto frame = std::make_unique<sdpmsg_t>();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    bool cut = !c.cut;
    const int total =
        cscomm::BuildFrame(frame.get(), MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, c.data, c.len, &cut);
    EXPECT_EQ(total, SDPMSG_HEAD_LEN + c.body);
    EXPECT_EQ(cut, c.cut);
    EXPECT_EQ(Wire(*frame, total), c.header + std::string(c.data, static_cast<size_t>(c.body)));
    EXPECT_EQ(frame->data[c.body], '\0') << "the byte after the body";

    const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(c.header.data());
    EXPECT_EQ(h.m_cmd, MCMD_TO_DAEMON);
    EXPECT_EQ(h.s_cmd, SDP_PROTO_HEARTBEAT);
    EXPECT_EQ(h.msglen, c.body);
    char again[SDPMSG_HEAD_LEN];
    cscomm::EncodeFrameHeader(h, again);
    EXPECT_EQ(std::string(again, sizeof again), c.header);
  }
  // A header read off the wire that announces more than a frame may hold.
  EXPECT_FALSE(cscomm::IsOversize(cscomm::DecodeFrameHeader("\0\0\x02\0\x01\x03\xf7\xfb")));
  const cscomm::FrameHeader over = cscomm::DecodeFrameHeader("\x07\0\x02\0\x01\x03\xf8\xfb");
  EXPECT_TRUE(cscomm::IsOversize(over));
  EXPECT_EQ(over.m_reserved, 7);
  EXPECT_EQ(over.s_cmd, SANDBOX_S2B_OPENBSAPP);
  // A null body leaves the body zero whatever the length says.
  EXPECT_EQ(cscomm::BuildFrame(frame.get(), 2, 3, nullptr, 4, nullptr), SDPMSG_HEAD_LEN + 4);
  EXPECT_EQ(std::string(frame->data, 4), std::string(4, '\0'));
}

}  // namespace
