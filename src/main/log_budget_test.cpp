#include "log_budget.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

namespace {
namespace fs = std::filesystem;

TEST(LogBudget, RemovesOnlyTheDaemonsOldestClosedFilesUntilItsFilesFit) {
  char tmpl[] = "/tmp/log_budget_test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  const std::vector<std::string> prefixes{"tolvarind.info.", "tolvarind.warning.",
                                          "tolvarind.error."};
  // A file of `size` bytes (sparse) last written `age` seconds before the others.
  const auto put = [&dir](const std::string& name, off_t size, int age) {
    const int fd = open((dir + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const timespec times[2] = {{1800000000 - age, 0}, {1800000000 - age, 0}};
    EXPECT_TRUE(fd >= 0 && ftruncate(fd, size) == 0 && futimens(fd, times) == 0) << name;
    close(fd);
  };
  const auto names = [&dir] {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(dir)) out.insert(e.path().filename());
    return out;
  };
  // The daemon's own, from earlier runs and this one (pid 999): 210 bytes.
  put("tolvarind.info.20260101-000000.111", 40, 50);
  put("tolvarind.error.20260101-000000.111", 40, 40);
  put("tolvarind.warning.20260102-000000.222", 40, 30);
  put("tolvarind.info.20260104-000000.999", 40, 20);   // rotated away, or the clock went back
  put("tolvarind.info.20260105-000000.999", 50, 100);  // being written, the oldest by time
  // Not the daemon's log files, older and larger: never counted, never removed.
  for (const char* other :
       {"ventrald.info.20250101-000000.5", "tolvarind.info.2025010-000000.111",
        "tolvarind.info.20250101-000000.111.gz", "tolvarind.info.20250101-000000.12345678901"})
    put(other, 1000, 500);
  ASSERT_EQ(link((dir + "/ventrald.info.20250101-000000.5").c_str(),
                 (dir + "/tolvarind.error.20250101-000000.111").c_str()),
            0);
  std::set<std::string> expected = names();

  EXPECT_EQ(logbudget::Sweep(dir, prefixes, 100, 999), 3);
  for (const char* gone :
       {"tolvarind.info.20260101-000000.111", "tolvarind.error.20260101-000000.111",
        "tolvarind.warning.20260102-000000.222"})
    expected.erase(gone);
  EXPECT_EQ(names(), expected);
  EXPECT_EQ(logbudget::Sweep(dir, prefixes, 90, 999), 0);  // 90 bytes left: they fit
  // With no room at all only what may be being written is left: after a
  // clock step the newest name and the newest write can be two files.
  EXPECT_EQ(logbudget::Sweep(dir, prefixes, 0, 999), 0);
  put("tolvarind.info.20260104-000000.999", 40, 200);  // now older than the newest name
  EXPECT_EQ(logbudget::Sweep(dir, prefixes, 0, 999), 1);
  expected.erase("tolvarind.info.20260104-000000.999");
  EXPECT_EQ(names(), expected);
  fs::remove_all(dir);
}

}  // namespace
