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
    int len, frame_len;
    bool cut;
  } cases[] = {{3, 11, false},
               {0, 8, false},
               {MAX_MSGLEN, MAX_MSGLEN + 8, false},
               {MAX_MSGLEN + 1, MAX_MSGLEN + 8, true},
               {-1, MAX_MSGLEN + 8, true}};  // negative: cut too, 64503 bytes still read
  auto frame = std::make_unique<sdpmsg_t>();
  const auto* raw = reinterpret_cast<const char*>(frame.get());
  for (const auto& c : cases) {
    SCOPED_TRACE("len " + std::to_string(c.len));
    memset(frame.get(), 0x5A, sizeof *frame);  // leftovers of an earlier frame
    bool cut = !c.cut;
    ASSERT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1111, src.data(), c.len, &cut), c.frame_len);
    EXPECT_EQ(cut, c.cut);
    const size_t body = static_cast<size_t>(c.frame_len - 8);
    EXPECT_EQ(std::string(raw, sizeof *frame),
              U16(0) + U16(1) + U16(0x1111) + U16(static_cast<unsigned short>(body)) +
                  src.substr(0, body) + std::string(sizeof *frame - c.frame_len, '\0'));
  }
}

TEST(FrameHeaderCodec, RoundTripsEveryFieldInWireOrder) {
  char raw[SDPMSG_HEAD_LEN];
  cscomm::EncodeFrameHeader({0xBEEF, 2, 0x1001, 64504}, raw);
  EXPECT_EQ(std::string(raw, 8), U16(0xBEEF) + U16(2) + U16(0x1001) + U16(64504));
  const cscomm::FrameHeader back = cscomm::DecodeFrameHeader(raw);
  EXPECT_EQ(U16(back.m_reserved) + U16(back.m_cmd) + U16(back.s_cmd) + U16(back.msglen),
            std::string(raw, 8));
}

}  // namespace
