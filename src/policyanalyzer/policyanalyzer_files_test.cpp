// The operations on their fixed files; runs in the namespace sandbox, so
// /tmp and /opt are private and empty at the start of every test.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "log_capture.h"
#include "policyanalyzer.h"
#include "sdp_paths.h"

namespace {

TEST(PolicyFiles, MissingFilesLeaveRecordsAloneUnparsableOnesClearThePolicyName) {
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

  std::filesystem::create_directories(std::filesystem::path(sdp_paths::kPolicyJson).parent_path());
  std::ofstream(sdp_paths::kResourceJson) << "not json";
  std::ofstream(sdp_paths::kPolicyJson) << "";
  capture.clear();
  EXPECT_FALSE(PolicyAnalyzer::getIns().ReadResource(resources));
  EXPECT_FALSE(PolicyAnalyzer::getIns().GetSandboxPolicyInfo("7", info));
  EXPECT_EQ("", info.policyName);
  EXPECT_EQ((std::vector<std::string>{"GatewayConfig not find!!", "get boxid info : 7",
                                      "not find param [policy]"}),
            capture.texts());
}

}  // namespace
