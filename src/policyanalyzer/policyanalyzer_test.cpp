// The readers over every input shape, on parsed trees and in-memory streams.
#include "policyanalyzer.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "log_capture.h"

namespace {

using Lines = std::vector<std::string>;

// Parses `text` with ' standing for " (null when it is no JSON).
std::shared_ptr<json_object> Parse(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  return std::shared_ptr<json_object>(json_tokener_parse(text.c_str()),
                                      [](json_object* o) { json_object_put(o); });
}

// The readers' log records as "<I|W|E> text", joined by "|".
std::string ReaderLogs(const testsupport::LogCapture& capture) {
  std::string out;
  for (const auto& r : capture.records())
    if (r.file == "policyanalyzer.cpp")
      out += (out.empty() ? "" : "|") + std::string(1, "IWE"[r.severity]) + " " + r.text;
  return out;
}

// clang-format off
#define ITEM(flag, name, source) \
  "{'isCreateIconInSandbox': " flag ", 'AppName': " name ", 'source': " source "}"
TEST(ResourceList, AppendsUsableResourcesAndLogsEachSkip) {
  const struct {
    const char* json;
    bool result;
    std::string records;  // name=source;...
    std::string logs;
  } cases[] = {
      {"{'GatewayConfig': [", false, "", "I GatewayConfig not find!!"},
      {"{'gatewayconfig': []}", false, "", "I GatewayConfig not find!!"},
      // A JSON null under a key that is not read as text is there, and is no array.
      {"{'GatewayConfig': null}", false, "", "E get array failed!!"},
      {"{'GatewayConfig': []}", false, "", "E array is null!!"},
      // A null flag reads as 0: skipped without a word.
      {"{'GatewayConfig': [" ITEM("0", "'z'", "'z'") "," ITEM("2", "'t'", "'t'") ","
       ITEM("'1'", "'A'", "'a'") ", {'AppName': 'm', 'source': 'm'}," ITEM("null", "'n'", "'n'")
       ", 1]}", true, "A=a;",
       "E appname:A source: a|E isCreateIconInSandbox not exist3|"
       "E isCreateIconInSandbox not exist5"},
      {"{'GatewayConfig': [" ITEM("1", "'A'", "'a'")
       ", {'isCreateIconInSandbox': 1, 'AppName': 'B'},"
       ITEM("1", "'C'", "'c'") "," ITEM("1", "null", "'d'") "," ITEM("1", "'E'", "null") ","
       ITEM("1", "''", "'s'") "," ITEM("1", "42", "'s'") "]}", true, "A=a;C=c;=s;42=s;",
       "E appname:A source: a|E source not exist1|E appname:C source: c|E AppName not exist3|"
       "E source not exist4|E appname: source: s|E appname:42 source: s"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    std::vector<SAppDesktop> out(1);
    testsupport::LogCapture capture;
    EXPECT_EQ(c.result, policyanalyzer::ReadResourceTree(Parse(c.json).get(), out));
    std::string records;
    for (size_t i = 1; i < out.size(); ++i) records += out[i].name + "=" + out[i].exec + ";";
    EXPECT_EQ(c.records, records);
    EXPECT_EQ(c.logs, ReaderLogs(capture));
  }
}
#undef ITEM

#define POLICY(name, id, items) \
  "{'policyname': " name ", 'policyid': " id ", 'sandBox': {'boxAllowProcess': " items "}}"
#define LIST(...) "{'policy': {'PolicySandBox': [" __VA_ARGS__ "]}}"
#define APP(value, id, name, type) \
  "{'value': " value ", 'id': " id ", 'name': " name ", 'type': " type "}"
#define NO(key) "W not find param [" key "] in array"
TEST(SandboxPolicy, AppendsItemsOfEveryMatchingPolicyAndTakesTheLastName) {
  const struct {
    const char* json;
    bool result;
    std::string policyName;
    std::string apps;  // id,name,type,value;... after the one already there
    std::string logs;
  } cases[] = {
      {"{", false, "before", "", "W not find param [policy]"},
      // Null containers are there but hold nothing.
      {"{'policy': null}", false, "before", "", "W not find param [PolicySandBox]"},
      {"{'policy': {'PolicySandBox': null}}", false, "before", "", "W no array"},
      {LIST(), false, "before", "", "W no array"},
      // Every policy with the id, compared as text; the name is the last one's.
      {LIST(POLICY("'x'", "7", "[" APP("'v1'", "2", "'n1'", "'3'") "]") ","
            POLICY("'y'", "'07'", "[" APP("'no'", "'9'", "'no'", "1") "]") ","
            POLICY("'z'", "'7'", "[" APP("'v3'", "'3'", "'n3'", "0") "]") ","
            POLICY("'w'", "'8'", "[" APP("'no'", "'2'", "'b'", "1") "]")),
       true, "w", "2,n1,3,v1;3,n3,0,v3;",
       "I boxid : 7|I boxid : 07|I boxid : 7|I boxid : 8"},
      // Item checks run in value, id, name, type order; a null type is type 0.
      {LIST(POLICY("'p'", "'7'", "[{'name': 'n', 'type': 1}, {'value': '', 'id': '1'},"
            "{'value': null}, {'value': 'v', 'id': null}, {'value': 'v', 'id': '1', 'name': ''},"
            "{'value': 'v', 'id': '1', 'name': 'n'}," APP("'nt'", "'1'", "'n'", "null") ", null,"
            APP("'ok'", "'1'", "'n'", "1") "]")),
       true, "p", "1,n,0,nt;1,n,1,ok;",
       "I boxid : 7|" NO("value") "|" NO("value") "|" NO("value") "|" NO("id") "|" NO("name")
       "|" NO("type") "|" NO("value")},
      // A null "sandBox" is there: its policy is named and compared, and then
      // has nothing to allow.
      {LIST("{'policyname': 'a', 'policyid': '7'},"
            "{'sandBox': null, 'policyname': 'b', 'policyid': '7'},"
            "{'sandBox': {}, 'policyname': null}, {'sandBox': {}, 'policyname': 'c'},"
            "{'sandBox': {}, 'policyname': 'd', 'policyid': null}, null,"
            "{'policyname': 'e', 'policyid': '7', 'sandBox': {'boxAllowProcess': {}}}"),
       true, "e", "",
       NO("sandBox") "|I boxid : 7|" NO("policyname") "|" NO("policyid") "|" NO("policyid") "|"
       NO("sandBox") "|I boxid : 7"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    sandboxPolicyinfo info{"before", {SAppInfo{"i0", "n0", 5, "v0"}}};
    testsupport::LogCapture capture;
    EXPECT_EQ(c.result, policyanalyzer::ReadPolicyTree(Parse(c.json).get(), "7", info));
    EXPECT_EQ(c.policyName, info.policyName);
    std::string apps;
    for (const auto& a : info.allowProcess)
      apps += a.id + "," + a.appName + "," + std::to_string(a.type) + "," + a.value + ";";
    EXPECT_EQ("i0,n0,5,v0;" + c.apps, apps);  // appended to, never cleared
    EXPECT_EQ(c.logs, ReaderLogs(capture));
  }
}
#undef NO
#undef APP
#undef POLICY
#undef LIST
// clang-format on

using FilePtr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

Lines Values(const sandboxPolicyinfo& info) {
  Lines values;
  for (const auto& a : info.allowProcess)
    values.push_back(a.type == 1 && a.id.empty() && a.appName.empty() ? a.value : "<bad record>");
  return values;
}

TEST(WhitelistLines, TakenVerbatimButForOneLineEndAndTheMarkerOnce) {
  const std::string x(2046, 'x');
  const struct {
    std::string text;
    Lines want;
  } cases[] = {
      {"enabled=1\n/usr/bin/app\n", {"/usr/bin/app"}},
      {"a\n\n\nb", {"a", "b"}},
      {"a\nenabled=0\nenabled=1\nenabled=1\nx\n", {"a", "enabled=0", "enabled=1", "x"}},
      {"enabled=1 and more\nz\n", {"z"}},
      {"a\r\nb\r\n", {"a\r", "b\r"}},
      // A carriage return ends no line; one at the very end goes as the line end.
      {"a\r\r\n  # b ; \nx\r", {"a\r\r", "  # b ; ", "x"}},
      // Longer lines go in pieces of 2046; a line end alone makes no entry.
      {x + "yyy\n", {x, "yyy"}},
      {x + "\nn\n", {x, "n"}},
      // Here the carriage return ends the first piece, so it goes as a line end would.
      {x.substr(1) + "\r\n", {x.substr(1)}},
      {"enabled=1" + x.substr(9) + "qqq\n", {"qqq"}},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    FilePtr in(fmemopen(c.text.data(), c.text.size(), "r"), std::fclose);
    ASSERT_TRUE(in);
    sandboxPolicyinfo info;
    testsupport::LogCapture capture;
    policyanalyzer::ReadWhitelistStream(in.get(), info);
    EXPECT_EQ(c.want, Values(info));
    EXPECT_EQ(static_cast<int>(c.want.size()), capture.count_prefix("_readWListClient insert:"));
  }
}

// A stream that yields `data` once and then fails every read.
ssize_t ReadThenFail(void* cookie, char* buf, size_t size) {
  auto* data = static_cast<std::string*>(cookie);
  errno = EIO;
  const size_t n = std::min(size, data->size());
  std::memcpy(buf, data->data(), n);
  data->erase(0, n);
  return n == 0 ? -1 : static_cast<ssize_t>(n);
}

TEST(WhitelistLines, ReadErrorEndsTheLoopKeepingWhatWasRead) {
  std::string data = "a\nb\n";
  FilePtr in(fopencookie(&data, "r", {ReadThenFail, nullptr, nullptr, nullptr}), std::fclose);
  ASSERT_TRUE(in);
  sandboxPolicyinfo info;
  testsupport::LogCapture capture;
  policyanalyzer::ReadWhitelistStream(in.get(), info);
  EXPECT_EQ((Lines{"a", "b"}), Values(info));
  EXPECT_TRUE(capture.has("_readWListClient insert:b", google::GLOG_INFO));
}

}  // namespace
