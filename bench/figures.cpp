#include "figures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace figures {

bool ParseLogLine(const std::string& line, LogLine& out) {
  if (line.size() < 26 || std::strchr("IWEF", line[0]) == nullptr || line[9] != ' ' ||
      line[12] != ':' || line[15] != ':' || line[18] != '.')
    return false;
  auto num = [&](size_t at, size_t n) {
    int64_t v = 0;
    for (size_t i = at; i < at + n; ++i) {
      if (line[i] < '0' || line[i] > '9') return int64_t{-1};
      v = v * 10 + (line[i] - '0');
    }
    return v;
  };
  const int64_t date = num(1, 8), h = num(10, 2), m = num(13, 2), s = num(16, 2), us = num(19, 6);
  if (date < 0 || h < 0 || m < 0 || s < 0 || us < 0) return false;
  const size_t close = line.find("] ", 26);
  if (close == std::string::npos) return false;
  out.micros = ((h * 60 + m) * 60 + s) * 1000000 + us;
  out.text = line.substr(close + 2);
  return true;
}

double WrkDurationMs(const std::string& v) {
  char* end = nullptr;
  const double x = std::strtod(v.c_str(), &end);
  const std::string unit = end ? end : "";
  if (unit == "us") return x / 1000;
  if (unit == "ms") return x;
  if (unit == "s") return x * 1000;
  if (unit == "m") return x * 60000;
  return -1;
}

WrkReport ParseWrk(const std::string& text) {
  WrkReport r;
  std::istringstream lines(text);
  std::string line;
  bool inDistribution = false;
  while (std::getline(lines, line)) {
    std::istringstream f(line);
    std::string a, b;
    f >> a >> b;
    if (a == "Requests/sec:") r.rps = std::strtod(b.c_str(), nullptr);
    if (a == "Latency" && b == "Distribution") inDistribution = true;
    if (inDistribution && a == "50%") r.p50Ms = WrkDurationMs(b);
    if (inDistribution && a == "99%") r.p99Ms = WrkDurationMs(b);
    if (b == "requests") r.requests = std::strtol(a.c_str(), nullptr, 10);
    if (a == "Socket" || a == "Non-2xx") r.errors += line + "\n";
  }
  return r;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
  return v[std::min(v.size() - 1, rank == 0 ? 0 : rank - 1)];
}

}  // namespace figures
