#include "figures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "measure.h"

namespace {

TEST(ParseLogLine, TakesTimeOfDayAndTextOrRejectsTheLine) {
  const struct {
    const char* line;
    int64_t micros;  // -1: not a log line
    const char* text;
  } cases[] = {
      {"I20261122 03:54:45.123456  1234 tolvarind.cpp:188]  got SANDBOX_S2B_RESPONSE message",
       ((3 * 60 + 54) * 60 + 45) * 1000000LL + 123456, " got SANDBOX_S2B_RESPONSE message"},
      {"E20261122 23:59:59.999999 99999 tolvarind.cpp:250] deal user resource size:1000",
       86399999999LL, "deal user resource size:1000"},
      {"W20261122 10:00:00.000001  1 x.cc:1] ", 36000000001LL, ""},
      {"", -1, ""},
      {"X20261122 03:54:45.123456  1234 f.cpp:1] bad severity", -1, ""},
      {"I20261122 03:54:45.12345x  1234 f.cpp:1] bad micros", -1, ""},
      {"I2026112a 03:54:45.123456  1234 f.cpp:1] bad date", -1, ""},
      {"I20261122 03-54-45.123456  1234 f.cpp:1] bad separators", -1, ""},
      {"I20261122 03:54:45.123456  1234 no closing bracket", -1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    figures::LogLine l;
    ASSERT_EQ(figures::ParseLogLine(c.line, l), c.micros >= 0);
    if (c.micros < 0) continue;
    EXPECT_EQ(l.micros, c.micros);
    EXPECT_EQ(l.text, c.text);
  }
}

// The benchmarks read the daemon's log while the daemon writes it: a line
// is taken only once it is complete, and each exactly once.
TEST(LogTail, ReturnsEachCompleteLineOnceAsTheFileGrows) {
  char dir[] = "/tmp/figures-test-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/log";
  benchrun::LogTail tail(path);
  EXPECT_TRUE(tail.Poll().empty());  // no file yet
  std::ofstream out(path);
  out << "I20261122 00:00:01.000000 1 a.cc:1] first\nnot a log line\nI20261122 00:00:02.0000"
      << std::flush;
  auto lines = tail.Poll();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "first");
  out << "00 1 a.cc:2] second\nI20261122 00:00:03.000000 1 a.cc:3] third\n" << std::flush;
  lines = tail.Poll();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "second");
  EXPECT_EQ(lines[0].micros, 2000000);
  EXPECT_EQ(lines[1].text, "third");
  EXPECT_TRUE(tail.Poll().empty());
  out.close();
  std::remove(path.c_str());
  rmdir(dir);
}

TEST(ParseWrk, ReadsRateLatenciesRequestsAndErrors) {
  const figures::WrkReport r = figures::ParseWrk(
      "    Latency   850.12us    1.02ms  29.62ms   96.31%\n"
      "  Latency Distribution\n"
      "     50%  375.00us\n"
      "     99%    1.20s\n"
      "  146872 requests in 10.00s, 45.11MB read\n"
      "  Socket errors: connect 0, read 2, write 0, timeout 0\n"
      "Requests/sec:  14600.12\n");
  EXPECT_DOUBLE_EQ(r.rps, 14600.12);
  EXPECT_DOUBLE_EQ(r.p50Ms, 0.375);
  EXPECT_DOUBLE_EQ(r.p99Ms, 1200);
  EXPECT_EQ(r.requests, 146872);
  EXPECT_EQ(r.errors, "  Socket errors: connect 0, read 2, write 0, timeout 0\n");
  EXPECT_DOUBLE_EQ(figures::WrkDurationMs("2.00m"), 120000);
  EXPECT_EQ(figures::WrkDurationMs("3.5kg"), -1);

  // wrk that could not connect prints no distribution and no rate.
  const figures::WrkReport none = figures::ParseWrk("unable to connect to 127.0.0.1:7103\n");
  EXPECT_EQ(none.rps, -1);
  EXPECT_EQ(none.p99Ms, -1);
  EXPECT_EQ(none.requests, -1);
}

TEST(OrderStatistics, MedianAndNearestRankPercentile) {
  std::vector<double> v;
  for (int i = 200; i >= 1; --i) v.push_back(i);  // unsorted on purpose
  EXPECT_EQ(figures::Median(v), 101);
  EXPECT_EQ(figures::Percentile(v, 0.99), 198);
  EXPECT_EQ(figures::Percentile(v, 1.0), 200);
  EXPECT_EQ(figures::Percentile({7}, 0.99), 7);
  EXPECT_EQ(figures::Median({}), 0);
  EXPECT_EQ(figures::Percentile({}, 0.99), 0);
}

}  // namespace
