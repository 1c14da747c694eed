#include "util.h"

#include <fcntl.h>
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
#include <iostream>
#include <string>
#include <thread>

#include "log_capture.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using testsupport::LogCapture;

double SecondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// Every record must be an ERROR from util.cpp; returns their texts in order.
Lines ErrorTexts(const LogCapture& log) {
  Lines texts;
  for (const auto& r : log.records()) {
    EXPECT_EQ(r.severity, google::GLOG_ERROR) << r.text;
    EXPECT_EQ(r.file, "util.cpp") << r.text;
    texts.push_back(r.text);
  }
  return texts;
}

// Polls until `pid` is reaped; true when SIGKILL ended it.
bool ReapedAfterSigkill(pid_t pid) {
  const auto end = Clock::now() + std::chrono::seconds(2);
  int status = 0;
  while (Clock::now() < end) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r != 0) return r == pid && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST(SystemOutput, ReturnsOneForEveryChildStateAndLogsIt) {
  const std::string term = std::string("Child process terminated by signal: ") + strsignal(SIGTERM);
  struct {
    const char* cmd;
    int limit;
    std::string output;
    std::string line;
  } cases[] = {
      {"echo hi", 3, "hi\n", "Child process exited with status: 0"},
      {"exit 7", 3, "", "Child process exited with status: 7"},
      {"printf 'a\\000b'; exit 255", 3, std::string("a\0b", 3),
       "Child process exited with status: 255"},
      {"echo out; echo err >&2", 3, "out\n", "Child process exited with status: 0"},
      {"echo partial; kill -TERM $$", 3, "partial\n", term},
      // No limit: the child is waited for, however long it takes.
      {"sleep 1; echo done", 0, "done\n", "Child process exited with status: 0"},
      {"sleep 1; echo done", -1, "done\n", "Child process exited with status: 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    LogCapture log;
    std::string output = "stale";
    EXPECT_EQ(util::system_output(c.cmd, output, c.limit), 1);
    EXPECT_EQ(output, c.output);
    EXPECT_EQ(ErrorTexts(log), Lines{c.line});
  }
}

TEST(SystemOutput, CapturesOutputAcrossManyReads) {
  std::string expected;
  for (int i = 1; i <= 30000; ++i) expected += std::to_string(i) + "\n";
  for (int limit : {3, 0}) {
    SCOPED_TRACE(limit);
    std::string output;
    EXPECT_EQ(util::system_output("i=1; while [ $i -le 30000 ]; do echo $i; i=$((i+1)); done",
                                  output, limit),
              1);
    EXPECT_EQ(output.size(), expected.size());
    EXPECT_TRUE(output == expected);
  }
}

TEST(SystemOutput, KillsTheChildWhenTheWholeRunExceedsTheLimit) {
  struct {
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
    LogCapture log;
    std::string output;
    const auto start = Clock::now();
    EXPECT_EQ(util::system_output(c.cmd, output, c.limit), -4);
    // Whole seconds from time(): a limit of n ends after n - 1 to n seconds.
    EXPECT_GT(SecondsSince(start), c.limit - 1.1);
    EXPECT_LT(SecondsSince(start), c.limit + 2.0);
    EXPECT_EQ(ErrorTexts(log), c.lines);
    const pid_t child = static_cast<pid_t>(std::atoi(output.c_str()));
    ASSERT_GT(child, 0) << output;
    EXPECT_TRUE(ReapedAfterSigkill(child));
  }
}

TEST(SystemOutput, IgnoresSigpipeInTheDaemonButNotInTheCommand) {
  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  std::string output;
  ASSERT_EQ(util::system_output("grep SigIgn /proc/$$/status", output, 3), 1);
  struct sigaction now {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &now), 0);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  ASSERT_EQ(output.rfind("SigIgn:", 0), 0u) << output;
  const unsigned long long ignored = std::strtoull(output.c_str() + 7, nullptr, 16);
  EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u) << output;
}

TEST(SystemOutput, ReportsPipeFailure) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = 1;  // no room for a pipe whatever is open
  LogCapture log;
  std::string output = "stale";
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  const int rc = util::system_output("echo hi", output, 3);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(output, "");
  EXPECT_EQ(ErrorTexts(log), Lines{"Failed to create pipe."});
}

// copyFile reports on the standard streams: each call runs with both sent to files.
class CopyFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : TOLVARIND_TEST_SCRATCH) +
                       "/util_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr) << tmpl;
    dir_ = tmpl;
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  bool Copy(const std::string& from, const std::string& to) {
    std::fflush(nullptr);
    const int saved[2] = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) {
      const int f = open((dir_ + "/.std" + std::to_string(fd)).c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      dup2(f, fd);
      close(f);
    }
    const bool ok = util::copyFile(from, to);
    std::cout.flush();
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) {
      dup2(saved[fd - 1], fd);
      close(saved[fd - 1]);
    }
    stdout_ = Get(dir_ + "/.std1");
    stderr_ = Get(dir_ + "/.std2");
    return ok;
  }
  static void Put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    chmod(path.c_str(), 0600);
  }
  static std::string Get(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static mode_t Mode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
  }

  std::string dir_, stdout_, stderr_;
};

TEST_F(CopyFileTest, TruncatesTheDestinationAndMakesItExecutable) {
  std::string binary;
  for (int i = 0; i < 20000; ++i) binary += static_cast<char>(i * 7);  // NULs, several buffers
  for (const std::string& content : {binary, std::string()}) {
    SCOPED_TRACE(content.size());
    const std::string src = dir_ + "/src", dst = dir_ + "/dst";
    Put(src, content);
    Put(dst, std::string(50000, 'o'));
    EXPECT_TRUE(Copy(src, dst));
    EXPECT_TRUE(Get(dst) == content);
    EXPECT_EQ(Mode(dst), 0755u);
    EXPECT_EQ(stdout_, "File copy successful.\n");
    EXPECT_EQ(stderr_, "");
  }
  // Onto itself: opening the destination must not empty the source.
  Put(dir_ + "/src", "keep");
  EXPECT_TRUE(Copy(dir_ + "/src", dir_ + "/./src"));
  EXPECT_EQ(Get(dir_ + "/src"), "keep");
}

TEST_F(CopyFileTest, FailuresAreReportedOnStandardError) {
  const std::string src = dir_ + "/src", sock = dir_ + "/sock", absent = dir_ + "/absent";
  Put(src, "x");
  // A socket exists but cannot be opened, not even by root.
  const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  struct {
    std::string from, to, err;
  } cases[] = {
      {absent, dir_ + "/d1", ""},  // a missing source fails silently
      {sock, dir_ + "/d2", "Failed to open source file: " + sock + "\n"},
      {src, absent + "/d3", "Failed to open destination file: " + absent + "/d3\n"},
      {src, dir_, "Failed to open destination file: " + dir_ + "\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.from + " -> " + c.to);
    EXPECT_FALSE(Copy(c.from, c.to));
    EXPECT_EQ(stderr_, c.err);
    EXPECT_EQ(stdout_, "");
  }
  close(s);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/d1") || std::filesystem::exists(dir_ + "/d2"));
  EXPECT_EQ(Mode(dir_), 0700u) << "a failed copy must not chmod";
}

}  // namespace
