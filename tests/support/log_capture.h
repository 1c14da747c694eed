// Captures glog records in-process so unit tests can assert on exact log
// texts and severities. Install one per test (RAII); thread-safe.
#pragma once

#include <glog/logging.h>

#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

struct LogRecord {
  google::LogSeverity severity;
  std::string file;  // base file name of the logging call
  std::string text;  // the message, without glog's prefix
};

class LogCapture : public google::LogSink {
 public:
  LogCapture() { google::AddLogSink(this); }
  ~LogCapture() override { google::RemoveLogSink(this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void send(google::LogSeverity severity, const char*, const char* base_filename, int,
            const google::LogMessageTime&, const char* message, size_t message_len) override {
    std::lock_guard<std::mutex> lock(mu_);
    records_.push_back({severity, base_filename, std::string(message, message_len)});
  }

  std::vector<LogRecord> records() const {
    std::lock_guard<std::mutex> lock(mu_);
    return records_;
  }
  std::vector<std::string> texts() const {  // in order
    std::vector<std::string> out;
    for (const auto& r : records()) out.push_back(r.text);
    return out;
  }
  // True when some record has exactly this text (and severity, if given).
  bool has(const std::string& text, int severity = -1) const {
    for (const auto& r : records())
      if (r.text == text && (severity < 0 || r.severity == severity)) return true;
    return false;
  }
  int count_prefix(const std::string& prefix) const {
    int n = 0;
    for (const auto& r : records()) n += r.text.compare(0, prefix.size(), prefix) == 0;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mu_);
    records_.clear();
  }

 private:
  mutable std::mutex mu_;
  std::vector<LogRecord> records_;  // guarded by mu_
};

}  // namespace testsupport
