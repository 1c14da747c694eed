#include "util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "desktop_user.h"
#include "log_capture.h"
#include "trusted_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

struct Result {
  int rc;
  std::string output;
  Lines logs;  // every one an ERROR from util.cpp
};

Result Shell(const std::string& cmd, int limit) {
  testsupport::LogCapture log;
  Result r{0, "stale", {}};
  r.rc = util::system_output(cmd, r.output, limit);
  for (const auto& rec : log.records()) {
    EXPECT_EQ(rec.severity, google::GLOG_ERROR) << rec.text;
    EXPECT_EQ(rec.file, "util.cpp") << rec.text;
    r.logs.push_back(rec.text);
  }
  return r;
}

TEST(SystemOutput, ReturnsOneForEveryChildStateAndLogsIt) {
  const std::string exited = "Child process exited with status: ";
  const struct {
    const char* cmd;
    int limit;
    std::string output, line;
  } cases[] = {
      {"printf 'a\\000b'; exit 255", 3, std::string("a\0b", 3), exited + "255"},
      {"echo out; echo err >&2", 3, "out\n", exited + "0"},
      {"echo partial; kill -TERM $$", 3, "partial\n",
       std::string("Child process terminated by signal: ") + strsignal(SIGTERM)},
      // No limit: the child is waited for, however long it takes.
      {"sleep 1; echo done", 0, "done\n", exited + "0"},
      {"sleep 1; echo done", -1, "done\n", exited + "0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    const Result r = Shell(c.cmd, c.limit);
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.output, c.output);
    EXPECT_EQ(r.logs, Lines{c.line});
  }
}

TEST(SystemOutput, CapturesOutputAcrossManyReads) {
  std::string expected;
  for (int i = 1; i <= 30000; ++i) expected += std::to_string(i) + "\n";
  for (int limit : {3, 0}) {
    const Result r = Shell("i=1; while [ $i -le 30000 ]; do echo $i; i=$((i+1)); done", limit);
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(r.output == expected) << limit << ": " << r.output.size() << " bytes";
  }
}

