#include "CSComm.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

namespace {

std::string Bytes(const sdpmsg_t& f, int n) {
  return std::string(reinterpret_cast<const char*>(&f), static_cast<size_t>(n));
}

bool AllZeroFrom(const sdpmsg_t& f, size_t from) {
  const auto* p = reinterpret_cast<const unsigned char*>(&f);
  for (size_t i = from; i < sizeof f; ++i)
    if (p[i] != 0) return false;
  return true;
}

// Host-order bytes of a u16, so the expectations hold on either byte order.
std::string U16(unsigned short v) { return std::string(reinterpret_cast<const char*>(&v), 2); }

TEST(FrameBuild, HeartbeatAbcIsElevenBytesInHostOrder) {
  auto frame = std::make_unique<sdpmsg_t>();
  memset(frame.get(), 0xAA, sizeof *frame);  // leftovers of an earlier frame
  bool cut = true;
  ASSERT_EQ(cscomm::BuildFrame(frame.get(), MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, "abc", 3, &cut), 11);
  EXPECT_FALSE(cut);
  EXPECT_EQ(Bytes(*frame, 11), U16(0) + U16(1) + U16(0x1111) + U16(3) + "abc");
  const uint16_t probe = 1;
  if (*reinterpret_cast<const unsigned char*>(&probe) == 1) {  // little-endian, as on the target
    EXPECT_EQ(Bytes(*frame, 11), std::string("\x00\x00\x01\x00\x11\x11\x03\x00" "abc", 11));
  }
  EXPECT_TRUE(AllZeroFrom(*frame, 11)) << "the rest of the buffer must be zeroed";
}

TEST(FrameBuild, BodyLengthsAroundTheLimit) {
  std::vector<char> src(70000);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<char>('A' + i % 26);

  struct Case {
    int len;
    int frame_len;
    unsigned short msglen;
    bool cut;
  } cases[] = {
      {0, 8, 0, false},
      {1, 9, 1, false},
      {MAX_MSGLEN, MAX_MSGLEN + 8, MAX_MSGLEN, false},
      {MAX_MSGLEN + 1, MAX_MSGLEN + 8, MAX_MSGLEN, true},  // last byte dropped
      {65535, MAX_MSGLEN + 8, MAX_MSGLEN, true},
      {-1, MAX_MSGLEN + 8, MAX_MSGLEN, true},  // negative: cut, 64503 bytes still read
  };
  auto frame = std::make_unique<sdpmsg_t>();
  for (const Case& c : cases) {
    SCOPED_TRACE("len " + std::to_string(c.len));
    bool cut = !c.cut;
    EXPECT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1005, src.data(), c.len, &cut), c.frame_len);
    EXPECT_EQ(cut, c.cut);
    EXPECT_EQ(frame->m_reserved, 0);
    EXPECT_EQ(frame->msglen, c.msglen);
    EXPECT_EQ(memcmp(frame->data, src.data(), c.msglen), 0);
    EXPECT_TRUE(AllZeroFrom(*frame, SDPMSG_HEAD_LEN + c.msglen));
  }
}

TEST(FrameBuild, NullDataLeavesTheBodyZero) {
  auto frame = std::make_unique<sdpmsg_t>();
  EXPECT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1111, nullptr, 5, nullptr), 13);
  EXPECT_EQ(frame->msglen, 5);
  EXPECT_TRUE(AllZeroFrom(*frame, SDPMSG_HEAD_LEN));
}

TEST(FrameHeaderCodec, RoundTripsEveryFieldAtItsOffset) {
  const cscomm::FrameHeader h{0xBEEF, MCMD_FROM_DAEMON, SANDBOX_TO_LOCAL, 0xFBF8};
  char raw[SDPMSG_HEAD_LEN];
  cscomm::EncodeFrameHeader(h, raw);
  EXPECT_EQ(std::string(raw, 8), U16(0xBEEF) + U16(2) + U16(0x1001) + U16(0xFBF8));
  const cscomm::FrameHeader back = cscomm::DecodeFrameHeader(raw);
  EXPECT_EQ(back.m_reserved, 0xBEEF);
  EXPECT_EQ(back.m_cmd, 2);
  EXPECT_EQ(back.s_cmd, 0x1001);
  EXPECT_EQ(back.msglen, 0xFBF8);
}

TEST(FrameHeaderCodec, OversizeStartsJustPastTheLargestBody) {
  struct {
    unsigned short msglen;
    bool oversize;
  } cases[] = {{0, false}, {MAX_MSGLEN, false}, {MAX_MSGLEN + 1, true}, {0xFFFF, true}};
  for (const auto& c : cases) {
    cscomm::FrameHeader h;
    h.msglen = c.msglen;
    EXPECT_EQ(cscomm::IsOversize(h), c.oversize) << c.msglen;
  }
}

}  // namespace
