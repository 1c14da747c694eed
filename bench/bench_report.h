// How every benchmark prints its figures: free text for people, plus one
// "RESULT" line per figure and one "VERDICT" line per goal, which
// bench/run_all.sh gathers into a summary. Keep the two line shapes stable.
#pragma once

#include <cstdio>
#include <string>

namespace benchreport {

// RESULT <bench> <key>=<value> ... : one measured figure with its context.
inline void Result(const std::string& bench, const std::string& fields) {
  std::printf("RESULT %s %s\n", bench.c_str(), fields.c_str());
  std::fflush(stdout);
}

// VERDICT <bench> PASS|MISS <what was checked>
inline void Verdict(const std::string& bench, bool pass, const std::string& what) {
  std::printf("VERDICT %s %s %s\n", bench.c_str(), pass ? "PASS" : "MISS", what.c_str());
  std::fflush(stdout);
}

inline std::string Fmt(const char* fmt, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

}  // namespace benchreport
