// INI-style configuration reader. See inifile.h for the contract; the grammar
// and the deliberate quirks are described in docs/ini-and-process-helpers.md.
#include "inifile.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "unique_fd.h"
#include <vector>

namespace {

// Exactly these four; vertical tab and form feed are ordinary characters.
bool IsIniSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool IsCommentChar(char c) { return c == '#' || c == ';'; }

// Copies at most kIniLineMax - 1 bytes of `src` into `dst` (kIniLineMax
// bytes), so the working copy is always terminated. Only the string is
// written: every line of a file passes through here several times, and
// clearing the whole buffer each time made a lookup cost grow with the buffer
// size instead of the line length.
void CopyToWork(char* dst, const char* src) {
  const size_t n = strnlen(src, kIniLineMax - 1);
  std::memcpy(dst, src, n);
  dst[n] = '\0';
}

using util::UniqueFile;

}  // namespace

char* ltrim(char* s) {
  if (s == nullptr || *s == '\0') return s;
  const char* p = s;
  while (*p != '\0' && IsIniSpace(*p)) ++p;
  if (p != s) std::memmove(s, p, std::strlen(p) + 1);
  return s;
}

char* rtrim(char* s) {
  if (s == nullptr || *s == '\0') return s;
  char* end = s + std::strlen(s);
  while (end > s && IsIniSpace(end[-1])) --end;
  *end = '\0';
  return s;
}

char* lrtrim(char* s) {
  if (s == nullptr || *s == '\0') return s;
  ltrim(s);
  if (*s == '\0') return s;
  return rtrim(s);
}

char* str2Upper(char* s) {
  if (s == nullptr) return s;
  for (char* p = s; *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 32);
  }
  return s;
}

int str_nocase_cmp(const char* a, const char* b) {
  // Zero-filled heap copies, freed on return.
  std::vector<char> ua(std::strlen(a) + 1, '\0');
  std::vector<char> ub(std::strlen(b) + 1, '\0');
  std::memcpy(ua.data(), a, ua.size() - 1);
  std::memcpy(ub.data(), b, ub.size() - 1);
  return std::strcmp(str2Upper(ua.data()), str2Upper(ub.data()));
}

int LineIsComment(const char* line) {
  if (line == nullptr) return 1;
  char buf[kIniLineMax];
  CopyToWork(buf, line);
  lrtrim(buf);
  return (buf[0] == '\0' || IsCommentChar(buf[0])) ? 1 : 0;
}

int GetSectionName(const char* line, char* name, unsigned long size) {
  if (line == nullptr || name == nullptr) return -2;
  char buf[kIniLineMax];
  CopyToWork(buf, line);
  lrtrim(buf);
  if (buf[0] != '[' || buf[1] == '\0') return -1;
  const char* close = std::strchr(buf + 1, ']');
  if (close == nullptr) return -1;
  const unsigned long n = static_cast<unsigned long>(close - (buf + 1));
  if (n + 1 > size) {
    // A zero-sized buffer cannot even hold the terminator: leave it alone.
    if (size == 0) return -3;
    std::memcpy(name, buf + 1, size - 1);
    name[size - 1] = '\0';
    return -3;
  }
  std::memcpy(name, buf + 1, n);
  name[n] = '\0';
  return 0;
}

