#include "inifile.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

using namespace std::string_literals;

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
  EXPECT_EQ(Find("[s]\nK=1\n", "k"), "1");              // names ignore case
  EXPECT_EQ(Find("   [S]x] ; note\nk=1\n", "k"), "1");  // text after the bracket ignored
  EXPECT_EQ(Find("[S\nk=v\n", "k"), "<-1*>");
  EXPECT_EQ(Find("[S]\nk = value ; comment\n", "k"), "value");
  EXPECT_EQ(Find("[S]\nk = \"a;b\"\n", "k"), "\"a");    // the comment cuts inside quotes
  EXPECT_EQ(Find("[S]\nk=\"\"x\"\"\n", "k"), "\"x\"");  // one pair of quotes goes
  EXPECT_EQ(Find("[S]\nk=\"\n", "k"), "\"");            // a lone quote stays
  EXPECT_EQ(Find("[S]\na=\n", "a"), "<-1*>");           // two characters are no item
  EXPECT_EQ(Find("[S]\nab=\n", "ab"), "");
  EXPECT_EQ(Find("[S]\n=x=1\n", "=x"), "1");
  EXPECT_EQ(Find("[S]\n  my key \t=\t v w  \n", "my key"), "v w");
  EXPECT_EQ(Find("[S]\nk=first\nk=second\n", "k"), "first");
  EXPECT_EQ(Find("[S]\nother=1\n[s]\nk=v\n", "k"), "<-1*>");  // only the first section
  EXPECT_EQ(Find("[S]\n[x]=1\nk=v\n", "k"), "v");             // an item, not a header
  EXPECT_EQ(Find("[S]\n# k=1\n; k=2\ngarbage\n\nk=3\n", "k"), "3");
  EXPECT_EQ(Find("[S]\r\nk=v\r\n", "k"), "v");
  EXPECT_EQ(Find("[S]\n\vk=1\nk=\vv\f\n", "k"), "\vv\f");  // vertical tab, form feed: no blanks
  // Read 10239 bytes at a time: the tail of a longer line is a line of its own.
  EXPECT_EQ(Find("[S]\n" + std::string(kIniLineMax - 1, 'x') + "k=v\n", "k"), "v");
  // The value must fit with its terminator; a size is signed.
  EXPECT_EQ(Find("[S]\nk=1234567\n", "k", 8), "1234567");
  EXPECT_EQ(Find("[S]\nk=12345678\n", "k", 8), "<-1*>");
  EXPECT_EQ(Find("[S]\nk=1\n", "k", INT_MIN), "<-1*>");
}

TEST(IniFile, ReadStringTrimsOrStoresTheDefaultAndNullArgumentsGiveMinusTwo) {
  const Ini ini("[S]\nq = \"  x  \"\nseven=1234567\n");
  const std::string path = ini.path();
  const char* p = path.c_str();
  char out[8] = "junk", b[4];
  const auto got = [&](int rc) { return std::to_string(rc) + " " + out; };
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "q", out, 8, "DEF")), "0 x");  // trimmed again
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "seven", out, 7, "DEF")), "-1 DEF");
  EXPECT_EQ(got(ReadStringFromIni(p, "S", "q", out, 8, nullptr)), "-2 ");  // emptied
  EXPECT_EQ(got(ReadStringFromIni("/proc/self/fd/-1", "S", "q", out, 8, "DEF")), "-2 DEF");
  int n = 7;
  EXPECT_EQ(lrtrim(nullptr), nullptr);
  EXPECT_EQ(LineIsComment(nullptr), 1);
  EXPECT_EQ((std::vector<int>{
                inifile_read(nullptr, "S", "q", out, 8), inifile_read(p, nullptr, "q", out, 8),
                inifile_read(p, "S", nullptr, out, 8), inifile_read(p, "S", "q", nullptr, 8),
                ReadStringFromIni(p, "S", "q", nullptr, 8, "DEF"), GetSectionName(nullptr, out, 8),
                GetSectionName("[x]", nullptr, 8), GetItem(nullptr, out, 8, b, 4),
                GetItem("k=v", nullptr, 8, b, 4), GetItem("k=v", out, 8, nullptr, 4),
                ReadIntFromIni(nullptr, "S", "q", n, 43)}),
            std::vector<int>(11, -2));
  EXPECT_EQ(n, 43);
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
  EXPECT_EQ(read("port=4294967297"), "0 1");  // kept to the low 32 bits
  EXPECT_EQ(read("port=2147483648"), "0 " + std::to_string(INT_MIN));
  EXPECT_EQ(read("other=1"), "-1 42");
}

// Line-level functions on their own: the paths a file lookup never reaches.
TEST(IniLine, SectionNameAndItemFitTheirBuffers) {
  const auto section = [](const char* line, unsigned long size) {
    char name[8] = "keep";
    return std::to_string(GetSectionName(line, name, size)) + " " + name;
  };
  EXPECT_EQ(section("[", 8), "-1 keep");
  EXPECT_EQ(section("x[a]", 8), "-1 keep");
  EXPECT_EQ(section("[x]", 0), "-3 keep");
  EXPECT_EQ(section("[abc]", 4), "0 abc");
  EXPECT_EQ(section("[abc]", 3), "-3 ab");
  EXPECT_EQ(section("[]", 8), "0 ");

  char key[8], value[4];
  const auto item = [&](const char* line, unsigned long keySize) {
    std::memset(key, '*', sizeof key);
    std::memset(value, '*', sizeof value);
    const int rc = GetItem(line, key, keySize, value, sizeof value);
    return std::to_string(rc) + " " + std::string(key, 5) + " " + std::string(value, 4);
  };
  EXPECT_EQ(item("k=abc", 8), "0 k\0*** abc\0"s);
  // An overlong key is copied without its terminator; sizes compare as signed 32-bit values,
  // so one that wraps to 3 rejects a 4-character key.
  EXPECT_EQ(item("abcd=1", 4), "-1 abcd* ****");
  EXPECT_EQ(item("abcd=1", (1UL << 32) + 3), "-1 abcd\0 ****"s);
  // An overlong value lands in the key buffer, deliberately.
  EXPECT_EQ(item("k = \"hello\"", 8), "-3 hello ****");
  std::string line = "k=" + std::string(kIniLineMax - 3, 'v');  // fills the buffer exactly
  std::string big(kIniLineMax, '\0');
  EXPECT_EQ(GetItem(line.c_str(), key, 8, big.data(), big.size()), 0);
  EXPECT_EQ(GetItem((line + "v").c_str(), key, 8, big.data(), big.size()), -1);
}

}  // namespace
