#include "util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "desktop_user.h"
#include "log_capture.h"
#include "trusted_dir.h"

namespace {

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
  EXPECT_EQ(Shell("echo partial; kill -TERM $$", 3),
            "1 partial\n|Child process terminated by signal: " + std::string(strsignal(SIGTERM)));
  EXPECT_EQ(Shell("sleep 1; echo done", 0), "1 done\n" + kExited + "0");  // no limit
}

TEST(SystemOutput, KillsTheChildWhenTheWholeRunExceedsTheLimit) {
  // With its output closed early the read phase ends at end of file; the wait phase kills.
  for (const auto& [cmd, limit, logs] :
       {std::tuple{"echo $$; exec sleep 10", 3, "|timeoutOccurred.|Child process timed out."},
        std::tuple{"echo $$; exec >&-; exec sleep 10", 2, "|Child process timed out."}}) {
    const std::string r = Shell(cmd, limit);
    const pid_t child = std::atoi(r.c_str() + 3);
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

  using util::CommandUser;
  EXPECT_EQ(util::DecideCommandUser(true, "alice", false), CommandUser::kDaemon);
  EXPECT_EQ(util::DecideCommandUser(true, "", false), CommandUser::kDaemon);
  EXPECT_EQ(util::DecideCommandUser(true, "../root", true), CommandUser::kRefused);
  EXPECT_EQ(util::DecideCommandUser(false, "a;id", false), CommandUser::kDaemon);

  // The daemon's own entries stay, in order; the session's are the account's.
  const char* base[] = {"PATH=/bin", "HOME=/root", "DBUS_SESSION_BUS_ADDRESS=x", "TZ=:UTC",
                        nullptr};
  EXPECT_EQ(util::SessionEnvironment(base, {"alice", 1000, 1000, "/home/alice", {}}, false),
            (std::vector<std::string>{"PATH=/bin", "TZ=:UTC", "HOME=/home/alice", "USER=alice",
                                      "LOGNAME=alice", "XDG_RUNTIME_DIR=/run/user/1000"}));
  for (const char* name : {"a/b", ".a", "a\tb", "a\x7f"}) EXPECT_FALSE(util::IsPlainFileName(name));
}

}  // namespace
