#include "policyanalyzer.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <json-c/json.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "sdp_paths.h"
#include "trusted_dir.h"
#include "unique_fd.h"

namespace {

struct JsonPut {
  void operator()(json_object* obj) const { json_object_put(obj); }
};
using JsonTree = std::unique_ptr<json_object, JsonPut>;

using FilePtr = util::UniqueFile;

// The peer's file `name`, parsed from the descriptor its checks were made on
// (json_object_from_file would open it again by name, and without O_CLOEXEC).
// Null when it is missing, refused (one ERROR line) or does not parse.
JsonTree ParseSessionJson(const trusted::SessionFile& file) {
  if (!file.ok()) {
    if (!file.missing()) LOG(ERROR) << "not trusted: " << file.refusal();
    return nullptr;
  }
  return JsonTree(json_object_from_fd(file.fd()));
}

// json-c's lookup: true when `obj` is an object holding `key`, also when its
// value is JSON null (then `value` is null, which json-c's conversions read as
// 0 and as no array). Used for every key but those read as text.
bool Lookup(json_object* obj, const char* key, json_object*& value) {
  return json_object_object_get_ex(obj, key, &value);
}

// The value under a key read as text, or null when `obj` is no object, the key
// is absent or its value is JSON null: a null has no text and is reported like
// a missing key.
json_object* Member(json_object* obj, const char* key) {
  json_object* value = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &value)) return nullptr;
  return value;
}

// json-c's text of `value` (a non-string gives its JSON text); false when it
// has none.
bool TextOf(json_object* value, std::string& out) {
  if (value == nullptr) return false;
  const char* text = json_object_get_string(value);
  if (text == nullptr) return false;
  out = text;
  return true;
}

// The text under `key`, empty when it is missing or null.
std::string TextOrEmpty(json_object* obj, const char* key) {
  std::string text;
  TextOf(Member(obj, key), text);
  return text;
}

json_object* Element(array_list* array, size_t i) {
  return static_cast<json_object*>(array_list_get_idx(array, i));
}

}  // namespace

