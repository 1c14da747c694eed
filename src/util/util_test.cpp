#include "util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "desktop_user.h"
#include "log_capture.h"
#include "trusted_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
const std::string kExited = "|Child process exited with status: ";

// "<rc> <output>" and every log line after a "|"; each must be an ERROR of util.cpp.
std::string Shell(const std::string& cmd, int limit) {
  testsupport::LogCapture log;
  std::string output = "stale";
  std::string r = std::to_string(util::system_output(cmd, output, limit)) + " " + output;
  for (const auto& rec : log.records()) {
    EXPECT_TRUE(rec.severity == google::GLOG_ERROR && rec.file == "util.cpp") << rec.text;
    r += "|" + rec.text;
  }
  return r;
}

TEST(SystemOutput, ReturnsOneForEveryChildStateAndLogsIt) {
  using namespace std::string_literals;
  EXPECT_EQ(Shell("printf 'a\\000b'; exit 255", 3), "1 a\0b"s + kExited + "255");
  EXPECT_EQ(Shell("echo out; echo err >&2", 3), "1 out\n" + kExited + "0");
  EXPECT_EQ(Shell("echo partial; kill -TERM $$", 3),
            "1 partial\n|Child process terminated by signal: " + std::string(strsignal(SIGTERM)));
  std::string many;  // output across many reads; no limit (0) or 3 s
  for (int i = 1; i <= 30000; ++i) many += std::to_string(i) + "\n";
  for (int limit : {3, 0})
    EXPECT_TRUE(Shell("seq 30000", limit) == "1 " + many + kExited + "0") << limit;
}

TEST(SystemOutput, KillsTheChildWhenTheWholeRunExceedsTheLimit) {
  // With its output closed early the read phase ends at end of file; the wait phase kills.
  for (const auto& [cmd, limit, logs] :
       {std::tuple{"echo $$; exec sleep 10", 3, "|timeoutOccurred.|Child process timed out."},
        std::tuple{"echo $$; exec >&-; exec sleep 10", 2, "|Child process timed out."}}) {
    const auto start = Clock::now();
    const std::string r = Shell(cmd, limit);
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GT(took, limit - 1.1);  // whole seconds from time(): n - 1 to n seconds
    EXPECT_LT(took, limit + 2.0);
    const pid_t child = std::atoi(r.c_str() + 3);
    ASSERT_GT(child, 0) << r;
    EXPECT_EQ(r, "-4 " + std::to_string(child) + "\n" + logs);
    int status = 0;  // left a zombie: reap it here
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status) &&
                WTERMSIG(status) == SIGKILL)
        << status;
  }
}

TEST(SystemOutput, ReportsPipeAndWaitFailures) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = 1;           // no room for a pipe whatever is open
  testsupport::LogCapture log;  // outlives the tight limit: UBSan type checks fail under it
  std::string output = "stale";
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  const int rc = util::system_output("echo hi", output, 3);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_EQ(std::to_string(rc) + output, "-1");
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Failed to create pipe."});
  signal(SIGCHLD, SIG_IGN);  // children reap themselves: nothing left to wait for
  EXPECT_EQ(Shell("exit 0", 3), "-3 |Failed to waitpid.");
  signal(SIGCHLD, SIG_DFL);
}

// What a directory and a file with this status are refused for (by a daemon of uid 7).
std::string Refusals(mode_t mode, uid_t uid, nlink_t links = 1) {
  struct stat st {};
  st.st_mode = mode;
  st.st_uid = uid;
  st.st_nlink = links;
  return trusted::DirRefusal(st, 7) + "|" + trusted::FileRefusal(st, 7);
}

