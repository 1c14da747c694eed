// INI-style configuration reader: free functions over NUL-terminated byte
// strings with fixed 10240-byte working buffers, no logging, no global state.
// Every lookup opens, scans and closes the file; nothing is cached, so callers
// on several threads may use it at once.
#pragma once

#include <cstddef>

// Size of every internal buffer; a longer physical line is read in pieces.
constexpr int kIniLineMax = 10240;

// Looks up `key` in the first section named `section` (both without regard to
// ASCII case). 0 found and copied; -1 section or key not found, or value with
// its terminator longer than `size`; -2 file cannot be opened, or a null
// argument. `out` is written only on 0.
int inifile_read(const char* file, const char* section, const char* key, char* out, int size);

// Result of inifile_read; `out` always receives the value (trimmed) or `def`,
// so a value of `size` or more characters yields the default.
// A null `out` or `def` gives -2 (with a null `def`, `out` is made empty).
// REQUIRES: `def` fits in `out`.
int ReadStringFromIni(const char* file, const char* section, const char* key, char* out, int size,
                      const char* def);

// Result of inifile_read; `out` always receives a number: the default when not
// found; 0 for an empty value; the decimal value kept to its low 32 bits when
// the value is all digits; otherwise the default, although 0 is returned.
int ReadIntFromIni(const char* file, const char* section, const char* key, int& out, int def);

// "[name]..." after trimming. 0 header parsed; -1 not a header; -2 null
// argument; -3 name truncated to `size` - 1 characters (nothing written when
// `size` is 0).
int GetSectionName(const char* line, char* name, unsigned long size);

// "key=value" after trimming. 0 item parsed; -1 not an item (or line or key
// too long; a too-long key is copied unterminated); -2 null argument; -3 value
// too long, in which case the value text is copied into `key`, not `value`.
int GetItem(const char* line, char* key, unsigned long keySize, char* value,
            unsigned long valueSize);

// 1 when the line is blank, a comment, or null; else 0.
int LineIsComment(const char* line);

// In-place trims over exactly space, tab, LF and CR; each returns its argument.
char* lrtrim(char* s);
char* ltrim(char* s);
char* rtrim(char* s);

// In-place ASCII upper-casing; returns its argument.
char* str2Upper(char* s);

// strcmp of upper-cased copies. REQUIRES: neither argument null.
int str_nocase_cmp(const char* a, const char* b);
