#include "inifile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// A private scratch directory holding the INI files of one test.
class IniFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : TOLVARIND_TEST_SCRATCH) +
                       "/inifile_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr) << tmpl;
    dir_ = tmpl;
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::string Write(const std::string& content) {
    std::string path = dir_ + "/f" + std::to_string(files_++) + ".ini";
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  std::string dir_;
  int files_ = 0;
};

struct LookupCase {
  const char* what;
  std::string content;
  const char* section;
  const char* key;
  const char* value;  // nullptr: not found (-1)
};

const LookupCase kLookups[] = {
    {"names ignore case", "[pelgrane]\nVrekPort=1\n", "Pelgrane", "VREKPORT", "1"},
    {"spaces inside brackets belong to the name", "[ Pelgrane ]\nport=1\n", "Pelgrane", "port",
     nullptr},
    {"indented header, text after the bracket ignored", "   [Pelgrane]x] ; note\nport=1\n",
     "Pelgrane", "port", "1"},
    {"empty section name", "[]\nk=v\n", "", "k", "v"},
    {"unclosed header is no header", "[S\nk=v\n", "S", "k", nullptr},
    {"inline comment ends the value", "[S]\nkey = value ; comment\n", "S", "key", "value"},
    {"comment right after equals", "[S]\nkey = #x\n", "S", "key", ""},
    {"semicolon cuts inside quotes", "[S]\nkey = \"a;b\"\n", "S", "key", "\"a"},
    {"quotes keep inner blanks", "[S]\nkey = \"  x  \"\n", "S", "key", "  x  "},
    {"only one pair of quotes goes", "[S]\nk=\"\"x\"\"\n", "S", "k", "\"x\""},
    {"lone quote is kept", "[S]\nk=\"\n", "S", "k", "\""},
    {"two-character item is no item", "[S]\na=\n", "S", "a", nullptr},
    {"three-character item", "[S]\nab=\n", "S", "ab", ""},
    {"leading equals belongs to the key", "[S]\n=x=1\n", "S", "=x", "1"},
    {"later equals belong to the value", "[S]\nk=a=b\n", "S", "k", "a=b"},
    {"key and value trimmed", "[S]\n  my key \t=\t v w  \n", "S", "my key", "v w"},
    {"first of a repeated key wins", "[S]\nk=first\nk=second\n", "S", "k", "first"},
    {"only the first matching section", "[S]\nother=1\n[s]\nk=v\n", "S", "k", nullptr},
    {"item before any header", "k=1\n[S]\nj=2\n", "S", "k", nullptr},
    {"bracketed key is an item, not a header", "[S]\n[x]=1\nk=v\n", "S", "k", "v"},
    {"comments and junk skipped", "[S]\n# k=1\n; k=2\ngarbage\n\nk=3\n", "S", "k", "3"},
    {"CRLF line ends", "[S]\r\nk=v\r\n", "S", "k", "v"},
    {"vertical tab and form feed are not whitespace", "[S]\n\vj=1\nk=\vv\f\n", "S", "k", "\vv\f"},
    {"vertical tab stays in the key", "[S]\n\vj=1\n", "S", "j", nullptr},
    // fgets sees 10239 bytes at a time: the tail of a longer line is a line of its own.
    {"tail of an overlong line", "[S]\n" + std::string(kIniLineMax - 1, 'x') + "k=v\n", "S", "k",
     "v"},
};

TEST_F(IniFileTest, LookupTable) {
  for (const auto& c : kLookups) {
    SCOPED_TRACE(c.what);
    const std::string path = Write(c.content);
    char out[kIniLineMax];
    std::memset(out, '*', sizeof out);
    ASSERT_EQ(inifile_read(path.c_str(), c.section, c.key, out, sizeof out), c.value ? 0 : -1);
    if (c.value) {
      EXPECT_STREQ(out, c.value);
    } else {
      EXPECT_EQ(out[0], '*') << "output written on failure";
    }
  }
}

