// The sandbox policy reader on arbitrary file contents, for a sandbox id that
// the seeds use and for the empty id: it must accept exactly a non-empty
// "policy"."PolicySandBox" array, only append to the caller's list, and
// append only items that carry a value, an id and a name.
#include <cstdint>
#include <string>

#include "fuzz_json_support.h"
#include "policyanalyzer.h"

namespace {

// Upper bound of what may be appended for `boxId`: every item of every element.
size_t ItemCount(json_object* policies) {
  size_t total = 0;
  for (size_t i = 0; i < fuzzsupport::ArrayLength(policies); ++i) {
    json_object* box = fuzzsupport::Get(json_object_array_get_idx(policies, i), "sandBox");
    total += fuzzsupport::ArrayLength(fuzzsupport::Get(box, "boxAllowProcess"));
  }
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::QuietLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzsupport::JsonTree root = fuzzsupport::ParseLikeTheReaders(data, size);
  json_object* policies =
      fuzzsupport::Get(fuzzsupport::Get(root.get(), "policy"), "PolicySandBox");
  const size_t length = fuzzsupport::ArrayLength(policies);
  const size_t items = ItemCount(policies);

  for (const char* boxId : {"7", ""}) {
    sandboxPolicyinfo info;
    SAppInfo sentinel;
    sentinel.value = "kept";
    info.allowProcess.push_back(sentinel);
    const bool ok = policyanalyzer::ReadPolicyTree(root.get(), boxId, info);
    FUZZ_CHECK(ok == (length > 0));
    FUZZ_CHECK(info.allowProcess.size() <= 1 + items);
    FUZZ_CHECK(info.allowProcess[0].value == "kept");
    for (size_t i = 1; i < info.allowProcess.size(); ++i) {
      const SAppInfo& app = info.allowProcess[i];
      FUZZ_CHECK(!app.value.empty() && !app.id.empty() && !app.appName.empty());
    }
  }
  return 0;
}
