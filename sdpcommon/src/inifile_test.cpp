#include "inifile.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

// A file in memory holding `content`, reachable by path while the object lives.
struct Ini {
  explicit Ini(const std::string& content) : fd(memfd_create("ini", MFD_CLOEXEC)) {
    EXPECT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
  }
  ~Ini() { close(fd); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
  const int fd;
};

// The value of `key` in section "S", or "<rc>" when not found (with `out` untouched).
std::string Find(const std::string& content, const char* key, int size = kIniLineMax) {
  char out[kIniLineMax];
  std::memset(out, '*', sizeof out);
  const int rc = inifile_read(Ini(content).path().c_str(), "S", key, out, size);
  return rc == 0 ? std::string(out) : "<" + std::to_string(rc) + out[0] + ">";
}

TEST(IniFile, FindsTheFirstItemOfTheFirstMatchingSection) {
  EXPECT_EQ(Find("[s]\nK=1\n", "k"), "1");  // names ignore case
  EXPECT_EQ(Find("[S\nk=v\n", "k"), "<-1*>");
  EXPECT_EQ(Find("[S]\nk = value ; comment\n", "k"), "value");
  EXPECT_EQ(Find("[S]\nk = \"a;b\"\n", "k"), "\"a");    // the comment cuts inside quotes
  EXPECT_EQ(Find("[S]\nk=\"\"x\"\"\n", "k"), "\"x\"");  // one pair of quotes goes
  EXPECT_EQ(Find("[S]\na=\n", "a"), "<-1*>");           // two characters are no item
  EXPECT_EQ(Find("[S]\nab=\n", "ab"), "");
  EXPECT_EQ(Find("[S]\n  my key \t=\t v w  \n", "my key"), "v w");
  EXPECT_EQ(Find("[S]\nother=1\n[s]\nk=v\n", "k"), "<-1*>");  // only the first section
  EXPECT_EQ(Find("[S]\n# k=1\n; k=2\ngarbage\n\nk=3\n", "k"), "3");
  EXPECT_EQ(Find("[S]\r\nk=v\r\n", "k"), "v");
  // Read 10239 bytes at a time: the tail of a longer line is a line of its own.
  EXPECT_EQ(Find("[S]\n" + std::string(kIniLineMax - 1, 'x') + "k=v\n", "k"), "v");
  // The value must fit with its terminator; a size is signed.
  EXPECT_EQ(Find("[S]\nk=1234567\n", "k", 8), "1234567");
  EXPECT_EQ(Find("[S]\nk=12345678\n", "k", 8), "<-1*>");
  EXPECT_EQ(Find("[S]\nk=1\n", "k", INT_MIN), "<-1*>");
}

TEST(IniFile, ReadStringTrimsOrStoresTheDefault) {
  const Ini ini("[S]\nq = \"  x  \"\nseven=1234567\n");
  const std::string path = ini.path();
  const char* p = path.c_str();
  char out[8] = "junk";
  const auto got = [&](int rc) { return std::to_string(rc) + " " + out; };
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "q", out, 8, "DEF")), "0 x");  // trimmed again
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "seven", out, 7, "DEF")), "-1 DEF");
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "q", out, 8, nullptr)), "-2 ");  // emptied
  EXPECT_EQ(got(ReadStringFromIni("/proc/self/fd/-1", "S", "q", out, 8, "DEF")), "-2 DEF");
}

TEST(IniFile, ReadIntConvertsOnlyPlainDigits) {
  const auto read = [](const std::string& line) {
    int out = -999;
    const int rc = ReadIntFromIni(Ini("[S]\n" + line).path().c_str(), "S", "port", out, 42);
    return std::to_string(rc) + " " + std::to_string(out);
  };
  EXPECT_EQ(read("port="), "0 0");  // empty: 0, not the default
  EXPECT_EQ(read("port=7103"), "0 7103");
  for (const char* bad : {"port=-5", "port=12a", "port=0x10", "port=\" 80\""})
    EXPECT_EQ(read(bad), "0 42") << bad;
  EXPECT_EQ(read("port=  \"080\"  "), "0 80");
  EXPECT_EQ(read("other=1"), "-1 42");
}

}  // namespace
