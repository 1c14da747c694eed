// What the daemon tells its service manager: READY=1 once start-up has
// succeeded, and a one-line STATUS= that `systemctl status tolvarind` shows.
// Under systemd (NOTIFY_SOCKET set, unit Type=notify) each call sends one
// datagram through libsystemd's sd_notify; anywhere else it does nothing.
// No call logs, blocks or fails the caller. Safe from any thread.
#pragma once

#include <string>

// Sets the status line. A text equal to the last one sent is not sent again,
// so a loop may call this on every pass.
void ServiceStatus(const std::string& text);

// Start-up has succeeded: READY=1 with the status line `text`.
void ServiceReady(const std::string& text);

// Start-up is refused for `reason` (and will be tried again): the status line
// "start-up refused: <reason>".
void ServiceStartupRefused(const std::string& reason);
