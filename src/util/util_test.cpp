#include "util.h"

#include <dirent.h>
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
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "log_capture.h"

namespace {

using Clock = std::chrono::steady_clock;
using testsupport::LogCapture;

double SecondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// Every record must be an ERROR from util.cpp; returns their texts in order.
std::vector<std::string> ErrorTexts(const LogCapture& log) {
  std::vector<std::string> texts;
  for (const auto& r : log.records()) {
    EXPECT_EQ(r.severity, google::GLOG_ERROR) << r.text;
    EXPECT_EQ(r.file, "util.cpp") << r.text;
    texts.push_back(r.text);
  }
  return texts;
}

// Waits up to `deadline` for `pid` to be reaped; true when SIGKILL ended it.
bool ReapedAfterSigkill(pid_t pid, std::chrono::milliseconds deadline) {
  const auto end = Clock::now() + deadline;
  int status = 0;
  while (Clock::now() < end) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (r < 0) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

pid_t LeadingPid(const std::string& output) {
  return static_cast<pid_t>(std::strtol(output.c_str(), nullptr, 10));
}

TEST(SystemOutput, ReturnsOneForEveryChildStateAndLogsIt) {
  const std::string term = std::string("Child process terminated by signal: ") + strsignal(SIGTERM);
  struct {
    const char* cmd;
    std::string output;
    std::string line;
  } cases[] = {
      {"echo hi", "hi\n", "Child process exited with status: 0"},
      {"exit 7", "", "Child process exited with status: 7"},
      {"printf 'a\\000b'; exit 255", std::string("a\0b", 3), "Child process exited with status: 255"},
      {"echo out; echo err >&2", "out\n", "Child process exited with status: 0"},
      {"echo partial; kill -TERM $$", "partial\n", term},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    LogCapture log;
    std::string output = "stale";
    EXPECT_EQ(util::system_output(c.cmd, output, 3), 1);
    EXPECT_EQ(output, c.output);
    EXPECT_EQ(ErrorTexts(log), std::vector<std::string>{c.line});
  }
}

TEST(SystemOutput, CapturesOutputAcrossManyReads) {
  std::string expected;
  for (int i = 1; i <= 30000; ++i) expected += std::to_string(i) + "\n";
  ASSERT_GT(expected.size(), 4096u * 10);
  for (int limit : {3, 0}) {
    SCOPED_TRACE(limit);
    LogCapture log;
    std::string output;
    EXPECT_EQ(util::system_output("i=1; while [ $i -le 30000 ]; do echo $i; i=$((i+1)); done", output,
                                  limit),
              1);
    EXPECT_EQ(output.size(), expected.size());
    EXPECT_TRUE(output == expected);
    EXPECT_EQ(ErrorTexts(log), std::vector<std::string>{"Child process exited with status: 0"});
  }
}

TEST(SystemOutput, KillsTheChildAtTheLimit) {
  LogCapture log;
  std::string output;
  const auto start = Clock::now();
  EXPECT_EQ(util::system_output("echo $$; exec sleep 10", output, 3), -4);
  const double took = SecondsSince(start);
  // Whole seconds from time(): a 3-second limit ends after 2 to 3 seconds.
  EXPECT_GT(took, 1.9);
  EXPECT_LT(took, 5.0);
  EXPECT_EQ(ErrorTexts(log),
            (std::vector<std::string>{"timeoutOccurred.", "Child process timed out."}));
  const pid_t child = LeadingPid(output);
  ASSERT_GT(child, 0) << output;
  EXPECT_TRUE(ReapedAfterSigkill(child, std::chrono::milliseconds(2000)));
}

TEST(SystemOutput, LimitBindsAChildThatClosedItsOutputEarly) {
  LogCapture log;
  std::string output;
  const auto start = Clock::now();
  EXPECT_EQ(util::system_output("echo $$; exec >&-; exec sleep 10", output, 2), -4);
  const double took = SecondsSince(start);
  EXPECT_GT(took, 0.9);
  EXPECT_LT(took, 4.0);
  // The read phase ended at end of file, so only the wait phase reports.
  EXPECT_EQ(ErrorTexts(log), std::vector<std::string>{"Child process timed out."});
  const pid_t child = LeadingPid(output);
  ASSERT_GT(child, 0) << output;
  EXPECT_TRUE(ReapedAfterSigkill(child, std::chrono::milliseconds(2000)));
}

TEST(SystemOutput, NoLimitWaitsForTheChild) {
  for (int limit : {0, -1}) {
    SCOPED_TRACE(limit);
    LogCapture log;
    std::string output;
    const auto start = Clock::now();
    EXPECT_EQ(util::system_output("sleep 1; echo done", output, limit), 1);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_EQ(output, "done\n");
    EXPECT_EQ(ErrorTexts(log), std::vector<std::string>{"Child process exited with status: 0"});
  }
}

TEST(SystemOutput, IgnoresSigpipeInTheDaemonButNotInTheCommand) {
  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  std::string output;
  // The shell's own ignored-signal mask, bit 13 being SIGPIPE.
  ASSERT_EQ(util::system_output("grep SigIgn /proc/$$/status", output, 3), 1);
  struct sigaction now {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &now), 0);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  ASSERT_EQ(output.rfind("SigIgn:", 0), 0u) << output;
  const unsigned long long ignored = std::strtoull(output.c_str() + 7, nullptr, 16);
  EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u) << output;
}

