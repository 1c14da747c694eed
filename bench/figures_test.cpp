#include "figures.h"

#include <gtest/gtest.h>

namespace {

// The parsers every printed figure goes through: a wrong parse would print a wrong figure.
TEST(Figures, LogLinesWrkReportsAndPercentiles) {
  figures::LogLine l;
  ASSERT_TRUE(figures::ParseLogLine("E20261122 23:59:59.999999 99 t.cpp:250] size:1000", l));
  EXPECT_EQ(l.text + " " + std::to_string(l.micros), "size:1000 86399999999");
  EXPECT_FALSE(figures::ParseLogLine("I20261122 03:54:45.12345x 1 f:1] a", l));

  const figures::WrkReport r = figures::ParseWrk(
      "  Latency Distribution\n     50%  375.00us\n     99%    1.20s\n"
      "  146872 requests in 10.00s, 45.11MB read\n"
      "  Socket errors: connect 0, read 2, write 0, timeout 0\nRequests/sec:  14600.12\n");
  EXPECT_EQ(std::vector<double>({r.rps, r.p50Ms, r.p99Ms, double(r.requests)}),
            std::vector<double>({14600.12, 0.375, 1200, 146872}));
  EXPECT_EQ(figures::ParseWrk("unable to connect to 127.0.0.1:7103\n").rps, -1);

  std::vector<double> v;
  for (int i = 200; i >= 1; --i) v.push_back(i);  // unsorted on purpose
  EXPECT_EQ(std::vector<double>({figures::Median(v), figures::Percentile(v, 0.99),
                                 figures::Percentile({7}, 0.99), figures::Median({})}),
            std::vector<double>({101, 198, 7, 0}));
}

}  // namespace
