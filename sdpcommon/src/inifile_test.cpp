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

TEST(IniFile, LookupTable) {
  // Each file is searched for `key` in section "S"; a null value means -1, `out` untouched.
  const struct {
    std::string content;
    const char* key;
    const char* value;
  } cases[] = {
      {"[s]\nK=1\n", "k", "1"},  // names ignore case
      {"[ S ]\nk=1\n", "k", nullptr},
      {"   [S]x] ; note\nk=1\n", "k", "1"},  // text after the bracket ignored
      {"[S\nk=v\n", "k", nullptr},
      {"[S]\nk = value ; comment\n", "k", "value"},
      {"[S]\nk = #x\n", "k", ""},
      {"[S]\nk = \"a;b\"\n", "k", "\"a"},  // the comment cuts inside quotes
      {"[S]\nk = \"  x  \"\n", "k", "  x  "},
      {"[S]\nk=\"\"x\"\"\n", "k", "\"x\""},  // one pair of quotes goes
      {"[S]\nk=\"\n", "k", "\""},            // a lone quote stays
      {"[S]\na=\n", "a", nullptr},           // two characters are no item
      {"[S]\nab=\n", "ab", ""},
      {"[S]\n=x=1\n", "=x", "1"},
      {"[S]\nk=a=b\n", "k", "a=b"},
      {"[S]\n  my key \t=\t v w  \n", "my key", "v w"},
      {"[S]\nk=first\nk=second\n", "k", "first"},
      {"[S]\nother=1\n[s]\nk=v\n", "k", nullptr},  // only the first matching section
      {"k=1\n[S]\nj=2\n", "k", nullptr},
      {"[S]\n[x]=1\nk=v\n", "k", "v"},  // an item, not a header
      {"[S]\n# k=1\n; k=2\ngarbage\n\nk=3\n", "k", "3"},
      {"[S]\r\nk=v\r\n", "k", "v"},
      {"[S]\n\vk=1\nk=\vv\f\n", "k", "\vv\f"},  // vertical tab and form feed are no blanks
      // Read 10239 bytes at a time: the tail of a longer line is a line of its own.
      {"[S]\n" + std::string(kIniLineMax - 1, 'x') + "k=v\n", "k", "v"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 40));
    char out[kIniLineMax];
    std::memset(out, '*', sizeof out);
    ASSERT_EQ(inifile_read(Ini(c.content).path().c_str(), "S", c.key, out, sizeof out),
              c.value ? 0 : -1);
    EXPECT_EQ(c.value ? std::string(out) : std::string(1, out[0]), c.value ? c.value : "*");
  }
}

