// The readers over every input shape: parsed trees and in-memory streams.
#include "policyanalyzer.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <memory>

#include "log_capture.h"

namespace {

using Json = std::unique_ptr<json_object, int (*)(json_object*)>;

// `text` with ' standing for " (null when it is no JSON).
Json Parse(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  return Json(json_tokener_parse(text.c_str()), json_object_put);
}

// The readers' log records as "<I|W|E> text", each after a "|".
std::string Logs(const testsupport::LogCapture& capture) {
  std::string out;
  for (const auto& r : capture.records())
    if (r.file == "policyanalyzer.cpp")
      out += "|" + std::string(1, "IWE"[r.severity]) + " " + r.text;
  return out;
}

// "<result> <policy name> id,name,type,value;...|<logs>" of the policy reader for box "7",
// which appends to a record already holding one item.
std::string Policy(const std::string& json) {
  sandboxPolicyinfo info{"before", {SAppInfo{"i0", "n0", 5, "v0"}}};
  testsupport::LogCapture capture;
  std::string s = policyanalyzer::ReadPolicyTree(Parse(json).get(), "7", info) ? "1 " : "0 ";
  s += info.policyName + " ";
  for (const auto& a : info.allowProcess)
    s += a.id + "," + a.appName + "," + std::to_string(a.type) + "," + a.value + ";";
  return s + Logs(capture);
}

TEST(SandboxPolicy, AppendsItemsOfEveryMatchingPolicyAndTakesTheLastName) {
  const std::string none = "0 before i0,n0,5,v0;|W ", list = "{'policy':{'PolicySandBox':[";
  EXPECT_EQ(Policy("{'policy':{}}"), none + "not find param [PolicySandBox]");
  EXPECT_EQ(Policy(list + "]}}"), none + "no array");
  // Every policy with the id, compared as text; the name is the last named one's, matching or
  // not. Item checks run in value, id, name, type order; a null type is type 0. A null
  // "sandBox" is there: its policy is named and compared, then allows nothing.
  const auto no = [](const char* k) {
    return "|W not find param [" + std::string(k) + "] in array";
  };
  const std::string p = "{'sandBox':{'boxAllowProcess':[", v = "{'value':'v','id':'1','name':";
  EXPECT_EQ(
      Policy(list + p +
             "{'value':'v1','id':2,'name':'n1','type':3}]},'policyname':'x','policyid':7}," + p +
             v + "'n','type':1}]},'policyname':'y','policyid':'07'}," + p +
             "{'value':'','id':'1'},{'value':'v'}," + v + "''}," + v + "'n'}," + v +
             "'n','type':null}]},'policyname':'z','policyid':'7'},{'policyname':'a'}," +
             "{'sandBox':null,'policyname':'b','policyid':'7'},{'sandBox':{},'policyname':null}," +
             "{'sandBox':{},'policyname':'c'},{'policyname':'e','policyid':'7','sandBox':{}}," + p +
             "]},'policyname':'w','policyid':'8'}]}}"),
      "1 w i0,n0,5,v0;2,n1,3,v1;1,n,0,v;|I boxid : 7|I boxid : 07|I boxid : 7" + no("value") +
          no("id") + no("name") + no("type") + no("sandBox") + "|I boxid : 7" + no("policyname") +
          no("policyid") + "|I boxid : 7|I boxid : 8");
}

// Only a flag of 1 counts; a resource without a name or a source is skipped with a line.
TEST(ResourceList, AppendsUsableResourcesAndLogsEachSkip) {
  std::vector<SAppDesktop> out;
  testsupport::LogCapture capture;
  const std::string f = "{'isCreateIconInSandbox':";
  EXPECT_TRUE(policyanalyzer::ReadResourceTree(
      Parse("{'GatewayConfig':[" + f + "0,'AppName':'z','source':'z'}," + f +
            "1,'AppName':'A','source':'a'},{'AppName':'m','source':'m'}," + f +
            "1,'AppName':'B'}," + f + "1,'AppName':null,'source':'d'}]}")
          .get(),
      out));
  EXPECT_TRUE(out.size() == 1 && out[0].name == "A" && out[0].exec == "a");
  EXPECT_EQ(Logs(capture),
            "|E appname:A source: a|E isCreateIconInSandbox not exist2"
            "|E source not exist3|E AppName not exist4");
}

// The whitelist entries read from `text`, each after a "|".
std::string Whitelist(std::string text, const char* mode = "r") {
  std::unique_ptr<FILE, int (*)(FILE*)> in(fmemopen(text.data(), text.size(), mode), fclose);
  sandboxPolicyinfo info;
  policyanalyzer::ReadWhitelistStream(in.get(), info);
  std::string values;
  for (const auto& a : info.allowProcess)
    values += "|" + (a.type == 1 && a.id.empty() && a.appName.empty() ? a.value : "<bad>");
  return values;
}

TEST(WhitelistLines, TakenVerbatimButForOneLineEndAndTheMarkerOnce) {
  const std::string x(2046, 'x');
  EXPECT_EQ(Whitelist("a\n\n\nb"), "|a|b");
  EXPECT_EQ(Whitelist("a\nenabled=0\nenabled=1\nenabled=1\nx\n"), "|a|enabled=0|enabled=1|x");
  // A carriage return ends no line; one at the very end goes as the line end.
  EXPECT_EQ(Whitelist("a\r\r\n  # b ; \nx\r"), "|a\r\r|  # b ; |x");
  // Longer lines go in pieces of 2046; a line end alone makes no entry.
  EXPECT_EQ(Whitelist(x + "yyy\n"), "|" + x + "|yyy");
  EXPECT_EQ(Whitelist("enabled=1" + x.substr(9) + "qqq\n"), "|qqq");
  // A read error is not end of file: the loop ends rather than spins.
  EXPECT_EQ(Whitelist("a\n", "w"), "");
}

}  // namespace
