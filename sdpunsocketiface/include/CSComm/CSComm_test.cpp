// The frame codec on bytes alone. The test peer frames with the same codec, so
// these literal byte images are what keeps both ends honest.
#include "CSComm.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace {

TEST(FrameCodec, BuildsTheWireImageCutsOutOfRangeBodiesAndDecodesHeaders) {
  const std::string data(MAX_MSGLEN + 1, 'x'), longest("\0\0\x01\0\x11\x11\xf7\xfb", 8);
  // Length given, and the header on the wire, followed by the body it announces and a NUL.
  const std::pair<int, std::string> cases[] = {
      {MAX_MSGLEN, longest},                            // the longest body
      {MAX_MSGLEN + 1, longest},                        // one byte over: cut
      {-1, longest},                                    // a negative length: cut
      {3, std::string("\0\0\x01\0\x11\x11\x03\0", 8)},  // round trip, after longer bodies
  };
  auto frame = std::make_unique<sdpmsg_t>();
  for (const auto& [len, header] : cases) {
    SCOPED_TRACE(len);
    const cscomm::FrameHeader h = cscomm::DecodeFrameHeader(header.data());
    bool cut = len == h.msglen;
    EXPECT_EQ(cscomm::BuildFrame(frame.get(), 1, 0x1111, data.data(), len, &cut), 8 + h.msglen);
    EXPECT_EQ(cut, len != h.msglen);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame.get()), 8 + h.msglen + 1),
              header + data.substr(0, h.msglen) + '\0');
    char again[SDPMSG_HEAD_LEN];
    cscomm::EncodeFrameHeader(h, again);
    EXPECT_EQ(std::string(again, sizeof again), header);
  }
  // A null body leaves the body zero whatever the length says.
  EXPECT_EQ(cscomm::BuildFrame(frame.get(), 2, 3, nullptr, 4, nullptr), SDPMSG_HEAD_LEN + 4);
  EXPECT_EQ(std::string(frame->data, 4), std::string(4, '\0'));
}

}  // namespace