int GetItem(const char* line, char* key, unsigned long keySize, char* value,
            unsigned long valueSize) {
  if (line == nullptr || key == nullptr || value == nullptr) return -2;
  if (std::strlen(line) + 1 > static_cast<size_t>(kIniLineMax)) return -1;

  char buf[kIniLineMax];
  CopyToWork(buf, line);
  lrtrim(buf);
  if (std::strlen(buf) < 3 || LineIsComment(buf)) return -1;

  // The first character is never the separator, so "=x=1" has the key "=x".
  char* eq = std::strchr(buf + 1, '=');
  if (eq == nullptr) return -1;

  char keyBuf[kIniLineMax];
  std::memcpy(keyBuf, buf, static_cast<size_t>(eq - buf));
  keyBuf[eq - buf] = '\0';
  lrtrim(keyBuf);
  // Signed 32-bit comparison on purpose: an absurd size that wraps negative
  // (or to something small) rejects the key instead of trusting the buffer.
  if (static_cast<int>(std::strlen(keyBuf)) >= static_cast<int>(keySize)) {
    // Deliberately unterminated when the key fills the buffer.
    std::memcpy(key, keyBuf, std::min<unsigned long>(keySize, std::strlen(keyBuf) + 1));
    return -1;
  }
  std::strcpy(key, keyBuf);

  // An inline comment ends every value, also inside quotes.
  char valBuf[kIniLineMax];
  const char* v = eq + 1;
  const size_t vlen = std::strcspn(v, "#;");
  std::memcpy(valBuf, v, vlen);
  valBuf[vlen] = '\0';
  lrtrim(valBuf);

  // One pair of enclosing double quotes is dropped. A lone quote is not a
  // pair (one character cannot open and close), so it is kept as the value.
  size_t len = std::strlen(valBuf);
  if (len >= 2 && valBuf[0] == '"' && valBuf[len - 1] == '"') {
    std::memmove(valBuf, valBuf + 1, len - 2);
    valBuf[len - 2] = '\0';
    len -= 2;
  }

  if (len + 1 > valueSize) {
    // Deliberate: the value text lands in the key buffer, not the value buffer.
    std::memcpy(key, valBuf, std::min<unsigned long>(keySize, len + 1));
    return -3;
  }
  std::memcpy(value, valBuf, len + 1);
  return 0;
}

int inifile_read(const char* file, const char* section, const char* key, char* out, int size) {
  if (file == nullptr || section == nullptr || key == nullptr || out == nullptr) return -2;
  UniqueFile fp(std::fopen(file, "re"));
  if (!fp) return -2;

  char line[kIniLineMax];
  char name[kIniLineMax];
  char value[kIniLineMax];

  // Only the first header that matches is searched; items before it, and
  // later repetitions of the same section, are never looked at.
  bool inSection = false;
  // fgets, GetSectionName and GetItem each leave a terminated string (or
  // report failure), so the buffers are not cleared for every line.
  while (!inSection) {
    if (std::fgets(line, sizeof line, fp.get()) == nullptr) return -1;
    inSection = GetSectionName(line, name, sizeof name) == 0 && str_nocase_cmp(name, section) == 0;
  }

  for (;;) {
    if (std::fgets(line, sizeof line, fp.get()) == nullptr) return -1;
    // Tested as an item first: "[x]=1" inside a section is the key "[x]".
    if (GetItem(line, name, sizeof name, value, sizeof value) == 0) {
      if (str_nocase_cmp(name, key) != 0) continue;
      const int need = static_cast<int>(std::strlen(value)) + 1;
      if (need > size) return -1;
      std::memcpy(out, value, static_cast<size_t>(need));
      return 0;
    }
    if (GetSectionName(line, name, sizeof name) == 0) return -1;
  }
}

int ReadStringFromIni(const char* file, const char* section, const char* key, char* out, int size,
                      const char* def) {
  if (out == nullptr) return -2;
  if (def == nullptr) {
    // No default to store: the output is left empty and the call rejected.
    *out = '\0';
    return -2;
  }
  char buf[kIniLineMax];
  std::memset(buf, 0, sizeof buf);
  const int rc = inifile_read(file, section, key, buf, size);
  if (rc != 0) {
    std::strcpy(out, def);
  } else {
    std::strcpy(out, lrtrim(buf));
  }
  return rc;
}

int ReadIntFromIni(const char* file, const char* section, const char* key, int& out, int def) {
  char buf[kIniLineMax];
  std::memset(buf, 0, sizeof buf);
  const int rc = inifile_read(file, section, key, buf, kIniLineMax);
  if (rc != 0) {
    out = def;
    return rc;
  }
  if (buf[0] == '\0') {
    out = 0;  // an empty value reads as 0, not as the default
    return 0;
  }
  for (const char* p = buf; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') {
      out = def;  // signs, blanks, hex prefixes: default, yet still found
      return 0;
    }
  }
  // Kept to the low 32 bits: "4294967297" reads as 1.
  out = static_cast<int>(static_cast<unsigned int>(std::strtol(buf, nullptr, 10)));
  return 0;
}