TEST(SystemOutput, KillsTheChildWhenTheWholeRunExceedsTheLimit) {
  const struct {
    const char* cmd;
    int limit;
    Lines lines;
  } cases[] = {
      {"echo $$; exec sleep 10", 3, {"timeoutOccurred.", "Child process timed out."}},
      // Output closed early: the read phase ends at end of file, the wait phase kills.
      {"echo $$; exec >&-; exec sleep 10", 2, {"Child process timed out."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    const auto start = Clock::now();
    const Result r = Shell(c.cmd, c.limit);
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_EQ(r.rc, -4);
    EXPECT_GT(took, c.limit - 1.1);  // whole seconds from time(): n - 1 to n seconds
    EXPECT_LT(took, c.limit + 2.0);
    EXPECT_EQ(r.logs, c.lines);
    const pid_t child = static_cast<pid_t>(std::atoi(r.output.c_str()));
    ASSERT_GT(child, 0) << r.output;
    int status = 0;  // left a zombie: reap it here, with a deadline
    for (auto end = Clock::now() + std::chrono::seconds(2);
         waitpid(child, &status, WNOHANG) == 0 && Clock::now() < end;)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  }
}

TEST(SystemOutput, IgnoresSigpipeInTheDaemonButNotInTheCommand) {
  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  const Result r = Shell("grep SigIgn /proc/$$/status", 3);
  EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_IGN);
  ASSERT_EQ(r.output.rfind("SigIgn:", 0), 0u) << r.output;
  EXPECT_EQ(std::strtoull(r.output.c_str() + 7, nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0u);
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
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(output, "");
  EXPECT_EQ(log.texts(), Lines{"Failed to create pipe."});

  signal(SIGCHLD, SIG_IGN);  // children reap themselves: nothing left to wait for
  const Result wait = Shell("exit 0", 3);
  signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(wait.rc, -3);
  EXPECT_EQ(wait.logs, Lines{"Failed to waitpid."});
}

struct stat Stat(mode_t mode, uid_t uid, nlink_t links = 1) {
  struct stat st {};
  st.st_mode = mode;
  st.st_uid = uid;
  st.st_nlink = links;
  return st;
}

TEST(SessionDirectory, TrustsOnlyRootOrTheDaemonAndNobodyElseWriting) {
  const std::string other = "owned by uid 1001, neither root nor the daemon's uid 7";
  const struct {
    struct stat st;
    std::string dir, file;
  } cases[] = {
      {Stat(S_IFDIR | 0755, 0), "", "not a regular file"},
      {Stat(S_IFDIR | 01777, 7), "", "not a regular file"},
      {Stat(S_IFDIR | 0777, 0), "writable by group or others and not sticky", "not a regular file"},
      {Stat(S_IFDIR | 0775, 7), "writable by group or others and not sticky", "not a regular file"},
      {Stat(S_IFDIR | 0755, 1001), other, "not a regular file"},
      {Stat(S_IFREG | 0644, 0), "not a directory", ""},
      {Stat(S_IFREG | 0600, 7), "not a directory", ""},
      {Stat(S_IFREG | 0644, 1001), "not a directory", other},
      {Stat(S_IFREG | 0646, 0), "not a directory", "writable by group or others"},
      {Stat(S_IFREG | 0644, 0, 2), "not a directory", "has 2 links"},
      {Stat(S_IFIFO | 0644, 0), "not a directory", "not a regular file"},
      {Stat(S_IFLNK | 0777, 0), "not a directory", "not a regular file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::oct << c.st.st_mode << " uid " << std::dec
                                    << c.st.st_uid);
    EXPECT_EQ(trusted::DirRefusal(c.st, 7), c.dir);
    EXPECT_EQ(trusted::FileRefusal(c.st, 7), c.file);
  }
}

TEST(CommandUser, RunsAsTheAccountOnlyWhenRootCanAndTheNameIsOne) {
  using util::CommandUser;
  const struct {
    bool root;
    const char* name;
    bool account;
    CommandUser want;
  } cases[] = {
      {true, "alice", true, CommandUser::kAccount},
      {true, "alice", false, CommandUser::kDaemon},
      {true, "", false, CommandUser::kDaemon},
      {true, "a;id", false, CommandUser::kRefused},
      {true, "../root", true, CommandUser::kRefused},
      {false, "alice", true, CommandUser::kDaemon},
      {false, "a;id", false, CommandUser::kDaemon},
  };
  for (const auto& c : cases)
    EXPECT_EQ(util::DecideCommandUser(c.root, c.name, c.account), c.want) << c.name << c.root;

  util::Account alice;
  alice.name = "alice";
  alice.uid = 1000;
  alice.home = "/home/alice";
  const char* base[] = {"PATH=/bin", "HOME=/root", "DBUS_SESSION_BUS_ADDRESS=x", "LANG=C", nullptr};
  const std::vector<std::string> common = {"PATH=/bin", "LANG=C", "HOME=/home/alice", "USER=alice",
                                           "LOGNAME=alice", "XDG_RUNTIME_DIR=/run/user/1000"};
  std::vector<std::string> withBus = common;
  withBus.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/1000/bus");
  EXPECT_EQ(util::SessionEnvironment(base, alice, false), common);
  EXPECT_EQ(util::SessionEnvironment(base, alice, true), withBus);
}

class CopyFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TMPDIR");  // else the build tree
    dir_ = std::string(tmp && *tmp ? tmp : TOLVARIND_TEST_SCRATCH) + "/util_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr) << dir_;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string dir_;
};

TEST_F(CopyFileTest, CopiesTruncatingAndMakingExecutableOrReportsOnStandardStreams) {
  const auto mode = [](const std::string& p) { return std::filesystem::status(p).permissions(); };
  std::string binary;
  for (int i = 0; i < 20000; ++i) binary += static_cast<char>(i * 7);  // NULs, several buffers
  const std::string src = dir_ + "/src", dst = dir_ + "/dst", sock = dir_ + "/sock",
                    absent = dir_ + "/absent";
  // A socket exists but cannot be opened, not even by root.
  const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{AF_UNIX, {}};
  std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const struct {
    std::string content, from, to;
    bool ok;
    std::string err;
  } cases[] = {
      {binary, src, dst, true, ""},
      {"", src, dst, true, ""},
      {"keep", src, dir_ + "/./src", true, ""},  // onto itself: the source must not be emptied
      {"x", absent, dir_ + "/d1", false, ""},    // a missing source fails silently
      {"x", sock, dir_ + "/d2", false, "Failed to open source file: " + sock + "\n"},
      {"x", src, absent + "/d3", false, "Failed to open destination file: " + absent + "/d3\n"},
      {"x", src, dir_, false, "Failed to open destination file: " + dir_ + "\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.from + " -> " + c.to);
    std::ofstream(src, std::ios::binary) << c.content;
    std::ofstream(dst, std::ios::binary) << std::string(50000, 'o');
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(util::copyFile(c.from, c.to), c.ok);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.ok ? "File copy successful.\n" : "");
    if (!c.ok) continue;
    std::ifstream in(c.to, std::ios::binary);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == c.content);
    EXPECT_EQ(mode(c.to), std::filesystem::perms(0755));
  }
  close(s);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/d1") || std::filesystem::exists(dir_ + "/d2"));
  EXPECT_EQ(mode(dir_), std::filesystem::perms(0700)) << "a failed copy must not chmod";
}

}  // namespace
