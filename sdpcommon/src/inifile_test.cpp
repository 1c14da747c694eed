#include "inifile.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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
  int rc;
  const char* value;  // expected output when rc == 0
};

const std::string kLongFiller(kIniLineMax - 1, 'x');

const LookupCase kLookups[] = {
    {"section name ignores case", "[pelgrane]\nport=1\n", "Pelgrane", "port", 0, "1"},
    {"key ignores case", "[S]\nVrekHttpsPort=7\n", "s", "VREKHTTPSPORT", 0, "7"},
    {"spaces inside brackets belong to the name", "[ Pelgrane ]\nport=1\n", "Pelgrane", "port",
     -1, nullptr},
    {"indented header with trailing comment", "   [Pelgrane] ; note\nport=1\n", "Pelgrane", "port",
     0, "1"},
    {"text after the bracket is ignored", "[S]junk]\nk=v\n", "S", "k", 0, "v"},
    {"empty section name", "[]\nk=v\n", "", "k", 0, "v"},
    {"unclosed header is no header", "[S\nk=v\n", "S", "k", -1, nullptr},
    {"inline comment ends the value", "[S]\nkey = value ; comment\n", "S", "key", 0, "value"},
    {"comment right after equals is empty", "[S]\nkey = #x\n", "S", "key", 0, ""},
    {"semicolon cuts inside quotes", "[S]\nkey = \"a;b\"\n", "S", "key", 0, "\"a"},
    {"quotes keep inner blanks", "[S]\nkey = \"  x  \"\n", "S", "key", 0, "  x  "},
    {"only one pair of quotes goes", "[S]\nk=\"\"x\"\"\n", "S", "k", 0, "\"x\""},
    {"lone quote is kept", "[S]\nk=\"\n", "S", "k", 0, "\""},
    {"two quotes are the empty value", "[S]\nk=\"\"\n", "S", "k", 0, ""},
    {"two-character item is no item", "[S]\na=\n", "S", "a", -1, nullptr},
    {"three-character item with empty value", "[S]\nab=\n", "S", "ab", 0, ""},
    {"leading equals belongs to the key", "[S]\n=x=1\n", "S", "=x", 0, "1"},
    {"later equals belong to the value", "[S]\nk=a=b\n", "S", "k", 0, "a=b"},
    {"key and value are trimmed", "[S]\n  my key \t=\t v w  \n", "S", "my key", 0, "v w"},
    {"first of a repeated key wins", "[S]\nk=first\nk=second\n", "S", "k", 0, "first"},
    {"only the first matching section is searched", "[S]\nother=1\n[s]\nk=v\n", "S", "k", -1,
     nullptr},
    {"item before any header is never found", "k=1\n[S]\nj=2\n", "S", "k", -1, nullptr},
    {"next header ends the section", "[S]\n[T]\nk=v\n", "S", "k", -1, nullptr},
    {"bracketed key is an item, not a header", "[S]\n[x]=1\nk=v\n", "S", "k", 0, "v"},
    {"bracketed key is found as a key", "[S]\n[x]=1\n", "S", "[X]", 0, "1"},
    {"comments and junk inside a section are skipped", "[S]\n# k=1\n; k=2\ngarbage\n\nk=3\n", "S",
     "k", 0, "3"},
    {"CRLF line ends", "[S]\r\nk=v\r\n", "S", "k", 0, "v"},
    {"vertical tab is not whitespace", "[S]\nk=\vv\f\n", "S", "k", 0, "\vv\f"},
    {"vertical tab stays in the key", "[S]\n\vk=v\n", "S", "k", -1, nullptr},
    {"last line without a line feed", "[S]\nk=v", "S", "k", 0, "v"},
    {"missing section", "[S]\nk=v\n", "T", "k", -1, nullptr},
    {"empty file", "", "S", "k", -1, nullptr},
    // fgets sees 10239 bytes at a time, so the tail of a longer line is a line of its own.
    {"tail of an overlong line is read as the next line", "[S]\n" + kLongFiller + "k=v\n", "S", "k",
     0, "v"},
};

TEST_F(IniFileTest, LookupTable) {
  for (const auto& c : kLookups) {
    SCOPED_TRACE(c.what);
    const std::string path = Write(c.content);
    char out[kIniLineMax];
    std::memset(out, '*', sizeof out);
    ASSERT_EQ(inifile_read(path.c_str(), c.section, c.key, out, sizeof out), c.rc);
    if (c.rc == 0) {
      EXPECT_STREQ(out, c.value);
    } else {
      EXPECT_EQ(out[0], '*') << "output written on failure";
    }
  }
}