TEST_F(IniFileTest, ReadStringStoresValueOrDefault) {
  const std::string missing = dir_ + "/absent.ini";
  const std::string path = Write("[S]\nq = \"  x  \"\nseven=1234567\neight=12345678\n");
  struct {
    const char* file;
    const char* key;
    int size;
    int rc;
    const char* out;
  } cases[] = {
      {path.c_str(), "q", 64, 0, "x"},  // trimmed again once the quotes are gone
      {path.c_str(), "seven", 8, 0, "1234567"},
      {path.c_str(), "eight", 8, -1, "DEF"},  // value must fit with its terminator
      {path.c_str(), "absent", 64, -1, "DEF"},
      {missing.c_str(), "q", 64, -2, "DEF"},
      {nullptr, "q", 64, -2, "DEF"},
      {path.c_str(), nullptr, 64, -2, "DEF"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key ? c.key : "(null)");
    char out[64];
    std::memset(out, '*', sizeof out);
    EXPECT_EQ(ReadStringFromIni(c.file, "S", c.key, out, c.size, "DEF"), c.rc);
    EXPECT_STREQ(out, c.out);
  }
  char out[8] = "junk";
  EXPECT_EQ(ReadStringFromIni(path.c_str(), "S", "q", out, sizeof out, nullptr), -2);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(ReadStringFromIni(path.c_str(), "S", "q", nullptr, 8, "DEF"), -2);
  EXPECT_EQ(inifile_read(path.c_str(), "S", "q", nullptr, 8), -2);
  EXPECT_EQ(inifile_read(path.c_str(), nullptr, "q", out, 8), -2);
  EXPECT_EQ(inifile_read(path.c_str(), "S", "seven", out, INT_MIN), -1);  // signed size test
}

TEST_F(IniFileTest, ReadIntConvertsOnlyPlainDigits) {
  struct {
    const char* line;
    int rc;
    int out;
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
    const std::string path = Write(std::string("[S]\n") + c.line + "\n");
    int out = -999;
    EXPECT_EQ(ReadIntFromIni(path.c_str(), "S", "port", out, 42), c.rc);
    EXPECT_EQ(out, c.out);
  }
  int out = -999;
  EXPECT_EQ(ReadIntFromIni(nullptr, "S", "port", out, 43), -2);
  EXPECT_EQ(out, 43);
}

// Line-level functions on their own: the paths a file lookup never reaches.

TEST(IniLine, TrimHalvesAndCaseFolding) {
  std::string b = " \v\t a \r\n", l = b, r = b;
  EXPECT_EQ(lrtrim(b.data()), b.data());
  EXPECT_EQ(b.c_str(), std::string("\v\t a"));
  EXPECT_EQ(ltrim(l.data()), std::string("\v\t a \r\n"));
  EXPECT_EQ(rtrim(r.data()), std::string(" \v\t a"));
  EXPECT_EQ(lrtrim(nullptr), nullptr);
  std::string u = "az{`@[\xe9";
  EXPECT_EQ(str2Upper(u.data()), std::string("AZ{`@[\xe9"));
  EXPECT_LT(str_nocase_cmp("a", "B"), 0);  // a plain strcmp says the opposite
  EXPECT_GT(str_nocase_cmp("_", "a"), 0);  // upper-cased, not lower-cased
  EXPECT_EQ(LineIsComment(nullptr), 1);
  EXPECT_EQ(LineIsComment(" \t\r\n"), 1);
  EXPECT_EQ(LineIsComment("\v#"), 0);
}

TEST(IniLine, SectionNameErrorPaths) {
  char name[8] = "keep";
  EXPECT_EQ(GetSectionName(nullptr, name, 8), -2);
  EXPECT_EQ(GetSectionName("[x]", nullptr, 8), -2);
  EXPECT_EQ(GetSectionName("[", name, 8), -1);
  EXPECT_EQ(GetSectionName("x[a]", name, 8), -1);
  EXPECT_EQ(GetSectionName("[x]", name, 0), -3);
  EXPECT_STREQ(name, "keep") << "nothing fits in a zero-sized buffer";
  EXPECT_EQ(GetSectionName("[abc]", name, 4), 0);
  EXPECT_STREQ(name, "abc");
  EXPECT_EQ(GetSectionName("[abc]", name, 3), -3);
  EXPECT_STREQ(name, "ab");
}

TEST(IniLine, ItemErrorPaths) {
  char key[8], value[4];
  EXPECT_EQ(GetItem(nullptr, key, 8, value, 4), -2);
  EXPECT_EQ(GetItem("k=v", nullptr, 8, value, 4), -2);
  EXPECT_EQ(GetItem("k=v", key, 8, nullptr, 4), -2);

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
