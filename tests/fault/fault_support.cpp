#include "fault_support.h"

#include "sdp_paths.h"

namespace fault {

std::string DaemonRun::Start(Millis loopTimeout) {
  e2e::MakeDirs(kScratch);
  peer_ = std::make_unique<sdppeer::PeerServer>();
  std::string error;
  if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) return "peer: " + error;
  daemon_ = std::make_unique<e2e::Daemon>();
  if (!daemon_->Started()) return "daemon did not start";
  // The first attempt comes 3 seconds after start.
  if (!peer_->WaitFrame(0x1005, 10s)) return "no registration";
  // Commands are taken only once the desktop is prepared, so a command that
  // ran marks the end of start-up.
  static int started = 0;
  return RunsCommand("ready." + std::to_string(++started), loopTimeout)
             ? ""
             : "never reached the receive loop";
}

bool DaemonRun::RunsCommand(const std::string& name, Millis timeout) {
  const std::string touched = std::string(kScratch) + "/" + name;
  return peer_->SendFrame(2, 0x301, "touch '" + touched + "'") &&
         e2e::WaitUntil([&] { return e2e::Exists(touched); }, timeout);
}

std::string DaemonRun::SanitizerReport() const {
  return daemon_ ? e2e::SanitizerReport(daemon_->Stderr()) : "";
}

void PrepareDesktopUser(const std::string& aumLines) {
  e2e::MakeDirs(kDesktop);
  e2e::WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\n" + aumLines +
                                              "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
}

}  // namespace fault