TEST(SessionDirectory, TrustsOnlyRootOrTheDaemonAndNobodyElseWriting) {
  const std::string notFile = "|not a regular file", notDir = "not a directory|";
  EXPECT_EQ(Refusals(S_IFDIR | 01777, 7), notFile);
  EXPECT_EQ(Refusals(S_IFDIR | 0775, 7), "writable by group or others and not sticky" + notFile);
  EXPECT_EQ(Refusals(S_IFREG | 0644, 1001),
            notDir + "owned by uid 1001, neither root nor the daemon's uid 7");
  EXPECT_EQ(Refusals(S_IFREG | 0646, 0), notDir + "writable by group or others");
  EXPECT_EQ(Refusals(S_IFREG | 0620, 0), notDir + "writable by group or others");
  EXPECT_EQ(Refusals(S_IFREG | 0644, 0, 2), notDir + "has 2 links");
}

TEST(CommandUser, RunsAsTheAccountOnlyWhenRootCanAndTheNameIsOne) {
  for (const std::string& name :
       std::vector<std::string>{"aAzZ09._-", "z", "A", "Z", "_x", "m$", std::string(32, 'a')})
    EXPECT_TRUE(util::IsValidLoginName(name)) << name;
  for (const std::string& name :
       std::vector<std::string>{"", "9a", "-a", ".a", "a$b", "a b", "a/b", "a:", "a@", "a[", "a`",
                                "a{", "a;id", "a\n", "\xe9", "../root", std::string(33, 'a')})
    EXPECT_FALSE(util::IsValidLoginName(name)) << name;
  for (const std::string name : {"x", "a.b", "x.", "\x80"})
    EXPECT_TRUE(util::IsPlainFileName(name)) << name;
  for (const std::string name : {"", ".x", "a/b", "a\nb", "a\x1f", "a\x7f"})
    EXPECT_FALSE(util::IsPlainFileName(name)) << name;

  using util::CommandUser;
  EXPECT_EQ(util::DecideCommandUser(true, "alice", true), CommandUser::kAccount);
  EXPECT_EQ(util::DecideCommandUser(true, "alice", false), CommandUser::kDaemon);
  EXPECT_EQ(util::DecideCommandUser(true, "", false), CommandUser::kDaemon);
  EXPECT_EQ(util::DecideCommandUser(true, "../root", true), CommandUser::kRefused);
  EXPECT_EQ(util::DecideCommandUser(false, "a;id", false), CommandUser::kDaemon);

  // Without her bus the daemon's own address must not reach her session.
  const util::Account alice{"alice", 1000, 0, "/home/alice", {}};
  const char* base[] = {"PATH=/bin", "HOME=/root", "DBUS_SESSION_BUS_ADDRESS=x", "LANG=C", nullptr};
  EXPECT_EQ(util::SessionEnvironment(base, alice, false),
            (std::vector<std::string>{"PATH=/bin", "LANG=C", "HOME=/home/alice", "USER=alice",
                                      "LOGNAME=alice", "XDG_RUNTIME_DIR=/run/user/1000"}));
}

TEST(CopyFile, CopiesTruncatingAndMakingExecutableButNeverEmptiesItsSource) {
  const char* tmp = std::getenv("TMPDIR");  // else the build tree
  std::string dir = std::string(tmp && *tmp ? tmp : TOLVARIND_TEST_SCRATCH) + "/util_test.XXXXXX";
  ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
  const std::string src = dir + "/src", dst = dir + "/dst";
  std::string binary;
  for (int i = 0; i < 20000; ++i) binary += static_cast<char>(i * 7);  // NULs, several buffers
  std::ofstream(src, std::ios::binary) << binary;
  std::ofstream(dst, std::ios::binary) << std::string(50000, 'o');
  EXPECT_TRUE(util::copyFile(src, dst) && util::copyFile(src, dir + "/./src"));
  for (const std::string& path : {src, dst}) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == binary) << path;
  }
  EXPECT_EQ(std::filesystem::status(dst).permissions(), std::filesystem::perms(0755));
  EXPECT_FALSE(util::copyFile(dir + "/absent", dst) || util::copyFile(src, dir) ||
               util::copyFile(dir, dir + "/d"));
  std::filesystem::remove_all(dir);
}

}  // namespace