namespace policyanalyzer {

bool ReadResourceTree(json_object* root, std::vector<SAppDesktop>& out) {
  json_object* gateway = nullptr;
  if (!Lookup(root, "GatewayConfig", gateway)) {
    LOG(INFO) << "GatewayConfig not find!!";
    return false;
  }
  array_list* resources = json_object_get_array(gateway);
  if (resources == nullptr) {
    LOG(ERROR) << "get array failed!!";
    return false;
  }
  if (array_list_length(resources) == 0) {
    LOG(ERROR) << "array is null!!";
    return false;
  }

  for (size_t i = 0; i < array_list_length(resources); ++i) {
    json_object* resource = Element(resources, i);
    json_object* iconFlag = nullptr;
    if (!Lookup(resource, "isCreateIconInSandbox", iconFlag)) {
      LOG(ERROR) << "isCreateIconInSandbox not exist" << i;
      continue;
    }
    if (json_object_get_int(iconFlag) != 1) continue;  // a JSON null reads as 0

    SAppDesktop desk;
    if (!TextOf(Member(resource, "AppName"), desk.name)) {
      LOG(ERROR) << "AppName not exist" << i;
      continue;
    }
    if (!TextOf(Member(resource, "source"), desk.exec)) {
      LOG(ERROR) << "source not exist" << i;
      continue;
    }
    out.push_back(desk);
    // ERROR on purpose: the list of granted resources belongs in the error log
    // beside the failures.
    LOG(ERROR) << "appname:" << desk.name << " source: " << desk.exec;
  }
  return true;
}

bool ReadPolicyTree(json_object* root, const std::string& boxId, sandboxPolicyinfo& info) {
  json_object* policy = nullptr;
  if (!Lookup(root, "policy", policy)) {
    LOG(WARNING) << "not find param [policy]";
    return false;
  }
  json_object* sandBoxes = nullptr;
  if (!Lookup(policy, "PolicySandBox", sandBoxes)) {
    LOG(WARNING) << "not find param [PolicySandBox]";
    return false;
  }
  array_list* policies = json_object_get_array(sandBoxes);
  if (policies == nullptr || array_list_length(policies) == 0) {
    LOG(WARNING) << "no array";
    return false;
  }

  for (size_t i = 0; i < array_list_length(policies); ++i) {
    json_object* element = Element(policies, i);
    json_object* sandBox = nullptr;
    if (!Lookup(element, "sandBox", sandBox)) {
      LOG(WARNING) << "not find param [sandBox] in array";
      continue;
    }
    std::string name;
    if (!TextOf(Member(element, "policyname"), name)) {
      LOG(WARNING) << "not find param [policyname] in array";
      continue;
    }
    // Taken before the id is compared, so the name of the last named policy
    // wins, matching or not. Deliberate: keep it ahead of the id test.
    info.policyName = name;
    std::string id;
    if (!TextOf(Member(element, "policyid"), id)) {
      LOG(WARNING) << "not find param [policyid] in array";
      continue;
    }
    LOG(INFO) << "boxid : " << id;
    if (id != boxId) continue;

    json_object* allowed = nullptr;
    array_list* items =
        Lookup(sandBox, "boxAllowProcess", allowed) ? json_object_get_array(allowed) : nullptr;
    if (items == nullptr) continue;
    for (size_t j = 0; j < array_list_length(items); ++j) {
      json_object* item = Element(items, j);
      SAppInfo app;
      app.value = TextOrEmpty(item, "value");
      if (app.value.empty()) {
        LOG(WARNING) << "not find param [value] in array";
        continue;
      }
      app.id = TextOrEmpty(item, "id");
      if (app.id.empty()) {
        LOG(WARNING) << "not find param [id] in array";
        continue;
      }
      app.appName = TextOrEmpty(item, "name");
      if (app.appName.empty()) {
        LOG(WARNING) << "not find param [name] in array";
        continue;
      }
      json_object* type = nullptr;
      if (!Lookup(item, "type", type)) {
        LOG(WARNING) << "not find param [type] in array";
        continue;
      }
      app.type = json_object_get_int(type);  // a JSON null is there, as type 0
      info.allowProcess.push_back(app);
    }
  }
  return true;
}

void ReadWhitelistStream(std::FILE* in, sandboxPolicyinfo& info) {
  static constexpr char kMarker[] = "enabled=1";
  bool markerSeen = false;
  char line[kWhitelistLineMax + 2];
  while (!std::feof(in)) {
    std::memset(line, 0, sizeof(line));
    if (std::fgets(line, kWhitelistLineMax + 1, in) == nullptr) {
      // A read error is not end of file: without this the loop would spin.
      if (std::ferror(in)) break;
      continue;
    }
    size_t len = std::strlen(line);
    if (len == 0) continue;
    // One character only: of "\r\n" the "\r" stays part of the entry.
    if (line[len - 1] == '\n' || line[len - 1] == '\r') line[--len] = '\0';
    if (len == 0) continue;
    // The marker switches nothing; it is only skipped, and only once.
    if (!markerSeen && std::strncmp(line, kMarker, sizeof(kMarker) - 1) == 0) {
      markerSeen = true;
      continue;
    }
    SAppInfo app;
    app.type = 1;
    app.value = line;
    info.allowProcess.push_back(app);
    LOG(INFO) << "_readWListClient insert:" << line;
  }
}

}  // namespace policyanalyzer

PolicyAnalyzer& PolicyAnalyzer::getIns() {
  static PolicyAnalyzer instance;
  return instance;
}

bool PolicyAnalyzer::ReadResource(std::vector<SAppDesktop>& out) {
  JsonTree root = ParseSessionJson(trusted::SessionFile("resource.json"));
  return policyanalyzer::ReadResourceTree(root.get(), out);
}

bool PolicyAnalyzer::GetSandboxPolicyInfo(std::string boxId, sandboxPolicyinfo& info) {
  LOG(INFO) << "get boxid info : " << boxId;
  const trusted::SessionFile file("policy.json");
  if (file.missing()) {
    LOG(WARNING) << "policy file not exist:" << sdp_paths::kPolicyJson;
    return false;
  }
  info.policyName.clear();
  JsonTree root = ParseSessionJson(file);
  return policyanalyzer::ReadPolicyTree(root.get(), boxId, info);
}

bool PolicyAnalyzer::_readWListClient(sandboxPolicyinfo& info) {
  FilePtr in(std::fopen(sdp_paths::kWhitelistClientConf, "re"));
  if (in) policyanalyzer::ReadWhitelistStream(in.get(), info);
  return true;
}