std::set<int> InheritableDescriptors() {
  std::set<int> fds;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return fds;
  const int own = dirfd(d);
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const int fd = std::atoi(e->d_name);
    if (fd != own && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) fds.insert(fd);
  }
  closedir(d);
  return fds;
}

TEST(SystemOutput, CommandInheritsNoDescriptorOfItsOwn) {
  std::set<int> expected = InheritableDescriptors();
  expected.insert(STDOUT_FILENO);
  std::string output;
  // Globbing in the shell itself, so no helper process adds its own descriptors;
  // the directory the glob read is closed again by the time -L looks.
  ASSERT_EQ(util::system_output("for f in /proc/$$/fd/*; do [ -L $f ] && echo ${f##*/}; done", output,
                                3),
            1);
  std::set<int> seen;
  std::istringstream in(output);
  for (int fd; in >> fd;) seen.insert(fd);
  EXPECT_EQ(seen, expected) << output;
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
  EXPECT_EQ(ErrorTexts(log), std::vector<std::string>{"Failed to create pipe."});
}

// copyFile reports on the standard streams; this swaps one for a file.
class StreamCapture {
 public:
  StreamCapture(int fd, const std::string& path) : fd_(fd), path_(path) {
    std::cout.flush();
    std::fflush(nullptr);
    saved_ = dup(fd);
    const int f = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(f, fd);
    close(f);
  }
  ~StreamCapture() { Restore(); }
  std::string Text() {
    Restore();
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

 private:
  void Restore() {
    if (saved_ < 0) return;
    std::cout.flush();
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
  }
  int fd_;
  std::string path_;
  int saved_ = -1;
};

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

  // Runs copyFile with both standard streams captured.
  bool Copy(const std::string& from, const std::string& to) {
    StreamCapture out(STDOUT_FILENO, dir_ + "/.stdout");
    StreamCapture err(STDERR_FILENO, dir_ + "/.stderr");
    const bool ok = util::copyFile(from, to);
    stdout_ = out.Text();
    stderr_ = err.Text();
    return ok;
  }

  static void Put(const std::string& path, const std::string& content, mode_t mode) {
    std::ofstream(path, std::ios::binary) << content;
    chmod(path.c_str(), mode);
  }
  static std::string Get(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static mode_t Mode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
  }

  std::string dir_;
  std::string stdout_;
  std::string stderr_;
};

TEST_F(CopyFileTest, TruncatesTheDestinationAndMakesItExecutable) {
  std::string binary;
  for (int i = 0; i < 20000; ++i) binary += static_cast<char>(i * 7);
  for (const std::string& content : {binary, std::string()}) {
    SCOPED_TRACE(content.size());
    const std::string src = dir_ + "/src", dst = dir_ + "/dst";
    Put(src, content, 0600);
    Put(dst, std::string(50000, 'o'), 0600);
    EXPECT_TRUE(Copy(src, dst));
    EXPECT_TRUE(Get(dst) == content);
    EXPECT_EQ(Mode(dst), 0755u);
    EXPECT_EQ(Mode(src), 0600u);
    EXPECT_EQ(stdout_, "File copy successful.\n");
    EXPECT_EQ(stderr_, "");
  }
}

TEST_F(CopyFileTest, CreatesAMissingDestination) {
  const std::string src = dir_ + "/src", dst = dir_ + "/new";
  Put(src, "x", 0644);
  EXPECT_TRUE(Copy(src, dst));
  EXPECT_EQ(Get(dst), "x");
  EXPECT_EQ(Mode(dst), 0755u);
}

TEST_F(CopyFileTest, MissingSourceFailsSilently) {
  const std::string dst = dir_ + "/dst";
  EXPECT_FALSE(Copy(dir_ + "/absent", dst));
  EXPECT_EQ(stdout_, "");
  EXPECT_EQ(stderr_, "");
  EXPECT_FALSE(std::filesystem::exists(dst));
}

TEST_F(CopyFileTest, UnopenableSourceIsReported) {
  // A socket exists but cannot be opened, not even by root.
  const std::string sock = dir_ + "/sock", dst = dir_ + "/dst";
  const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(s, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(sock.size(), sizeof addr.sun_path);
  std::strcpy(addr.sun_path, sock.c_str());
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const bool ok = Copy(sock, dst);
  close(s);
  EXPECT_FALSE(ok);
  EXPECT_EQ(stderr_, "Failed to open source file: " + sock + "\n");
  EXPECT_EQ(stdout_, "");
  EXPECT_FALSE(std::filesystem::exists(dst));
}

TEST_F(CopyFileTest, UnopenableDestinationIsReported) {
  const std::string src = dir_ + "/src";
  Put(src, "x", 0644);
  for (const std::string& dst : {dir_ + "/missing-dir/dst", dir_}) {
    SCOPED_TRACE(dst);
    EXPECT_FALSE(Copy(src, dst));
    EXPECT_EQ(stderr_, "Failed to open destination file: " + dst + "\n");
    EXPECT_EQ(stdout_, "");
  }
  EXPECT_EQ(Mode(dir_), 0700u) << "a failed copy must not chmod";
}

TEST_F(CopyFileTest, CopyOntoItselfKeepsTheContent) {
  const std::string src = dir_ + "/src";
  Put(src, "keep me", 0600);
  EXPECT_TRUE(Copy(src, dir_ + "/./src"));
  EXPECT_EQ(Get(src), "keep me");
  EXPECT_EQ(Mode(src), 0755u);
}

}  // namespace
