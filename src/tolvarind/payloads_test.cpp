#include "payloads.h"

#include <gtest/gtest.h>

namespace {
using namespace std::chrono_literals;

TEST(Payloads, RegistrationIsCutToItsBufferLineFeedFirst) {
  // 4 + 122 + line feed = 127 characters: the largest that keeps its line feed.
  EXPECT_EQ(payload::Registration(std::string(122, 'x').c_str()),
            "1005" + std::string(122, 'x') + std::string("\n\0", 2));
  EXPECT_EQ(payload::Registration(std::string(500, 'y').c_str()),
            "1005" + std::string(123, 'y') + std::string(1, '\0'));
}

TEST(LineBudget, LetsABurstThroughThenItsRateAndALongLineInItsTurn) {
  const LineBudget::Clock::time_point t0{};
  LineBudget budget(100, 300);
  const auto burst = [&budget](LineBudget::Clock::time_point at) {
    int taken = 0;
    for (int i = 0; i < 10; ++i) taken += budget.Take(100, at);
    return taken;
  };
  EXPECT_EQ(burst(t0), 3);
  EXPECT_TRUE(budget.Take(100, t0 + 500ms));  // 50 back: enough to start a line
  EXPECT_FALSE(budget.Take(100, t0 + 1s));    // owing 50, paid back: empty
  EXPECT_TRUE(budget.Take(1000, t0 + 2s));    // longer than the burst, in its turn
  EXPECT_FALSE(budget.Take(1, t0 + 10s));     // still owing 100
  EXPECT_TRUE(budget.Take(1, t0 + 11500ms));
  EXPECT_EQ(burst(t0 + 60s), 3);  // refilled up to the burst only
}

}  // namespace
