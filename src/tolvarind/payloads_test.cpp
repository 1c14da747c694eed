#include "payloads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

TEST(Registration, CarriesCodeIdLineFeedAndNulCutToTheBufferLineFeedFirst) {
  EXPECT_EQ(payload::Registration("abc"), std::string("1005abc\n\0", 9));
  // 4 + 122 + line feed = 127 characters: the largest that keeps its line feed.
  EXPECT_EQ(payload::Registration(std::string(122, 'x').c_str()),
            "1005" + std::string(122, 'x') + std::string("\n\0", 2));
  EXPECT_EQ(payload::Registration(std::string(500, 'y').c_str()),
            "1005" + std::string(123, 'y') + std::string(1, '\0'));
}

TEST(Heartbeat, JoinsFieldsWithHashAndNoNul) {
  EXPECT_EQ(payload::Heartbeat("abc", "10.0.0.5", ""), std::string("abc#10.0.0.5#"));
  EXPECT_EQ(payload::Heartbeat("abc", "", ""), "abc##");
  EXPECT_EQ(payload::Heartbeat("abc", "10.0.0.5", "2001:db8::5;fe80::1%eth0"),
            "abc#10.0.0.5#2001:db8::5;fe80::1%eth0");
}

TEST(EveryNSampler, LetsThroughTheFirstOfEveryN) {
  for (int n : {5, 1}) {
    EveryNSampler sampler(n);
    std::vector<int> taken;
    for (int i = 1; i <= 16; ++i)
      if (sampler.Next()) taken.push_back(i);
    EXPECT_EQ(taken,
              (n == 5 ? std::vector<int>{1, 6, 11, 16}
                      : std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(sampler.occurrences(), 16u);
  }
}

TEST(LineBudget, LetsABurstThroughThenItsRateAndALongLineInItsTurn) {
  const LineBudget::Clock::time_point t0{};
  LineBudget budget(100, 300);
  int taken = 0;
  for (int i = 0; i < 10; ++i) taken += budget.Take(100, t0);
  EXPECT_EQ(taken, 3);
  EXPECT_TRUE(budget.Take(100, t0 + 500ms));  // 50 back: enough to start a line
  EXPECT_FALSE(budget.Take(100, t0 + 1s));    // owing 50, paid back: empty
  EXPECT_TRUE(budget.Take(1000, t0 + 2s));    // longer than the burst, in its turn
  EXPECT_FALSE(budget.Take(1, t0 + 10s));     // still owing 100
  EXPECT_TRUE(budget.Take(1, t0 + 11500ms));

  // A flood: what goes through stays within burst + rate x time + one line.
  LineBudget flood(1024, 8192);
  double written = 0;
  for (int ms = 0; ms < 60000; ms += 2)
    if (flood.Take(300, t0 + std::chrono::milliseconds(ms))) written += 300;
  EXPECT_LE(written, 8192 + 1024 * 60 + 300);
  EXPECT_GE(written, 1024 * 60);
}

}  // namespace
