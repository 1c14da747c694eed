// The pure parts of the benchmarks: reading glog-shaped log lines and wrk's
// report, and the order statistics every figure is taken with. Kept apart so
// that bench_figures_test can check them: a wrong parse here would print a
// wrong figure with no other sign.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace figures {

// One log line in glog's shape:
// "I20261122 03:54:45.123456  1234 file.cpp:12] text".
struct LogLine {
  int64_t micros = 0;  // time of day from the header, microseconds
  std::string text;    // the message after "] "
};
// False for anything that is not such a line (continuations, garbage).
bool ParseLogLine(const std::string& line, LogLine& out);

// What one wrk --latency run reported; -1 where a figure was missing.
struct WrkReport {
  double rps = -1;
  double p50Ms = -1;
  double p99Ms = -1;
  long requests = -1;
  std::string errors;  // wrk's "Socket errors" and "Non-2xx" lines, if any
};
WrkReport ParseWrk(const std::string& text);
// wrk's durations ("850.00us", "3.21ms", "1.02s", "2.00m") in milliseconds; -1
// for an unknown unit.
double WrkDurationMs(const std::string& v);

// The upper middle value; 0 for none.
double Median(std::vector<double> v);
// The nearest-rank percentile (p in (0, 1]); 0 for none.
double Percentile(std::vector<double> v, double p);

}  // namespace figures
