// The file readers while another thread rewrites their files in place. The
// writer only ever writes the full text or a beginning of it, so whatever a
// reader sees is a beginning of the full text, and its result must be what
// that beginning gives: the JSON readers all or nothing, the line readers a
// prefix of the full list whose last line may be cut, the INI reader the
// value, a beginning of it, or the default. Nothing may crash or hang.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "daemon_harness.h"
#include "iconmanager.h"
#include "inifile.h"
#include "policyanalyzer.h"
#include "sdp_paths.h"

// Reaches the record members of the launcher singleton (declared a friend).
class IconManagerTestPeer {
 public:
  static std::vector<std::string>& AppNames() { return IconManager::getIns().appNames; }
  static std::string& RecordFile() { return IconManager::getIns().recordFile; }
};

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Rewrites `path` in place with `full` or a beginning of it, a few hundred
// bytes at a time, until stopped.
class InPlaceWriter {
 public:
  InPlaceWriter(std::string path, std::string full)
      : path_(std::move(path)), full_(std::move(full)), thread_([this] { Run(); }) {}
  ~InPlaceWriter() {
    stop_ = true;
    thread_.join();
  }

 private:
  void Run() {
    for (unsigned round = 0; !stop_; ++round) {
      const size_t len = full_.size() * (round % 5 + 1) / 5;  // a fifth ... all of it
      const int fd = open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
      if (fd < 0) return;
      for (size_t off = 0; off < len && !stop_; off += 300) {
        const size_t n = std::min<size_t>(300, len - off);
        if (write(fd, full_.data() + off, n) != static_cast<ssize_t>(n)) break;
        sched_yield();
      }
      close(fd);
    }
  }

  const std::string path_, full_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Reads until both a complete and an incomplete result were seen, at least
// `minReads` times, or the time is up. `read` returns true for a complete one.
template <typename Read>
void ReadUnderRewrite(Read read, int minReads = 200) {
  int reads = 0, complete = 0, partial = 0;
  const auto end = Clock::now() + 8s;
  while (Clock::now() < end && (reads < minReads || complete == 0 || partial == 0)) {
    (read() ? complete : partial)++;
    ++reads;
  }
  // Both kinds must have happened, or the race was not exercised.
  EXPECT_GT(complete, 0) << reads << " reads";
  EXPECT_GT(partial, 0) << reads << " reads";
}

std::string Lines(const std::string& prefix, int n) {
  std::string text;
  for (int i = 0; i < n; ++i) text += prefix + std::to_string(i) + "\n";
  return text;
}

// `got` is what a beginning of `full` gives: whole lines, then maybe a cut one.
::testing::AssertionResult IsPrefixList(const std::vector<std::string>& got,
                                        const std::vector<std::string>& full) {
  if (got.size() > full.size()) return ::testing::AssertionFailure() << got.size() << " entries";
  for (size_t i = 0; i < got.size(); ++i) {
    const bool last = i + 1 == got.size();
    if (got[i] == full[i]) continue;
    if (last && full[i].compare(0, got[i].size(), got[i]) == 0) continue;
    return ::testing::AssertionFailure() << "entry " << i << " is \"" << got[i] << "\"";
  }
  return ::testing::AssertionSuccess();
}

TEST(ReadersUnderRewrite, ResourceListIsReadWholeOrNotAtAll) {
  e2e::MakeDirs(sdp_paths::kCfsDir);
  std::string json = "{\"GatewayConfig\":[";
  for (int i = 0; i < 300; ++i)
    json += std::string(i ? "," : "") + R"({"isCreateIconInSandbox":1,"AppName":"N)" +
            std::to_string(i) + R"(","source":"s)" + std::to_string(i) + "\"}";
  json += "]}";
  e2e::WriteFile(sdp_paths::kResourceJson, json);
  InPlaceWriter writer(sdp_paths::kResourceJson, json);
  ReadUnderRewrite([] {
    std::vector<SAppDesktop> out;
    const bool ok = PolicyAnalyzer::getIns().ReadResource(out);
    EXPECT_EQ(out.size(), ok ? 300u : 0u);
    if (ok) {
      EXPECT_EQ(out.back().exec, "s299");
    }
    return ok;
  });
}

