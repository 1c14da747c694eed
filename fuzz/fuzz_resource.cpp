// The resource list reader on arbitrary file contents: it must accept exactly
// a non-empty "GatewayConfig" array, append at most one record per element
// (never touching what the caller's list already held), and set nothing but
// the name and the source of a record.
#include <cstdint>
#include <vector>

#include "fuzz_json_support.h"
#include "policyanalyzer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::QuietLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzsupport::JsonTree root = fuzzsupport::ParseLikeTheReaders(data, size);
  const size_t length = fuzzsupport::ArrayLength(fuzzsupport::Get(root.get(), "GatewayConfig"));

  SAppDesktop sentinel;
  sentinel.name = "kept";
  sentinel.spare = "kept";
  std::vector<SAppDesktop> out = {sentinel};
  const bool ok = policyanalyzer::ReadResourceTree(root.get(), out);

  FUZZ_CHECK(ok == (length > 0));
  FUZZ_CHECK(out.size() <= 1 + length);
  FUZZ_CHECK(out[0].name == "kept" && out[0].spare == "kept");
  for (size_t i = 1; i < out.size(); ++i) {
    const SAppDesktop& d = out[i];
    FUZZ_CHECK(d.categories.empty() && d.mimeType.empty() && d.encoding.empty() &&
               d.icon.empty() && d.spare.empty() && d.terminal.empty() && d.type.empty() &&
               d.vendor.empty() && d.startupNotify.empty() && d.actions.empty() &&
               d.createdBy.empty() && d.appId.empty());
  }
  return 0;
}
