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
  const std::string ready = std::string(kScratch) + "/ready." + std::to_string(++started);
  if (!peer_->SendFrame(2, 0x301, "touch " + ready)) return "could not send to the daemon";
  if (!e2e::WaitUntil([&] { return e2e::Exists(ready); }, loopTimeout))
    return "never reached the receive loop";
  return "";
}

bool DaemonRun::RunsCommand(const std::string& name, Millis timeout) {
  const std::string touched = std::string(kScratch) + "/" + name;
  return peer_->SendFrame(2, 0x301, "touch '" + touched + "'") &&
         e2e::WaitUntil([&] { return e2e::Exists(touched); }, timeout);
}

std::string DaemonRun::SanitizerReport() const {
  return daemon_ ? e2e::SanitizerReport(daemon_->Stderr()) : "";
}

void DaemonSuite::SetUpTestSuite() {
  e2e::PrepareInstallation("abc");
  run_ = new DaemonRun();
  setupError_ = run_->Start();
}

void DaemonSuite::TearDownTestSuite() {
  EXPECT_EQ(run_->SanitizerReport(), "");
  delete run_;
  run_ = nullptr;
}

void DaemonSuite::SetUp() {
  ASSERT_EQ(setupError_, "");
  ASSERT_TRUE(run_->daemon().Running());
}

void PrepareDesktopUser(const std::string& aumLines) {
  e2e::MakeDirs(kDesktop);
  e2e::WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\n" + aumLines +
                                              "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
}

}  // namespace fault
