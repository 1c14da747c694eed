#include "log_budget.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "log_capture.h"

namespace {

namespace fs = std::filesystem;

class LogBudget : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/log_budget_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A file of `size` bytes (sparse) last written `age` seconds before the others.
  void Put(const std::string& name, off_t size, int age) {
    const std::string path = dir_ + "/" + name;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(ftruncate(fd, size), 0);
    const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
    ASSERT_EQ(futimens(fd, times), 0);
    close(fd);
  }
  std::set<std::string> Names() const {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(dir_)) out.insert(e.path().filename());
    return out;
  }

  static constexpr time_t kNow = 1800000000;
  const std::vector<std::string> prefixes_{"tolvarind.info.", "tolvarind.warning.",
                                           "tolvarind.error."};
  std::string dir_;
};

TEST_F(LogBudget, RemovesOnlyTheDaemonsOldestClosedFilesUntilItsFilesFit) {
  // The daemon's own, from earlier runs and this one (pid 999): 210 bytes.
  Put("tolvarind.info.20260101-000000.111", 40, 50);
  Put("tolvarind.error.20260101-000000.111", 40, 40);
  Put("tolvarind.warning.20260102-000000.222", 40, 30);
  Put("tolvarind.info.20260104-000000.999", 40, 20);  // rotated away, or the clock went back
  // Being written, though the oldest of all by time: it stays and counts.
  Put("tolvarind.info.20260105-000000.999", 50, 100);
  // Not the daemon's log files, older and larger: never counted, never removed.
  Put("ventrald.info.20250101-000000.5", 1000, 500);
  Put("tolvarind.conf", 1000, 500);
  Put("tolvarind.info.20250101-000000.111.gz", 1000, 500);
  Put("tolvarind.info.2025010-000000.111", 1000, 500);
  Put("xtolvarind.info.20250101-000000.111", 1000, 500);
  ASSERT_EQ(symlink("tolvarind.info.20260105-000000.999", (dir_ + "/tolvarind.INFO").c_str()), 0);
  const std::set<std::string> before = Names();

  testsupport::LogCapture logs;
  EXPECT_EQ(logbudget::Sweep(dir_, prefixes_, 100, 999), 3);
  std::set<std::string> expected = before;
  for (const char* gone :
       {"tolvarind.info.20260101-000000.111", "tolvarind.error.20260101-000000.111",
        "tolvarind.warning.20260102-000000.222"})
    expected.erase(gone);
  EXPECT_EQ(Names(), expected);
  EXPECT_TRUE(logs.has("log directory over its budget, removed tolvarind.info.20260101-000000.111",
                       google::GLOG_INFO));

  // 90 bytes left, within the budget: nothing more goes.
  EXPECT_EQ(logbudget::Sweep(dir_, prefixes_, 100, 999), 0);
  // With no room at all only what may be being written is left: after a
  // clock step the newest name and the newest write can be two files.
  EXPECT_EQ(logbudget::Sweep(dir_, prefixes_, 0, 999), 0);
  EXPECT_TRUE(Names().count("tolvarind.info.20260105-000000.999"));
  EXPECT_TRUE(Names().count("tolvarind.info.20260104-000000.999"));
  Put("tolvarind.info.20260104-000000.999", 40, 200);  // now older than the newest name
  EXPECT_EQ(logbudget::Sweep(dir_, prefixes_, 0, 999), 1);
  EXPECT_EQ(Names().size(), before.size() - 4);

  EXPECT_EQ(logbudget::Sweep(dir_ + "/missing", prefixes_, 0, 999), -1);
}

}  // namespace
