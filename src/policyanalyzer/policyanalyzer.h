// Readers of what decides which launchers the desktop gets: the gateway
// resource list and the sandbox policy (JSON files written by the peer daemon)
// and the locally installed client whitelist. The client core calls them from
// its main thread; every call reads its file afresh and keeps nothing.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct json_object;

// One desktop entry, one member per line of the file (without the line end).
// As read from the resource list only `exec` (the resource's source id) and
// `name` (its display name) are set, bare; the launcher writer fills the rest.
// `spare` is never written out.
struct SAppDesktop {
  std::string categories;
  std::string mimeType;
  std::string encoding;
  std::string exec;
  std::string icon;
  std::string name;
  std::string spare;
  std::string terminal;
  std::string type;
  std::string vendor;
  std::string startupNotify;
  std::string actions;
  std::string createdBy;
  std::string appId;
};

// One allowed application. Whitelist-file entries carry only `value` (the
// whole line) and type 1.
struct SAppInfo {
  std::string id;
  std::string appName;
  int type = 0;
  std::string value;
};

// The policy of one sandbox: policy items first, then whitelist entries.
struct sandboxPolicyinfo {
  std::string policyName;
  std::vector<SAppInfo> allowProcess;
};

class PolicyAnalyzer {
 public:
  static PolicyAnalyzer& getIns();

  PolicyAnalyzer(const PolicyAnalyzer&) = delete;
  PolicyAnalyzer& operator=(const PolicyAnalyzer&) = delete;

  // Appends one record per resource marked for a desktop icon, in file order;
  // `out` is not cleared. True when "GatewayConfig" is a non-empty array.
  bool ReadResource(std::vector<SAppDesktop>& out);

  // Appends the allowed applications of every policy whose id equals `boxId`
  // to info.allowProcess (not cleared). info.policyName ends as the name of the
  // last policy carrying one, matching or not. True when "PolicySandBox" is a
  // non-empty array; a missing file leaves `info` untouched.
  bool GetSandboxPolicyInfo(std::string boxId, sandboxPolicyinfo& info);

  // Appends the client whitelist's entries to info.allowProcess. Always true.
  bool _readWListClient(sandboxPolicyinfo& info);

 private:
  PolicyAnalyzer() = default;
};

// The readers behind the operations above, on an already parsed tree or an
// open stream, so that every input shape can be tried without the fixed files.
namespace policyanalyzer {

// Longest whitelist line taken in one piece; the rest of a longer line is read
// as the next line.
inline constexpr int kWhitelistLineMax = 2046;

// `root` may be null (no file, or not JSON).
bool ReadResourceTree(json_object* root, std::vector<SAppDesktop>& out);

// Everything after the file's existence check and the clearing of
// info.policyName. `root` may be null.
bool ReadPolicyTree(json_object* root, const std::string& boxId, sandboxPolicyinfo& info);

// Reads whitelist lines from `in` until end of file or a read error.
// REQUIRES: `in` is open for reading.
void ReadWhitelistStream(std::FILE* in, sandboxPolicyinfo& info);

}  // namespace policyanalyzer