TEST(ReadersUnderRewrite, PolicyIsReadWholeOrNotAtAll) {
  e2e::MakeDirs(sdp_paths::kCfsDir);
  std::string items;
  for (int j = 0; j < 300; ++j)
    items += std::string(j ? "," : "") + R"({"value":"/usr/bin/a)" + std::to_string(j) +
             R"(","id":"1","name":"A","type":1})";
  const std::string json = R"({"policy":{"PolicySandBox":[{"policyname":"p","policyid":"7",)"
                           R"("sandBox":{"boxAllowProcess":[)" + items + "]}}]}}";
  e2e::WriteFile(sdp_paths::kPolicyJson, json);
  InPlaceWriter writer(sdp_paths::kPolicyJson, json);
  ReadUnderRewrite([] {
    sandboxPolicyinfo info;
    const bool ok = PolicyAnalyzer::getIns().GetSandboxPolicyInfo("7", info);
    EXPECT_EQ(info.allowProcess.size(), ok ? 300u : 0u);
    if (ok) {
      EXPECT_EQ(info.policyName, "p");
    }
    return ok;
  });
}

TEST(ReadersUnderRewrite, WhitelistGivesABeginningOfItsEntries) {
  e2e::MakeDirs("/opt/apps/morvasta/ini");
  const std::string text = Lines("/usr/bin/app-number-", 400);
  std::vector<std::string> full;
  for (int i = 0; i < 400; ++i) full.push_back("/usr/bin/app-number-" + std::to_string(i));
  e2e::WriteFile(sdp_paths::kWhitelistClientConf, text);
  InPlaceWriter writer(sdp_paths::kWhitelistClientConf, text);
  ReadUnderRewrite([&] {
    sandboxPolicyinfo info;
    EXPECT_TRUE(PolicyAnalyzer::getIns()._readWListClient(info));
    std::vector<std::string> got;
    for (const auto& app : info.allowProcess) got.push_back(app.value);
    EXPECT_TRUE(IsPrefixList(got, full));
    return got == full;
  });
}

TEST(ReadersUnderRewrite, RecordGivesABeginningOfItsPaths) {
  e2e::MakeDirs("/opt/apps/morvasta");
  const std::string text = Lines("/home/alice/Desktop/launcher-", 400);
  std::vector<std::string> full;
  for (int i = 0; i < 400; ++i) full.push_back("/home/alice/Desktop/launcher-" + std::to_string(i));
  e2e::WriteFile(sdp_paths::kRecordOldAppNames, text);
  IconManagerTestPeer::RecordFile() = sdp_paths::kRecordOldAppNames;
  InPlaceWriter writer(sdp_paths::kRecordOldAppNames, text);
  ReadUnderRewrite([&] {
    auto& names = IconManagerTestPeer::AppNames();
    names.clear();
    IconManager::getIns().loadAppNameFromFile();
    EXPECT_TRUE(IsPrefixList(names, full));
    return names == full;
  });
}

TEST(ReadersUnderRewrite, IniLookupGivesTheValueABeginningOfItOrTheDefault) {
  e2e::MakeDirs(sdp_paths::kCfsDir);
  std::string text = "[UserInfo]\nSysUserName=alice\n[Aum]\n";
  for (int i = 0; i < 200; ++i)
    text += "res" + std::to_string(i) + "=https://res" + std::to_string(i) + ".example/path\n";
  e2e::WriteFile(sdp_paths::kUserinfoIni, text);
  InPlaceWriter writer(sdp_paths::kUserinfoIni, text);
  const std::string want = "https://res150.example/path";
  ReadUnderRewrite([&] {
    char out[128];
    const int r = ReadStringFromIni(sdp_paths::kUserinfoIni, "Aum", "res150", out, sizeof out,
                                    "none");
    const std::string got = out;
    if (r != 0) {
      EXPECT_EQ(got, "none");
    } else {
      EXPECT_EQ(want.compare(0, got.size(), got), 0) << got;
    }
    return got == want;
  });
}

}  // namespace