TEST_F(IniFileTest, ValueMustFitWithItsTerminator) {
  const std::string path = Write("[S]\nk=12345\nempty=\n");
  struct {
    int size;
    const char* key;
    int rc;
  } cases[] = {{6, "k", 0}, {5, "k", -1}, {1, "empty", 0}, {0, "empty", -1}, {-1, "empty", -1},
               {INT_MIN, "k", -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    char out[16] = "untouched";
    EXPECT_EQ(inifile_read(path.c_str(), "S", c.key, out, c.size), c.rc);
    if (c.rc != 0) {
      EXPECT_STREQ(out, "untouched");
    }
  }
}

TEST_F(IniFileTest, MissingFileAndNullArgumentsGiveMinusTwo) {
  const std::string path = Write("[S]\nk=v\n");
  const std::string missing = dir_ + "/absent.ini";
  char out[32];
  EXPECT_EQ(inifile_read(missing.c_str(), "S", "k", out, sizeof out), -2);
  EXPECT_EQ(inifile_read(nullptr, "S", "k", out, sizeof out), -2);
  EXPECT_EQ(inifile_read(path.c_str(), nullptr, "k", out, sizeof out), -2);
  EXPECT_EQ(inifile_read(path.c_str(), "S", nullptr, out, sizeof out), -2);
  EXPECT_EQ(inifile_read(path.c_str(), "S", "k", nullptr, sizeof out), -2);
}

TEST_F(IniFileTest, ReadStringStoresValueOrDefault) {
  const std::string missing = dir_ + "/absent.ini";
  const std::string path = Write(
      "[S]\nq = \"  x  \"\nseven=1234567\neight=12345678\nempty=\n[Pelgrane]\nv=Mixed Case\n");
  struct {
    const char* file;
    const char* section;
    const char* key;
    int size;
    int rc;
    const char* out;
  } cases[] = {
      {path.c_str(), "S", "q", 64, 0, "x"},  // trimmed again once the quotes are gone
      {path.c_str(), "S", "seven", 8, 0, "1234567"},
      {path.c_str(), "S", "eight", 8, -1, "DEF"},
      {path.c_str(), "S", "empty", 8, 0, ""},
      {path.c_str(), "pelgrane", "V", 64, 0, "Mixed Case"},
      {path.c_str(), "S", "absent", 64, -1, "DEF"},
      {path.c_str(), "T", "q", 64, -1, "DEF"},
      {missing.c_str(), "S", "q", 64, -2, "DEF"},
      {nullptr, "S", "q", 64, -2, "DEF"},
      {path.c_str(), nullptr, "q", 64, -2, "DEF"},
      {path.c_str(), "S", nullptr, 64, -2, "DEF"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key != nullptr ? c.key : "(null key)");
    char out[64];
    std::memset(out, '*', sizeof out);
    EXPECT_EQ(ReadStringFromIni(c.file, c.section, c.key, out, c.size, "DEF"), c.rc);
    EXPECT_STREQ(out, c.out);
  }
}

TEST_F(IniFileTest, ReadStringRejectsNullOutputAndDefault) {
  const std::string path = Write("[S]\nk=v\n");
  EXPECT_EQ(ReadStringFromIni(path.c_str(), "S", "k", nullptr, 8, "DEF"), -2);
  char out[8] = "junk";
  EXPECT_EQ(ReadStringFromIni(path.c_str(), "S", "k", out, sizeof out, nullptr), -2);
  EXPECT_STREQ(out, "");
}

TEST_F(IniFileTest, ReadIntConvertsOnlyPlainDigits) {
  struct {
    const char* line;
    int rc;
    int out;
  } cases[] = {
      {"port=7103", 0, 7103},
      {"port=", 0, 0},  // empty: 0, not the default
      {"port=-5", 0, 42},
      {"port=+5", 0, 42},
      {"port=12a", 0, 42},
      {"port=0x10", 0, 42},
      {"port=1 2", 0, 42},
      {"port=  15  ", 0, 15},
      {"port=\"80\"", 0, 80},
      {"port=\" 80\"", 0, 42},
      {"port=007", 0, 7},
      {"port=4294967297", 0, 1},
      {"port=2147483648", 0, INT_MIN},
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
  EXPECT_EQ(ReadIntFromIni((dir_ + "/absent.ini").c_str(), "S", "port", out, 42), -2);
  EXPECT_EQ(out, 42);
  out = -999;
  EXPECT_EQ(ReadIntFromIni(nullptr, "S", "port", out, 43), -2);
  EXPECT_EQ(out, 43);
}

int OpenDescriptorCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d) != nullptr) ++n;
    closedir(d);
  }
  return n;
}

