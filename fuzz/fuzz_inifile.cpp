// The INI reader on arbitrary files and lines. The input is a whole file:
// its first lines also go one by one through GetSectionName, GetItem,
// LineIsComment and the trims, with output buffers of exactly the size
// promised (so any write past them is caught), and lookups of sections and
// keys found in it go through inifile_read and its wrappers. The first item of
// the first section must be found again with the same value, by inifile_read
// and, trimmed, by ReadStringFromIni, which must refuse it when the output has
// no room for its terminator.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "inifile.h"

namespace {

// Line-level calls cost three 10 KB buffers each; the first lines are enough.
constexpr size_t kMaxLines = 48;
constexpr size_t kMaxLookups = 4;

bool IsIniSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// A buffer of exactly `n` bytes on the heap, so a write past it is caught.
std::unique_ptr<char[]> Exact(size_t n) { return std::unique_ptr<char[]>(new char[n]); }

bool Terminated(const char* buf, size_t size) { return std::memchr(buf, '\0', size) != nullptr; }

void CheckTrims(const std::string& line) {
  std::string copy = line;
  lrtrim(copy.data());
  const size_t len = std::strlen(copy.c_str());
  FUZZ_CHECK(len <= line.size());
  if (len > 0) {
    FUZZ_CHECK(!IsIniSpace(copy[0]));
    FUZZ_CHECK(!IsIniSpace(copy[len - 1]));
  }
  const int comment = LineIsComment(line.c_str());
  FUZZ_CHECK(comment == 0 || comment == 1);
  if (len < kIniLineMax)
    FUZZ_CHECK(comment == (len == 0 || copy[0] == '#' || copy[0] == ';' ? 1 : 0));
}

struct Lookup {
  std::string section;
  std::string key;
};

// Each lookup scans the file; one of the three entry points per lookup, in
// turn, keeps an input to a few scans.
void CheckLookup(const fuzzsupport::MemFile& file, const Lookup& l, size_t size, size_t turn) {
  const char* path = file.Path().c_str();
  if (turn % 3 == 0) {
    auto out = Exact(size);
    const int r = inifile_read(path, l.section.c_str(), l.key.c_str(), out.get(),
                               static_cast<int>(size));
    FUZZ_CHECK(r == 0 || r == -1);
    if (r == 0) FUZZ_CHECK(Terminated(out.get(), size));
  } else if (turn % 3 == 1) {
    auto str = Exact(size);
    const int r = ReadStringFromIni(path, l.section.c_str(), l.key.c_str(), str.get(),
                                    static_cast<int>(size), "");
    FUZZ_CHECK(r == 0 || r == -1);
    FUZZ_CHECK(Terminated(str.get(), size));
    // A value is trimmed; a miss gives the default.
    const size_t len = std::strlen(str.get());
    if (r != 0) FUZZ_CHECK(len == 0);
    if (len > 0) FUZZ_CHECK(!IsIniSpace(str[0]) && !IsIniSpace(str[len - 1]));
  } else {
    int number = 12345;
    const int r = ReadIntFromIni(path, l.section.c_str(), l.key.c_str(), number, 7);
    FUZZ_CHECK(r == 0 || r == -1);
    if (r != 0) FUZZ_CHECK(number == 7);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzsupport::MemFile file("fuzz_inifile");
  file.Set(data, size);
  const std::string text(reinterpret_cast<const char*>(data), size);

  std::vector<Lookup> lookups = {{"ventrald", "protocol"}, {"SafeWorkSpace", "SandboxID"}};
  // The first section header and its first item, while the reader still sees
  // the same lines as this walk (no NUL, no line cut in pieces).
  std::string firstSection;
  bool inFirstSection = false;
  bool oracleUsable = true;
  std::pair<std::string, std::string> firstItem;
  bool haveFirstItem = false;

  size_t start = 0;
  for (size_t n = 0; start <= text.size() && n < kMaxLines; ++n) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string raw = text.substr(start, end - start);
    start = end + 1;
    if (raw.find('\0') != std::string::npos || raw.size() + 2 >= static_cast<size_t>(kIniLineMax))
      oracleUsable = false;
    const std::string line = raw.c_str();  // what the string functions see
    CheckTrims(line);

    const size_t nameSize = n % 19;
    auto name = Exact(nameSize);
    const int rs = GetSectionName(line.c_str(), name.get(), nameSize);
    FUZZ_CHECK(rs == 0 || rs == -1 || rs == -3);
    if (rs == 0) FUZZ_CHECK(std::strlen(name.get()) < nameSize);
    if (rs == -3 && nameSize > 0) FUZZ_CHECK(std::strlen(name.get()) == nameSize - 1);

    const size_t keySize = (n * 7) % 23;
    const size_t valueSize = (n * 5) % 29;
    auto key = Exact(keySize);
    auto value = Exact(valueSize);
    const int ri = GetItem(line.c_str(), key.get(), keySize, value.get(), valueSize);
    FUZZ_CHECK(ri == 0 || ri == -1 || ri == -3);
    if (ri == 0) {
      FUZZ_CHECK(Terminated(key.get(), keySize));
      FUZZ_CHECK(Terminated(value.get(), valueSize));
    }

    // The same line with room for anything: these drive the lookups and the oracle.
    auto bigName = Exact(kIniLineMax);
    auto bigKey = Exact(kIniLineMax);
    auto bigValue = Exact(kIniLineMax);
    const bool isItem =
        GetItem(line.c_str(), bigKey.get(), kIniLineMax, bigValue.get(), kIniLineMax) == 0;
    const bool isHeader = GetSectionName(line.c_str(), bigName.get(), kIniLineMax) == 0;
    if (isHeader && lookups.size() < kMaxLookups) lookups.push_back({bigName.get(), ""});
    if (isItem && !lookups.empty() && lookups.back().key.empty()) lookups.back().key = bigKey.get();

    if (!oracleUsable || haveFirstItem) continue;
    if (!inFirstSection) {
      if (isHeader) {
        firstSection = bigName.get();
        inFirstSection = true;
      }
    } else if (isItem) {
      firstItem = {bigKey.get(), bigValue.get()};
      haveFirstItem = true;
    } else if (isHeader) {
      oracleUsable = false;  // the first section had no item
    }
  }

  if (oracleUsable && haveFirstItem) {
    const char* path = file.Path().c_str();
    const char* section = firstSection.c_str();
    const char* key = firstItem.first.c_str();
    const std::string& value = firstItem.second;
    auto out = Exact(kIniLineMax);
    FUZZ_CHECK(inifile_read(path, section, key, out.get(), kIniLineMax) == 0);
    FUZZ_CHECK(value == out.get());
    // The wrapper trims once more, and needs room for the value and its NUL.
    std::string trimmed = value;
    lrtrim(trimmed.data());
    trimmed = trimmed.c_str();
    const size_t fits = value.size() + 1;
    auto str = Exact(fits);
    FUZZ_CHECK(ReadStringFromIni(path, section, key, str.get(), static_cast<int>(fits), "") == 0);
    FUZZ_CHECK(trimmed == str.get());
    if (value.size() > 0) {
      auto small = Exact(value.size());
      FUZZ_CHECK(ReadStringFromIni(path, section, key, small.get(),
                                   static_cast<int>(value.size()), "") == -1);
      FUZZ_CHECK(small[0] == '\0');
    }
  }

  static const size_t kSizes[] = {1, 2, 9, 128, 1024};
  for (size_t i = 0; i < lookups.size(); ++i)
    CheckLookup(file, lookups[i], kSizes[(i + size) % (sizeof kSizes / sizeof kSizes[0])], i + size);
  return 0;
}
