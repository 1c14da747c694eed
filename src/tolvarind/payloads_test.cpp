#include "payloads.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Registration, CarriesCodeIdLineFeedAndNul) {
  EXPECT_EQ(payload::Registration("abc"), std::string("1005abc\n\0", 9));
}

TEST(Registration, LongIdIsCutToTheBufferLineFeedFirst) {
  // 4 + 122 + line feed = 127 characters: the largest that keeps its line feed.
  const std::string fits(122, 'x');
  std::string reg = payload::Registration(fits.c_str());
  ASSERT_EQ(reg.size(), 128u);
  EXPECT_EQ(reg.substr(0, 4), "1005");
  EXPECT_EQ(reg[126], '\n');
  EXPECT_EQ(reg[127], '\0');

  const std::string cut(500, 'y');
  reg = payload::Registration(cut.c_str());
  ASSERT_EQ(reg.size(), 128u);
  EXPECT_EQ(reg.substr(4, 123), std::string(123, 'y'));
  EXPECT_EQ(reg[127], '\0');
  EXPECT_EQ(reg.find('\n'), std::string::npos);
}

TEST(Heartbeat, JoinsFieldsWithHashAndNoNul) {
  EXPECT_EQ(payload::Heartbeat("abc", "10.0.0.5", ""), "abc#10.0.0.5#");
  EXPECT_EQ(payload::Heartbeat("abc", "10.0.0.5", "").size(), 13u);
  EXPECT_EQ(payload::Heartbeat("abc", "", ""), "abc##");
  EXPECT_EQ(payload::Heartbeat("abc", "10.0.0.5", "2001:db8::5;fe80::1%eth0"),
            "abc#10.0.0.5#2001:db8::5;fe80::1%eth0");
}

TEST(EveryNSampler, FiveLetsThroughFirstSixthEleventh) {
  EveryNSampler sampler(5);
  std::vector<int> taken;
  for (int i = 1; i <= 16; ++i)
    if (sampler.Next()) taken.push_back(i);
  EXPECT_EQ(taken, (std::vector<int>{1, 6, 11, 16}));
  EXPECT_EQ(sampler.occurrences(), 16u);
}

TEST(EveryNSampler, OneLetsEverythingThrough) {
  EveryNSampler sampler(1);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(sampler.Next());
}

}  // namespace
