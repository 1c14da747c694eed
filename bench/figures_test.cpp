#include "figures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "daemon_run.h"

namespace {

TEST(ParseLogLine, TakesTimeOfDayAndTextOfGlogAndReaderLines) {
  const struct {
    const char* line;
    int64_t micros;
    const char* text;
  } cases[] = {
      {"I20261122 03:54:45.123456  1234 tolvarind.cpp:188]  got SANDBOX_S2B_RESPONSE message from server",
       ((3 * 60 + 54) * 60 + 45) * 1000000LL + 123456, " got SANDBOX_S2B_RESPONSE message from server"},
      {"E20261122 23:59:59.999999 99999 tolvarind.cpp:250] deal user resource size:1000",
       86399999999LL, "deal user resource size:1000"},
      {"I20261122 00:00:00.000001   77 min_reader.cpp:70]  got message from server cmd 0x:303", 1,
       " got message from server cmd 0x:303"},
      {"W20261122 10:00:00.000000  1 x.cc:1] ", 36000000000LL, ""},
  };
  for (const auto& c : cases) {
    figures::LogLine l;
    ASSERT_TRUE(figures::ParseLogLine(c.line, l)) << c.line;
    EXPECT_EQ(l.micros, c.micros) << c.line;
    EXPECT_EQ(l.text, c.text) << c.line;
  }
}

TEST(ParseLogLine, RejectsWhatIsNotALogLine) {
  for (const char* line : {
           "",
           "continuation of a message with a line feed in it",
           "X20261122 03:54:45.123456  1234 f.cpp:1] bad severity",
           "I20261122 03:54:45.12345x  1234 f.cpp:1] bad micros",
           "I2026112a 03:54:45.123456  1234 f.cpp:1] bad date",
           "I20261122 03-54-45.123456  1234 f.cpp:1] bad separators",
           "I20261122 03:54:45.123456  1234 no closing bracket",
       }) {
    figures::LogLine l;
    EXPECT_FALSE(figures::ParseLogLine(line, l)) << line;
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
  out << "I20261122 00:00:01.000000 1 a.cc:1] first\nnot a log line\nI20261122 00:00:02.0000";
  out.flush();
  auto lines = tail.Poll();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "first");

  out << "00 1 a.cc:2] second\nI20261122 00:00:03.000000 1 a.cc:3] third\n";
  out.flush();
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
  const std::string report =
      "Running 10s test @ https://127.0.0.1:7103/open?id=42\n"
      "  1 threads and 8 connections\n"
      "  Thread Stats   Avg      Stdev     Max   +/- Stdev\n"
      "    Latency   850.12us    1.02ms  29.62ms   96.31%\n"
      "    Req/Sec    14.68k     1.20k   16.41k    80.00%\n"
      "  Latency Distribution\n"
      "     50%  375.00us\n"
      "     75%  512.00us\n"
      "     90%    1.01ms\n"
      "     99%    1.20s\n"
      "  146872 requests in 10.00s, 45.11MB read\n"
      "  Socket errors: connect 0, read 2, write 0, timeout 0\n"
      "Requests/sec:  14600.12\n"
      "Transfer/sec:      4.51MB\n";
  const figures::WrkReport r = figures::ParseWrk(report);
  EXPECT_DOUBLE_EQ(r.rps, 14600.12);
  EXPECT_DOUBLE_EQ(r.p50Ms, 0.375);
  EXPECT_DOUBLE_EQ(r.p99Ms, 1200);
  EXPECT_EQ(r.requests, 146872);
  EXPECT_EQ(r.errors, "  Socket errors: connect 0, read 2, write 0, timeout 0\n");
}

TEST(ParseWrk, LeavesMissingFiguresAtMinusOne) {
  // wrk that could not connect prints no distribution and no rate.
  const figures::WrkReport r = figures::ParseWrk("unable to connect to 127.0.0.1:7103 Connection refused\n");
  EXPECT_EQ(r.rps, -1);
  EXPECT_EQ(r.p99Ms, -1);
  EXPECT_EQ(r.requests, -1);
  EXPECT_EQ(figures::WrkDurationMs("3.5kg"), -1);
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
