// The record file's codec on arbitrary contents. Every line, empty ones and a
// last one without a line end included, must come back as one entry, byte for
// byte; the text of those entries must be the input with its last line ended,
// and must read back as the same entries.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "iconmanager.h"

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
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> names = iconmanager::RecordLines(text);
  FUZZ_CHECK(names == Lines(text));
  std::string ended = text;
  if (!ended.empty() && ended.back() != '\n') ended += '\n';
  FUZZ_CHECK(iconmanager::RecordText(names) == ended);
  FUZZ_CHECK(iconmanager::RecordLines(ended) == names);
  return 0;
}
