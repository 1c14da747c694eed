#include "sandbox_log.h"

#include <glog/logging.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "log_budget.h"
#include "sdp_paths.h"

SandboxLOG::SandboxLOG(const char* program) {
  FLAGS_log_dir = sdp_paths::kLogDir;
  google::InitGoogleLogging(program);
  FLAGS_colorlogtostderr = true;
  google::SetStderrLogging(google::GLOG_FATAL);
  google::SetLogDestination(google::GLOG_INFO, sdp_paths::kLogInfoPrefix);
  google::SetLogDestination(google::GLOG_WARNING, sdp_paths::kLogWarningPrefix);
  google::SetLogDestination(google::GLOG_ERROR, sdp_paths::kLogErrorPrefix);
  FLAGS_logbufsecs = 0;
  FLAGS_stop_logging_if_full_disk = true;
  // Small files, so that the budget can be kept by removing whole closed ones.
  FLAGS_max_log_size = kLogFileMegabytes;
  google::EnableLogCleaner(kLogMaxAgeDays);
  google::InstallFailureSignalHandler();
  google::InstallFailureWriter(&SignalHandle);
}

SandboxLOG::~SandboxLOG() { google::ShutdownGoogleLogging(); }

void SignalHandle(const char* data, std::size_t size) {
  std::string text(data, size);
  LOG(ERROR) << text;
}

void SweepLogDirectory() {
  // The file names without the directory: "tolvarind.info." and so on.
  static const std::vector<std::string> prefixes = [] {
    std::vector<std::string> v;
    for (const char* p :
         {sdp_paths::kLogInfoPrefix, sdp_paths::kLogWarningPrefix, sdp_paths::kLogErrorPrefix})
      v.emplace_back(std::strrchr(p, '/') + 1);
    return v;
  }();
  static std::atomic<bool> reported{false};
  if (logbudget::Sweep(sdp_paths::kLogDir, prefixes, kLogBudgetBytes, getpid()) < 0 &&
      !reported.exchange(true))
    LOG(WARNING) << "log directory " << sdp_paths::kLogDir
                 << " not swept: " << std::strerror(errno);
}
