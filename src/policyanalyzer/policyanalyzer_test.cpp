// The readers over every input shape, on parsed trees and in-memory streams.
#include "policyanalyzer.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <tuple>

#include "log_capture.h"

namespace {

using Log = std::pair<int, std::string>;  // severity, text
using Lines = std::vector<std::string>;
constexpr int I = google::GLOG_INFO, W = google::GLOG_WARNING, E = google::GLOG_ERROR;

struct JsonPut {
  void operator()(json_object* obj) const { json_object_put(obj); }
};

// Parses `text` with ' standing for " (null when it is no JSON).
std::unique_ptr<json_object, JsonPut> Parse(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  return std::unique_ptr<json_object, JsonPut>(json_tokener_parse(text.c_str()));
}

std::vector<Log> ReaderLogs(const testsupport::LogCapture& capture) {
  std::vector<Log> out;
  for (const auto& r : capture.records())
    if (r.file == "policyanalyzer.cpp") out.emplace_back(r.severity, r.text);
  return out;
}

struct ResourceCase {
  const char* label;
  const char* json;
  bool result;
  std::vector<std::pair<std::string, std::string>> records;  // name, exec
  std::vector<Log> logs;
};

class ResourceShapes : public testing::TestWithParam<ResourceCase> {};

TEST_P(ResourceShapes, AppendsUsableResourcesAndLogsEachSkip) {
  const ResourceCase& c = GetParam();
  std::vector<SAppDesktop> out(1);
  testsupport::LogCapture capture;
  EXPECT_EQ(c.result, policyanalyzer::ReadResourceTree(Parse(c.json).get(), out));
  std::vector<std::pair<std::string, std::string>> records;
  for (size_t i = 1; i < out.size(); ++i) records.emplace_back(out[i].name, out[i].exec);
  EXPECT_EQ(c.records, records);
  EXPECT_EQ(c.logs, ReaderLogs(capture));
}

// clang-format off
#define ITEM(flag, name, source) \
  "{'isCreateIconInSandbox': " flag ", 'AppName': " name ", 'source': " source "}"
const char kNotFound[] = "GatewayConfig not find!!";
INSTANTIATE_TEST_SUITE_P(
    , ResourceShapes,
    testing::Values(
        ResourceCase{"NotJson", "{'GatewayConfig': [", false, {}, {{I, kNotFound}}},
        ResourceCase{"NoKey", "{'gatewayconfig': []}", false, {}, {{I, kNotFound}}},
        // A JSON null under a key that is not read as text is there, and is no array.
        ResourceCase{"NullListTakenForMissing", "{'GatewayConfig': null}", false, {},
                     {{E, "get array failed!!"}}},
        ResourceCase{"ListIsObject", "{'GatewayConfig': {}}", false, {},
                     {{E, "get array failed!!"}}},
        ResourceCase{"EmptyList", "{'GatewayConfig': []}", false, {}, {{E, "array is null!!"}}},
        ResourceCase{"IconFlagValues",
                     "{'GatewayConfig': [" ITEM("0", "'z'", "'z'") "," ITEM("2", "'t'", "'t'") ","
                     ITEM("'1'", "'A'", "'a'") ", {'AppName': 'm', 'source': 'm'},"
                     ITEM("null", "'n'", "'n'") ", 1]}",
                     true, {{"A", "a"}},  // a null flag reads as 0: skipped without a word
                     {{E, "appname:A source: a"}, {E, "isCreateIconInSandbox not exist3"},
                      {E, "isCreateIconInSandbox not exist5"}}},
        ResourceCase{"MissingOrNullNamesAndSources",
                     "{'GatewayConfig': [" ITEM("1", "'A'", "'a'") ", {'isCreateIconInSandbox': 1, "
                     "'AppName': 'B'}," ITEM("1", "'C'", "'c'") "," ITEM("1", "null", "'d'") ","
                     ITEM("1", "'E'", "null") "]}",
                     true, {{"A", "a"}, {"C", "c"}},
                     {{E, "appname:A source: a"}, {E, "source not exist1"},
                      {E, "appname:C source: c"}, {E, "AppName not exist3"},
                      {E, "source not exist4"}}},
        ResourceCase{"EmptyNamesNumbersAndDuplicatesKept",
                     "{'GatewayConfig': [" ITEM("1", "''", "'s'") "," ITEM("1", "42", "'s'") "]}",
                     true, {{"", "s"}, {"42", "s"}},
                     {{E, "appname: source: s"}, {E, "appname:42 source: s"}}}),
    [](const testing::TestParamInfo<ResourceCase>& info) { return info.param.label; });
#undef ITEM
// clang-format on

using App = std::tuple<std::string, std::string, int, std::string>;  // id, appName, type, value

struct PolicyCase {
  const char* label;
  const char* json;
  bool result;
  std::string policyName;
  std::vector<App> apps;
  std::vector<Log> logs;
};

class PolicyShapes : public testing::TestWithParam<PolicyCase> {};

TEST_P(PolicyShapes, AppendsItemsOfEveryMatchingPolicy) {
  const PolicyCase& c = GetParam();
  sandboxPolicyinfo info{"before", {SAppInfo{"i0", "n0", 5, "v0"}}};
  testsupport::LogCapture capture;
  EXPECT_EQ(c.result, policyanalyzer::ReadPolicyTree(Parse(c.json).get(), "7", info));
  EXPECT_EQ(c.policyName, info.policyName);
  std::vector<App> apps;
  for (const auto& a : info.allowProcess) apps.emplace_back(a.id, a.appName, a.type, a.value);
  std::vector<App> want{{"i0", "n0", 5, "v0"}};  // appended to, never cleared
  want.insert(want.end(), c.apps.begin(), c.apps.end());
  EXPECT_EQ(want, apps);
  EXPECT_EQ(c.logs, ReaderLogs(capture));
}

// clang-format off
#define POLICY(name, id, items) \
  "{'policyname': " name ", 'policyid': " id ", 'sandBox': {'boxAllowProcess': " items "}}"
#define LIST(...) "{'policy': {'PolicySandBox': [" __VA_ARGS__ "]}}"
#define APP(value, id, name, type) \
  "{'value': " value ", 'id': " id ", 'name': " name ", 'type': " type "}"
const Log kNoValue{W, "not find param [value] in array"};
const Log kNoSandBox{W, "not find param [sandBox] in array"};
const Log kNoPolicyId{W, "not find param [policyid] in array"};
INSTANTIATE_TEST_SUITE_P(
    , PolicyShapes,
    testing::Values(
        PolicyCase{"NotJson", "{", false, "before", {}, {{W, "not find param [policy]"}}},
        // Null containers are there but hold nothing.
        PolicyCase{"NullPolicyTakenForMissing", "{'policy': null}", false, "before", {},
                   {{W, "not find param [PolicySandBox]"}}},
        PolicyCase{"NullPolicySandBoxTakenForMissing", "{'policy': {'PolicySandBox': null}}",
                   false, "before", {}, {{W, "no array"}}},
        PolicyCase{"NoPolicySandBox", "{'policy': {}}", false, "before", {},
                   {{W, "not find param [PolicySandBox]"}}},
        PolicyCase{"NotAnArray", "{'policy': {'PolicySandBox': {}}}", false, "before", {},
                   {{W, "no array"}}},
        PolicyCase{"EmptyArray", LIST(), false, "before", {}, {{W, "no array"}}},
        PolicyCase{"OnlyMatchingIdButLastName",
                   LIST(POLICY("'p7'", "'7'", "[" APP("'v'", "'1'", "'a'", "1") "]") ","
                        POLICY("'p8'", "'8'", "[" APP("'w'", "'2'", "'b'", "1") "]")),
                   true, "p8", {{"1", "a", 1, "v"}}, {{I, "boxid : 7"}, {I, "boxid : 8"}}},
        PolicyCase{"EveryMatchInFileOrderAndNumericId",
                   LIST(POLICY("'x'", "7", "[" APP("'v1'", "2", "'n1'", "'3'") "]") ","
                        POLICY("'y'", "'07'", "[" APP("'no'", "'9'", "'no'", "1") "]") ","
                        POLICY("'z'", "'7'", "[" APP("'v3'", "'3'", "'n3'", "0") "]")),
                   true, "z", {{"2", "n1", 3, "v1"}, {"3", "n3", 0, "v3"}},
                   {{I, "boxid : 7"}, {I, "boxid : 07"}, {I, "boxid : 7"}}},
        PolicyCase{"ItemChecksInValueIdNameTypeOrder",
                   LIST(POLICY("'p'", "'7'", "[{'name': 'n', 'type': 1}, {'value': '', 'id': '1'},"
                        "{'value': null}, {'value': 'v', 'id': null},"
                        "{'value': 'v', 'id': '1', 'name': ''},"
                        "{'value': 'v', 'id': '1', 'name': 'n'}," APP("'nt'", "'1'", "'n'", "null")
                        ", null," APP("'ok'", "'1'", "'n'", "1") "]")),
                   true, "p", {{"1", "n", 0, "nt"}, {"1", "n", 1, "ok"}},  // a null type is type 0
                   {{I, "boxid : 7"}, kNoValue, kNoValue, kNoValue,
                    {W, "not find param [id] in array"}, {W, "not find param [name] in array"},
                    {W, "not find param [type] in array"}, kNoValue}},
        PolicyCase{"ElementsLackingKeysAreSkipped",
                   LIST("{'policyname': 'a', 'policyid': '7'},"
                        "{'sandBox': null, 'policyname': 'b', 'policyid': '7'},"
                        "{'sandBox': {}, 'policyname': null}, {'sandBox': {}, 'policyname': 'c'},"
                        "{'sandBox': {}, 'policyname': 'd', 'policyid': null}, null,"
                        "{'policyname': 'e', 'policyid': '7', 'sandBox': {'boxAllowProcess': {}}}"),
                   true, "e", {},
                   // A null "sandBox" is there: its policy is named and compared, and
                   // then has nothing to allow.
                   {kNoSandBox, {I, "boxid : 7"}, {W, "not find param [policyname] in array"},
                    kNoPolicyId, kNoPolicyId, kNoSandBox, {I, "boxid : 7"}}}),
    [](const testing::TestParamInfo<PolicyCase>& info) { return info.param.label; });
#undef APP
#undef POLICY
#undef LIST
// clang-format on

struct FileClose {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

Lines WhitelistOf(std::string text) {
  std::unique_ptr<std::FILE, FileClose> in(fmemopen(text.data(), text.size(), "r"));
  sandboxPolicyinfo info;
  if (in) policyanalyzer::ReadWhitelistStream(in.get(), info);
  Lines values;
  for (const auto& a : info.allowProcess)
    values.push_back(a.type == 1 && a.id.empty() && a.appName.empty() ? a.value : "<bad record>");
  return values;
}

TEST(WhitelistLines, MarkerIsSkippedOnceAndSwitchesNothing) {
  EXPECT_EQ(Lines{"/usr/bin/app"}, WhitelistOf("enabled=1\n/usr/bin/app\n"));
  EXPECT_EQ((Lines{"a", "b"}), WhitelistOf("a\n\n\nb"));
  EXPECT_EQ((Lines{"a", "enabled=0", "enabled=1", "x"}),
            WhitelistOf("a\nenabled=0\nenabled=1\nenabled=1\nx\n"));
  EXPECT_EQ(Lines{"z"}, WhitelistOf("enabled=1 and more\nz\n"));
}

TEST(WhitelistLines, LinesAreVerbatimButForOneLineEnd) {
  EXPECT_EQ((Lines{"a\r", "b\r"}), WhitelistOf("a\r\nb\r\n"));
  // A carriage return ends no line; one at the very end goes as the line end.
  EXPECT_EQ((Lines{"a\r\r", "  # b ; ", "x"}), WhitelistOf("a\r\r\n  # b ; \nx\r"));
  testsupport::LogCapture capture;
  WhitelistOf("x y\n");
  EXPECT_EQ((std::vector<Log>{{I, "_readWListClient insert:x y"}}), ReaderLogs(capture));
}

TEST(WhitelistLines, LongLinesAreSplitAt2046Characters) {
  const std::string x(2046, 'x');
  EXPECT_EQ((Lines{x, "yyy"}), WhitelistOf(x + "yyy\n"));
  EXPECT_EQ((Lines{x, "n"}), WhitelistOf(x + "\nn\n"));  // the line end alone: empty
  // Here the carriage return ends the first piece, so it goes as a line end would.
  EXPECT_EQ(Lines{x.substr(1)}, WhitelistOf(x.substr(1) + "\r\n"));
  EXPECT_EQ(Lines{"qqq"}, WhitelistOf("enabled=1" + x.substr(9) + "qqq\n"));
}

// A stream that yields `data` once and then fails every read.
ssize_t ReadThenFail(void* cookie, char* buf, size_t size) {
  auto* data = static_cast<std::string*>(cookie);
  if (data->empty()) {
    errno = EIO;
    return -1;
  }
  size_t n = std::min(size, data->size());
  std::memcpy(buf, data->data(), n);
  data->erase(0, n);
  return static_cast<ssize_t>(n);
}

TEST(WhitelistLines, ReadErrorEndsTheLoopKeepingWhatWasRead) {
  std::string data = "a\nb\n";
  std::unique_ptr<std::FILE, FileClose> in(
      fopencookie(&data, "r", cookie_io_functions_t{ReadThenFail, nullptr, nullptr, nullptr}));
  ASSERT_TRUE(in);
  sandboxPolicyinfo info;
  policyanalyzer::ReadWhitelistStream(in.get(), info);
  ASSERT_EQ(2u, info.allowProcess.size());
  EXPECT_EQ("b", info.allowProcess[1].value);
}

}  // namespace