TEST_F(IniFileTest, ClosesTheFileOnEveryPath) {
  const std::string path = Write("[S]\nk=12345\n[T]\n");
  const int before = OpenDescriptorCount();
  char out[4];
  for (int i = 0; i < 20; ++i) {
    inifile_read(path.c_str(), "S", "k", out, 2);        // too long
    inifile_read(path.c_str(), "S", "absent", out, 4);   // next header
    inifile_read(path.c_str(), "T", "absent", out, 4);   // end of file in section
    inifile_read(path.c_str(), "U", "k", out, 4);        // no section
    inifile_read(path.c_str(), "S", "k", out, 0);        // size 0
  }
  char big[16];
  ASSERT_EQ(inifile_read(path.c_str(), "S", "k", big, sizeof big), 0);
  EXPECT_EQ(OpenDescriptorCount(), before);
}

// Line-level functions: pure, tested without files.

TEST(IniTrim, TrimsExactlyTheFourWhitespaceCharacters) {
  struct {
    const char* in;
    const char* both;
    const char* left;
    const char* right;
  } cases[] = {
      {" \t a b \r\n", "a b", "a b \r\n", " \t a b"},
      {" \t\r\n ", "", "", ""},
      {"", "", "", ""},
      {"x", "x", "x", "x"},
      {"\va\f", "\va\f", "\va\f", "\va\f"},
      {" \v ", "\v", "\v ", " \v"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    std::string b = c.in, l = c.in, r = c.in;
    EXPECT_EQ(lrtrim(b.data()), b.data());
    EXPECT_EQ(ltrim(l.data()), l.data());
    EXPECT_EQ(rtrim(r.data()), r.data());
    EXPECT_STREQ(b.c_str(), c.both);
    EXPECT_STREQ(l.c_str(), c.left);
    EXPECT_STREQ(r.c_str(), c.right);
  }
  EXPECT_EQ(lrtrim(nullptr), nullptr);
  EXPECT_EQ(ltrim(nullptr), nullptr);
  EXPECT_EQ(rtrim(nullptr), nullptr);
}

TEST(IniCase, UpperCasesAsciiLettersOnly) {
  std::string s = "az{`@[AZ09\xe9\xc3\xa9";
  EXPECT_EQ(str2Upper(s.data()), s.data());
  EXPECT_EQ(s, "AZ{`@[AZ09\xe9\xc3\xa9");
  EXPECT_EQ(str2Upper(nullptr), nullptr);
}

TEST(IniCase, ComparesUpperCasedCopies) {
  EXPECT_EQ(str_nocase_cmp("Pelgrane", "pELGRANE"), 0);
  EXPECT_EQ(str_nocase_cmp("", ""), 0);
  EXPECT_LT(str_nocase_cmp("a", "B"), 0);   // a plain strcmp says the opposite
  EXPECT_GT(str_nocase_cmp("_", "a"), 0);   // upper-cased, not lower-cased
  EXPECT_LT(str_nocase_cmp("ab", "ABC"), 0);
  const char arg[] = "keep";
  str_nocase_cmp(arg, "x");
  EXPECT_STREQ(arg, "keep");
}

TEST(IniLine, RecognisesCommentAndBlankLines) {
  struct {
    const char* line;
    int rc;
  } cases[] = {{"", 1},     {" \t\r\n", 1}, {"# x", 1},   {"  ;x", 1},
               {"x # y", 0}, {"\v#", 0},     {"[S]", 0},   {"k=v", 0}};
  for (const auto& c : cases) EXPECT_EQ(LineIsComment(c.line), c.rc) << '"' << c.line << '"';
  EXPECT_EQ(LineIsComment(nullptr), 1);
}

TEST(IniLine, ParsesSectionHeaders) {
  struct {
    const char* line;
    unsigned long size;
    int rc;
    const char* name;
  } cases[] = {
      {"[abc]", 16, 0, "abc"},   {"  [ab] ; x\r\n", 16, 0, "ab"}, {"[a]b]", 16, 0, "a"},
      {"[]", 16, 0, ""},         {"[abc]", 4, 0, "abc"},          {"[abc]", 3, -3, "ab"},
      {"[abc]", 1, -3, ""},      {"[", 16, -1, nullptr},          {"[abc", 16, -1, nullptr},
      {"abc]", 16, -1, nullptr}, {"", 16, -1, nullptr},           {"#[a]", 16, -1, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.line) + " size " + std::to_string(c.size));
    char name[16];
    std::memset(name, '*', sizeof name);
    ASSERT_EQ(GetSectionName(c.line, name, c.size), c.rc);
    if (c.name != nullptr) {
      EXPECT_STREQ(name, c.name);
    }
    if (c.rc == -1) {
      EXPECT_EQ(name[0], '*');
    }
  }
  char name[4] = "abc";
  EXPECT_EQ(GetSectionName("[x]", name, 0), -3);
  EXPECT_STREQ(name, "abc") << "nothing fits in a zero-sized buffer";
  EXPECT_EQ(GetSectionName(nullptr, name, 4), -2);
  EXPECT_EQ(GetSectionName("[x]", nullptr, 4), -2);
}

