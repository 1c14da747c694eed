#include "sandbox_log.h"

#include <glog/logging.h>

#include <string>

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
  FLAGS_max_log_size = 100;
  google::InstallFailureSignalHandler();
  google::InstallFailureWriter(&SignalHandle);
}

SandboxLOG::~SandboxLOG() { google::ShutdownGoogleLogging(); }

void SignalHandle(const char* data, std::size_t size) {
  std::string text(data, size);
  LOG(ERROR) << text;
}
