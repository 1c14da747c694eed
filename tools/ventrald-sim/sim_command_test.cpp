#include "sim_command.h"

#include <gtest/gtest.h>

namespace ventraldsim {
namespace {

// A line of the command language and the s_cmd and body it sends, or a part of
// the error it gives.
TEST(VentraldSim, CommandLinesSendTheirExactBodiesOrSayWhatIsWrong) {
  const std::pair<std::string, std::string> rows[] = {
      {"  \tportal \t https://a b  \t\r\n", "774 https://a b"},
      {"raw 2 769 a\\0\\x41\\\\\\n\\r\\t", std::string("769 a\0A\\\n\r\t", 11)},
      {"heartbeat now", "error: heartbeat takes no argument (got 'now')"},
      {"raw 2 1 ab\\x4", "error: \\x needs two hex digits at offset 2"},
      {"raw 2 1 " + std::string(65536, 'a'), "error: 65536 bytes does not fit"},
  };
  for (const auto& [line, want] : rows) {
    const ParseResult r = ParseCommandLine(line);
    const std::string got =
        r.ok ? std::to_string(r.command.s_cmd) + " " + r.command.body : "error: " + r.error;
    EXPECT_TRUE(got == want || (want[0] == 'e' && got.find(want.substr(7)) != got.npos)) << got;
  }
}

}  // namespace
}  // namespace ventraldsim
