// The operations on their fixed files; runs in the namespace sandbox, so
// /tmp and /opt are private and empty at the start of every test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "log_capture.h"
#include "policyanalyzer.h"
#include "sdp_paths.h"

namespace {

void WriteFile(const std::string& path, const std::string& text) {
  for (size_t i = 1; i < path.size(); ++i)
    if (path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
  std::ofstream(path, std::ios::binary) << text;
}

TEST(PolicyFiles, MissingFilesAreNoErrorAndLeaveRecordsAlone) {
  testsupport::LogCapture capture;
  std::vector<SAppDesktop> resources;
  EXPECT_FALSE(PolicyAnalyzer::getIns().ReadResource(resources));
  EXPECT_TRUE(resources.empty());
  sandboxPolicyinfo info{"old", {SAppInfo{"1", "a", 1, "v"}}};
  EXPECT_FALSE(PolicyAnalyzer::getIns().GetSandboxPolicyInfo("7", info));
  EXPECT_TRUE(PolicyAnalyzer::getIns()._readWListClient(info));
  EXPECT_EQ("old", info.policyName);
  EXPECT_EQ(1u, info.allowProcess.size());
  EXPECT_EQ((std::vector<std::string>{"GatewayConfig not find!!", "get boxid info : 7",
                                      "policy file not exist:/tmp/.sdp_cfs/policy.json"}),
            capture.texts());
}

TEST(PolicyFiles, UnparsableFilesAreNotFoundButThePolicyNameIsCleared) {
  WriteFile(sdp_paths::kResourceJson, "not json");
  WriteFile(sdp_paths::kPolicyJson, "");
  testsupport::LogCapture capture;
  std::vector<SAppDesktop> resources;
  EXPECT_FALSE(PolicyAnalyzer::getIns().ReadResource(resources));
  sandboxPolicyinfo info{"old", {}};
  EXPECT_FALSE(PolicyAnalyzer::getIns().GetSandboxPolicyInfo("7", info));
  EXPECT_EQ("", info.policyName);
  EXPECT_TRUE(capture.has("GatewayConfig not find!!", google::GLOG_INFO));
  EXPECT_TRUE(capture.has("not find param [policy]", google::GLOG_WARNING));
}

}  // namespace
