// The client whitelist reader on arbitrary file contents, compared entry by
// entry with a plain walk over the same bytes: lines of at most 2046
// characters (a longer line goes on as the next one), one line end removed,
// empty lines and the first "enabled=1" line skipped, the rest taken verbatim.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "policyanalyzer.h"

namespace {

std::vector<std::string> Expected(const std::string& text) {
  std::vector<std::string> entries;
  bool marker = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t take = std::min<size_t>(policyanalyzer::kWhitelistLineMax, text.size() - pos);
    const size_t nl = text.find('\n', pos);
    if (nl != std::string::npos && nl - pos < take) take = nl - pos + 1;
    std::string line = text.substr(pos, take);
    pos += take;
    line = line.c_str();  // the reader sees the line as a C string
    if (line.empty()) continue;
    if (line.back() == '\n' || line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    if (!marker && line.compare(0, 9, "enabled=1") == 0) {
      marker = true;
      continue;
    }
    entries.push_back(line);
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::QuietLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzsupport::MemFile file("fuzz_whitelist");
  file.Set(data, size);
  std::FILE* in = std::fopen(file.Path().c_str(), "re");
  FUZZ_CHECK(in != nullptr);
  sandboxPolicyinfo info;
  policyanalyzer::ReadWhitelistStream(in, info);
  std::fclose(in);

  const std::vector<std::string> want =
      Expected(std::string(reinterpret_cast<const char*>(data), size));
  FUZZ_CHECK(info.allowProcess.size() == want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    const SAppInfo& app = info.allowProcess[i];
    FUZZ_CHECK(app.value == want[i]);
    FUZZ_CHECK(app.type == 1 && app.id.empty() && app.appName.empty());
  }
  return 0;
}