TEST(IniLine, ParsesItems) {
  struct {
    const char* line;
    int rc;
    const char* key;
    const char* value;
  } cases[] = {
      {"k=v", 0, "k", "v"},          {" key = a b ;c", 0, "key", "a b"},
      {"ab=", 0, "ab", ""},          {"ab", -1, nullptr, nullptr},
      {"a=", -1, nullptr, nullptr},  {"=ab", -1, nullptr, nullptr},
      {"#k=v", -1, nullptr, nullptr}, {";k=v", -1, nullptr, nullptr},
      {"  \t ", -1, nullptr, nullptr}, {"k=\"", 0, "k", "\""},
      {"[x]=1", 0, "[x]", "1"},      {"k=;", 0, "k", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    char key[32], value[32];
    ASSERT_EQ(GetItem(c.line, key, sizeof key, value, sizeof value), c.rc);
    if (c.rc == 0) {
      EXPECT_STREQ(key, c.key);
      EXPECT_STREQ(value, c.value);
    }
  }
}

TEST(IniLine, RejectsNullArgumentsAndOverlongLines) {
  char key[8], value[8];
  EXPECT_EQ(GetItem(nullptr, key, 8, value, 8), -2);
  EXPECT_EQ(GetItem("k=v", nullptr, 8, value, 8), -2);
  EXPECT_EQ(GetItem("k=v", key, 8, nullptr, 8), -2);

  std::string line = "k=" + std::string(kIniLineMax - 3, 'v');  // exactly fills the buffer
  std::vector<char> big(kIniLineMax);
  EXPECT_EQ(GetItem(line.c_str(), key, sizeof key, big.data(), big.size()), 0);
  EXPECT_EQ(std::strlen(big.data()), static_cast<size_t>(kIniLineMax - 3));
  line += 'v';
  EXPECT_EQ(GetItem(line.c_str(), key, sizeof key, big.data(), big.size()), -1);
}

TEST(IniLine, OverlongKeyIsCopiedUnterminated) {
  char key[8];
  char value[8];
  std::memset(key, '*', sizeof key);
  EXPECT_EQ(GetItem("abcd=1", key, 4, value, sizeof value), -1);
  EXPECT_EQ(std::string(key, 5), "abcd*");

  std::memset(key, '*', sizeof key);
  EXPECT_EQ(GetItem("abc=1", key, 4, value, sizeof value), 0);
  EXPECT_STREQ(key, "abc");

  // The size is compared as a signed 32-bit value: one that wraps to 3 rejects
  // a 4-character key however large it really is.
  std::memset(key, '*', sizeof key);
  const unsigned long wraps_to_three = (1UL << 32) + 3;
  EXPECT_EQ(GetItem("abcd=1", key, wraps_to_three, value, sizeof value), -1);
  EXPECT_STREQ(key, "abcd");
}

TEST(IniLine, OverlongValueLandsInTheKeyBuffer) {
  char key[16];
  char value[4];
  std::memset(value, '*', sizeof value);
  EXPECT_EQ(GetItem("k = \"hello\"", key, sizeof key, value, sizeof value), -3);
  EXPECT_STREQ(key, "hello");
  EXPECT_EQ(value[0], '*');

  std::memset(key, '*', sizeof key);
  EXPECT_EQ(GetItem("k=hello", key, 3, value, sizeof value), -3);
  EXPECT_EQ(std::string(key, 4), "hel*");

  EXPECT_EQ(GetItem("k=abc", key, sizeof key, value, sizeof value), 0);
  EXPECT_STREQ(value, "abc");
}

}  // namespace
