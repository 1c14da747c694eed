#include "service_status.h"

#include <systemd/sd-daemon.h>

#include <mutex>

namespace {

std::mutex g_mutex;  // guards g_last, and keeps the datagrams in call order
std::string g_last;  // the status line last sent

void Notify(const std::string& fields) {
  // unset_environment 0: NOTIFY_SOCKET stays for the next call. The
  // children the daemon runs inherit it, but the unit's NotifyAccess=main
  // makes systemd ignore anything they send.
  sd_notify(0, fields.c_str());
}

// One line: a line feed would end the STATUS= field and start another.
std::string OneLine(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  return text;
}

}  // namespace

void ServiceStatus(const std::string& text) {
  const std::string line = OneLine(text);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (line == g_last) return;
  g_last = line;
  Notify("STATUS=" + line);
}

void ServiceReady(const std::string& text) {
  const std::string line = OneLine(text);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_last = line;
  Notify("READY=1\nSTATUS=" + line);
}

void ServiceStartupRefused(const std::string& reason) {
  ServiceStatus("start-up refused: " + reason);
}
