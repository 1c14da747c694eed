// The record-file loader on arbitrary file contents. Every line, empty ones
// and a last one without a line end included, must come back as one entry,
// byte for byte; saving the entries and loading them again must give the same
// list, and the saved file must be the input with its last line ended.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "iconmanager.h"

// Reaches the record members of the singleton; the class names it as a friend.
class IconManagerTestPeer {
 public:
  static std::vector<std::string>& AppNames() { return IconManager::getIns().appNames; }
  static std::string& RecordFile() { return IconManager::getIns().recordFile; }
};

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(pos, nl - pos));
    pos = nl + 1;
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::QuietLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzsupport::MemFile record("fuzz_record");
  static fuzzsupport::MemFile saved("fuzz_record_saved");
  const std::string text(reinterpret_cast<const char*>(data), size);
  record.Set(text);

  IconManager& icons = IconManager::getIns();
  std::vector<std::string>& names = IconManagerTestPeer::AppNames();
  names.assign(1, "kept");  // loading appends
  IconManagerTestPeer::RecordFile() = record.Path();
  icons.loadAppNameFromFile();

  const std::vector<std::string> lines = Lines(text);
  FUZZ_CHECK(names.size() == 1 + lines.size());
  FUZZ_CHECK(names[0] == "kept");
  for (size_t i = 0; i < lines.size(); ++i) FUZZ_CHECK(names[i + 1] == lines[i]);

  names.erase(names.begin());
  IconManagerTestPeer::RecordFile() = saved.Path();
  icons.saveAppNameToFile();
  std::string ended = text;
  if (!ended.empty() && ended.back() != '\n') ended += '\n';
  FUZZ_CHECK(saved.Contents() == ended);

  const std::vector<std::string> before = names;
  names.clear();
  icons.loadAppNameFromFile();
  FUZZ_CHECK(names == before);
  names.clear();
  return 0;
}
