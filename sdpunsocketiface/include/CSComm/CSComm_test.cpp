#include "CSComm.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>

namespace {

// Host-order bytes of a u16, so the expectations hold on either byte order.
std::string U16(unsigned short v) { return std::string(reinterpret_cast<const char*>(&v), 2); }

TEST(FrameBuild, LaysOutHeaderAndBodyAndCutsAtTheLimit) {
  std::string src(70000, '\0');
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<char>('A' + i % 26);
  struct {
    int len;
    int frame_len;  // also 8 + msglen
    bool cut;
  } cases[] = {
      {3, 11, false},
      {0, 8, false},
      {MAX_MSGLEN, MAX_MSGLEN + 8, false},
      {MAX_MSGLEN + 1, MAX_MSGLEN + 8, true},  // last byte dropped
      {65535, MAX_MSGLEN + 8, true},
      {-1, MAX_MSGLEN + 8, true},  // negative: cut too, 64503 bytes still read
  };
  auto frame = std::make_unique<sdpmsg_t>();
  const auto* raw = reinterpret_cast<const char*>(frame.get());
  for (const auto& c : cases) {
    SCOPED_TRACE("len " + std::to_string(c.len));
    memset(frame.get(), 0x5A, sizeof *frame);  // leftovers of an earlier frame
    bool cut = !c.cut;
    EXPECT_EQ(cscomm::BuildFrame(frame.get(), MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, src.data(),
                                 c.len, &cut),
              c.frame_len);
    EXPECT_EQ(cut, c.cut);
    const size_t body = static_cast<size_t>(c.frame_len - 8);
    EXPECT_EQ(std::string(raw, static_cast<size_t>(c.frame_len)),
              U16(0) + U16(1) + U16(0x1111) + U16(static_cast<unsigned short>(body)) +
                  src.substr(0, body));
    EXPECT_EQ(std::string(raw + c.frame_len, sizeof *frame - c.frame_len),
              std::string(sizeof *frame - c.frame_len, '\0'));
  }
}

TEST(FrameBuild, HeartbeatAbcOnTheLittleEndianTarget) {
  const uint16_t probe = 1;
  if (*reinterpret_cast<const char*>(&probe) != 1) GTEST_SKIP() << "big-endian host";
  auto frame = std::make_unique<sdpmsg_t>();
  ASSERT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1111, "abc", 3, nullptr), 11);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame.get()), 11),
            std::string("\x00\x00\x01\x00\x11\x11\x03\x00"
                        "abc",
                        11));
}

TEST(FrameHeaderCodec, RoundTripsEveryFieldAndFlagsOversize) {
  const cscomm::FrameHeader h{0xBEEF, MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, MAX_MSGLEN + 1};
  char raw[SDPMSG_HEAD_LEN];
  cscomm::EncodeFrameHeader(h, raw);
  EXPECT_EQ(std::string(raw, 8), U16(0xBEEF) + U16(2) + U16(0x1001) + U16(64504));
  const cscomm::FrameHeader back = cscomm::DecodeFrameHeader(raw);
  EXPECT_EQ(back.m_reserved, 0xBEEF);
  EXPECT_EQ(back.m_cmd, 2);
  EXPECT_EQ(back.s_cmd, 0x1001);
  EXPECT_EQ(back.msglen, 64504);
  EXPECT_TRUE(cscomm::IsOversize(back));
  EXPECT_FALSE(cscomm::IsOversize(cscomm::FrameHeader{0, 2, 0x1001, MAX_MSGLEN}));
}

}  // namespace