TEST(IniFile, ReadStringStoresValueOrDefault) {
  const Ini ini("[S]\nq = \"  x  \"\nseven=1234567\neight=12345678\n");
  const struct {
    std::string file;
    const char* key;
    int size, rc;
    const char* out;
  } cases[] = {
      {ini.path(), "q", 64, 0, "x"},  // trimmed again once the quotes are gone
      {ini.path(), "seven", 8, 0, "1234567"},
      {ini.path(), "eight", 8, -1, "DEF"},  // the value must fit with its terminator
      {ini.path(), "absent", 64, -1, "DEF"},
      {"/proc/self/fd/-1", "q", 64, -2, "DEF"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    char out[64];
    std::memset(out, '*', sizeof out);
    EXPECT_EQ(ReadStringFromIni(c.file.c_str(), "S", c.key, out, c.size, "DEF"), c.rc);
    EXPECT_STREQ(out, c.out);
  }
  char out[8];
  EXPECT_EQ(inifile_read(ini.path().c_str(), "S", "seven", out, INT_MIN), -1);  // a signed size
}

TEST(IniFile, NullArgumentsGiveMinusTwo) {
  const Ini ini("[S]\nq=1\n");
  const std::string path = ini.path();
  const char* p = path.c_str();
  char out[8] = "junk", b[4];
  int n = 7;
  EXPECT_EQ(inifile_read(nullptr, "S", "q", out, 8), -2);
  EXPECT_EQ(inifile_read(p, nullptr, "q", out, 8), -2);
  EXPECT_EQ(inifile_read(p, "S", nullptr, out, 8), -2);
  EXPECT_EQ(inifile_read(p, "S", "q", nullptr, 8), -2);
  EXPECT_EQ(ReadStringFromIni(p, "S", "q", nullptr, 8, "DEF"), -2);
  EXPECT_EQ(ReadStringFromIni(p, "S", "q", out, 8, nullptr), -2);
  EXPECT_STREQ(out, "") << "with no default, emptied";
  EXPECT_EQ(ReadStringFromIni(nullptr, "S", "q", out, 8, "DEF"), -2);
  EXPECT_STREQ(out, "DEF");
  EXPECT_EQ(ReadIntFromIni(nullptr, "S", "q", n, 43), -2);
  EXPECT_EQ(n, 43);
  EXPECT_EQ(lrtrim(nullptr), nullptr);
  EXPECT_EQ(LineIsComment(nullptr), 1);
  EXPECT_EQ(GetSectionName(nullptr, out, 8), -2);
  EXPECT_EQ(GetSectionName("[x]", nullptr, 8), -2);
  EXPECT_EQ(GetItem(nullptr, out, 8, b, 4), -2);
  EXPECT_EQ(GetItem("k=v", nullptr, 8, b, 4), -2);
  EXPECT_EQ(GetItem("k=v", out, 8, nullptr, 4), -2);
}

TEST(IniFile, ReadIntConvertsOnlyPlainDigits) {
  const struct {
    const char* line;
    int rc, out;
  } cases[] = {
      {"port=", 0, 0},  // empty: 0, not the default
      {"port=7103", 0, 7103},    {"port=-5", 0, 42},
      {"port=12a", 0, 42},       {"port=0x10", 0, 42},
      {"port=\" 80\"", 0, 42},   {"port=  \"080\"  ", 0, 80},
      {"port=4294967297", 0, 1}, {"port=2147483648", 0, INT_MIN},
      {"other=1", -1, 42},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    int out = -999;
    EXPECT_EQ(
        ReadIntFromIni(Ini(std::string("[S]\n") + c.line).path().c_str(), "S", "port", out, 42),
        c.rc);
    EXPECT_EQ(out, c.out);
  }
}

// Line-level functions on their own: the paths a file lookup never reaches.

TEST(IniLine, SectionNameFitsItsBuffer) {
  const struct {
    const char* line;
    unsigned long size;
    int rc;
    const char* name;
  } cases[] = {{"[", 8, -1, "keep"},   {"x[a]", 8, -1, "keep"}, {"[x]", 0, -3, "keep"},
               {"[abc]", 4, 0, "abc"}, {"[abc]", 3, -3, "ab"},  {"[]", 8, 0, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    char name[8] = "keep";
    EXPECT_EQ(GetSectionName(c.line, name, c.size), c.rc);
    EXPECT_STREQ(name, c.name);
  }
}

TEST(IniLine, ItemFitsItsBuffers) {
  char key[8], value[4];
  std::string line = "k=" + std::string(kIniLineMax - 3, 'v');  // fills the buffer exactly
  std::string big(kIniLineMax, '\0');
  EXPECT_EQ(GetItem(line.c_str(), key, 8, big.data(), big.size()), 0);
  EXPECT_EQ(GetItem((line + "v").c_str(), key, 8, big.data(), big.size()), -1);

  // An overlong key is copied without its terminator.
  std::memset(key, '*', sizeof key);
  EXPECT_EQ(GetItem("abcd=1", key, 4, value, 4), -1);
  EXPECT_EQ(std::string(key, 5), "abcd*");
  // Sizes compare as signed 32-bit values: one that wraps to 3 rejects a 4-character key.
  EXPECT_EQ(GetItem("abcd=1", key, (1UL << 32) + 3, value, 4), -1);

  // An overlong value lands in the key buffer, deliberately.
  std::memset(value, '*', sizeof value);
  EXPECT_EQ(GetItem("k = \"hello\"", key, sizeof key, value, sizeof value), -3);
  EXPECT_STREQ(key, "hello");
  EXPECT_EQ(value[0], '*');
  EXPECT_EQ(GetItem("k=abc", key, sizeof key, value, sizeof value), 0);
  EXPECT_STREQ(value, "abc");
}

}  // namespace
