#include "tolvarind.h"

#include <glog/logging.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

#include "CSComm.h"
#include "iconmanager.h"
#include "inifile.h"
#include "netprobe.h"
#include "payloads.h"
#include "policyanalyzer.h"
#include "sdp_paths.h"
#include "service_status.h"
#include "signals.h"
#include "tcp_client.h"
#include "desktop_user.h"
#include "trusted_dir.h"
#include "util.h"

namespace {

// Size of the formatted command buffers (a longer command is cut).
constexpr size_t kCommandBufSize = 2056;
// The result a refused command reports in place of system_output's.
constexpr int kCommandRefused = -5;
// The fifth heartbeat clears the address caches, so the sixth probes again.
constexpr int kHeartbeatsPerProbe = 5;

// The peer answers every heartbeat; one line in five is enough to show it.
EveryNSampler g_heartbeatReplyLog(5);

// The service manager's status line while the channel is down.
constexpr char kReconnectingStatus[] = "connection to the peer lost, reconnecting";
std::string RegisteredStatus(const char* sandboxId) {
  return std::string("registered with sandbox ") + sandboxId;
}


// Runs a command of the peer as the desktop user (desktop_user.h says who
// that is); -5 when it is refused, with one ERROR line saying why.
int RunPeerCommand(const std::string& command, std::string& output, int timeout) {
  util::RunAs as;
  std::string why;
  if (!util::CommandRunAs(as, why)) {
    output.clear();
    LOG(ERROR) << "command refused: " << why;
    return kCommandRefused;
  }
  return util::system_output(command, output, timeout, as);
}

}  // namespace

std::string tolvarind::Refusal() const {
  {
    std::lock_guard<std::mutex> lock(m_refusalMutex);
    if (!m_refusal.empty()) return m_refusal;
  }
  // After start-up, only the reconnections can refuse: the peer itself.
  return m_tcpClient != nullptr ? m_tcpClient->PeerRefusal() : "";
}

void tolvarind::SetRefusal(const std::string& why) {
  std::lock_guard<std::mutex> lock(m_refusalMutex);
  m_refusal = why;
}

tolvarind::tolvarind() : m_tcpClient(std::make_unique<TCP_Client>()), m_heartCount(0) {
  std::memset(m_sandboxId, 0, sizeof(m_sandboxId));
}

tolvarind::~tolvarind() {
  // A send blocked for good in the heartbeat thread would still use the
  // channel: leave it allocated rather than free it under that thread.
  const bool stopped = StopHeartbeat(std::chrono::seconds(10));
  if (!m_tcpClient) return;
  m_tcpClient->Destroy();  // closes, and ends the reconnect thread's loop
  if (!stopped) {
    LOG(WARNING) << "heart beat thread still sending, channel kept";
    (void)m_tcpClient.release();  // deliberately never freed
  }
}

bool tolvarind::init() {
  {
    // Nothing from the peer's directory is believed before it and the file
    // pass their checks; a refusal is retried like any failed start-up.
    const trusted::SessionFile safespace("safespace.ini");
    SetRefusal(safespace.refusal());
    if (!safespace.refusal().empty()) {
      LOG(ERROR) << "not trusted: " << safespace.refusal();
      ServiceStartupRefused(safespace.refusal());
      return false;
    }
    if (safespace.ok()) {
      ReadStringFromIni(safespace.path(), "SafeWorkSpace", "SandboxID", m_sandboxId,
                        sizeof(m_sandboxId), "");
      LOG(INFO) << "Read sandbox id is :" << m_sandboxId;
    }
  }
  if (m_sandboxId[0] == '\0') {
    LOG(ERROR) << "Read sandbox id error :" << sdp_paths::kSafespaceIni;
    ServiceStatus(std::string("waiting for the sandbox id in ") + sdp_paths::kSafespaceIni);
    return false;
  }

  int protocol = 0;
  int version = 0;
  ReadIntFromIni(sdp_paths::kSyscfgIni, "ventrald", "protocol", protocol, 0);
  ReadIntFromIni(sdp_paths::kSyscfgIni, "ventrald", "version", version, 0);

  Option option;
  option.reserved1[0] = 0;
  option.reserved1[1] = 1;
  option.reserved1[2] = 1;
  option.reserved1[3] = 5;
  option.reserved2 = 0;
  option.reconnect = 1;
  option.protocol = static_cast<unsigned short>(protocol);
  option.version = static_cast<unsigned short>(version);
  option.sendTimeout = 0;
  option.recvTimeout = 0;
  std::memset(option.unixPath, 0, sizeof(option.unixPath));
  std::snprintf(option.unixPath, sizeof(option.unixPath), "%s", sdp_paths::kDaemonSocket);
  std::memset(option.host, 0, sizeof(option.host));
  option.clientType = CLIENT_TYPE_UNIX;
  option.handler = nullptr;

  {
    // The reconnect and heartbeat threads start in here (see the header).
    TerminationSignalsBlocked blocked;
    if (m_tcpClient->Init(option) < 1) {
      SetRefusal(m_tcpClient->PeerRefusal());
      LOG(ERROR) << "initDaemonClient:" << sdp_paths::kDaemonSocket << " failed";
      if (!Refusal().empty())
        ServiceStartupRefused(Refusal());
      else
        ServiceStatus(std::string("waiting for the peer's socket ") + sdp_paths::kDaemonSocket);
      return false;
    }
    if (RegisterToDaemon() < 0) {
      LOG(ERROR) << "Register To Daemon Error";
      ServiceStatus("registration with the peer failed, retrying");
      return false;
    }
    if (!StartHeartbeat()) return false;
  }
  LOG(INFO) << "init finish..";
  ServiceReady(RegisteredStatus(m_sandboxId));
  return true;
}

void tolvarind::StartHttpsEndpointThread() {
  // SIGINT stays off the endpoint's thread as well: its handler asks the loop
  // to exit, which takes the event base's lock, and on the loop's own thread,
  // while the loop holds that lock, it would wait for ever.
  TerminationSignalsBlocked blocked(/*sigintToo=*/true);
  std::thread([this] { start_https_server(); }).detach();
}

int tolvarind::RegisterToDaemon() {
  const std::string reg = payload::Registration(m_sandboxId);
  return m_tcpClient->SendMessage(MCMD_TO_DAEMON, SDP_PROTO_REGISTER, reg.data(),
                                  static_cast<int>(reg.size()));
}

void tolvarind::SendHeartBeat() {
  if (m_ipv4.empty()) m_ipv4 = netprobe::GetSystemIpv4();
  if (m_ipv6.empty()) m_ipv6 = netprobe::GetSystemIpv6();
  const std::string beat = payload::Heartbeat(m_sandboxId, m_ipv4, m_ipv6);
  LOG(INFO) << "send heart beat";
  const int sent = m_tcpClient->SendMessage(MCMD_TO_DAEMON, SDP_PROTO_HEARTBEAT, beat.data(),
                                            static_cast<int>(beat.size()));
  // A heartbeat is what shows a connection the reconnect thread made usable.
  ServiceStatus(sent < 0 ? kReconnectingStatus : RegisteredStatus(m_sandboxId));
  if (m_heartCount >= kHeartbeatsPerProbe - 1) {
    m_ipv4.clear();
    m_ipv6.clear();
    m_heartCount = 0;
  } else {
    ++m_heartCount;
  }
}

bool tolvarind::StartHeartbeat() {
  m_beatStop = false;
  m_beatRunning = true;
  try {
    std::thread([this] { HeartbeatLoop(); }).detach();
  } catch (const std::system_error& e) {
    LOG(ERROR) << "start heart beat thread failed:" << e.what();
    m_beatRunning = false;
    return false;
  }
  return true;
}

void tolvarind::HeartbeatLoop() {
  for (;;) {
    if (m_beatStop) break;
    SendHeartBeat();
    std::unique_lock<std::mutex> lock(m_beatMutex);
    if (m_beatCv.wait_for(lock, kHeartbeatInterval, [this] { return m_beatStop.load(); })) break;
  }
  m_beatRunning = false;  // the thread's last touch of the object
}

bool tolvarind::StopHeartbeat(std::chrono::milliseconds timeout) {
  {
    std::lock_guard<std::mutex> lock(m_beatMutex);
    m_beatStop = true;
  }
  m_beatCv.notify_all();
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (m_beatRunning) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void tolvarind::run() {
  if (!m_tcpClient->IsAvaliable()) {
    LOG(ERROR) << "not avaliable!!!";
    return;
  }

  // What these steps report does not matter: the loop starts whatever the
  // policy, the whitelist and the launchers gave.
  sandboxPolicyinfo policy;
  const std::string boxId(m_sandboxId);
  PolicyAnalyzer::getIns().GetSandboxPolicyInfo(boxId, policy);
  PolicyAnalyzer::getIns()._readWListClient(policy);
  IconManager::getIns().iconInit(policy.allowProcess);
  DealUserInfoIni();

  sdpmsg_t msg;
  std::memset(&msg, 0, sizeof(msg));
  bool lost = false;  // the status line says so
  for (;;) {
    int len;
    // No pause here: while there is no connection the receive itself waits up
    // to a second for the reconnect thread, which paces this line.
    while ((len = m_tcpClient->RecvMessage(&msg)) < 0) {
      LOG(ERROR) << "daemon_client recv message failed, wailt reconnect";
      if (!lost) ServiceStatus(kReconnectingStatus);
      lost = true;
    }
    if (lost) ServiceStatus(RegisteredStatus(m_sandboxId));
    lost = false;

    if (msg.m_cmd != MCMD_FROM_DAEMON) continue;
    LOG(INFO) << " got message from server cmd 0x:" << std::hex << msg.s_cmd;

    switch (msg.s_cmd) {
      case SANDBOX_S2B_OPENBSAPP: {
        // The peer is trusted by design (and proven, see init): its body runs
        // as the desktop user.
        const std::string command(msg.data, len);
        std::string output;
        int rc = RunPeerCommand(command, output, util::kCommandTimeout);
        LOG(INFO) << " got SANDBOX_S2B_OPENBSAPP message from server res:" << rc << " " << output;
        break;
      }
      case SANDBOX_S2B_RESPONSE:
        LOG(INFO) << " got SANDBOX_S2B_RESPONSE message from server";
        break;
      case SANDBOX_S2B_OPEN_DRAVIN_PORTAL:
        LOG(INFO) << " got SANDBOX_S2B_OPEN_DRAVIN_PORTAL message from server";
        OpenSolmeriUrl(std::string(msg.data, len));
        break;
      case SANDBOX_A2F_ILLEGAL:
        LOG(INFO) << " got SANDBOX_A2F_ILLEGAL message from server msg:" << msg.data;
        HandleIllegalMessage(std::string(msg.data));
        break;
      case SANDBOX_TO_LOCAL: {
        // No time limit and no status: the pop-up script is the user's to close.
        const std::string command =
            std::string(sdp_paths::kPopupScript) + " " + std::string(msg.data, len);
        // Not std::system: the script runs as the desktop user, and starts
        // with no signal blocked although the process keeps the termination
        // signals blocked for its signal thread.
        util::RunAs as;
        std::string why;
        if (util::CommandRunAs(as, why))
          util::system_run(command, as);
        else
          LOG(ERROR) << "command refused: " << why;
        LOG(INFO) << " got SANDBOX_TO_LOCAL message from server";
        break;
      }
      case SDP_PROTO_OPEN_SANDBOX:
        LOG(INFO) << " got SDP_PROTO_OPEN_SANDBOX message from server";
        break;
      case SDP_PROTO_CLOSE_SANDBOX:
        LOG(INFO) << " got SDP_PROTO_CLOSE_SANDBOX message from server";
        break;
      case SDP_PROTO_HEARTBEAT:
        if (g_heartbeatReplyLog.Next()) LOG(INFO) << " got heatbeat message from server";
        break;
      default:
        break;
    }
  }
}

bool tolvarind::OpenSolmeriUrl(const std::string& url) {
  LOG(INFO) << "open solmeri req: " << url;
  char command[kCommandBufSize] = {0};
  // Two blanks before the URL, as the portal script has always been called.
  std::snprintf(command, sizeof(command), "%s  %s", sdp_paths::kSsoScript, url.c_str());
  std::string output;
  int rc = RunPeerCommand(command, output, util::kCommandTimeout);
  LOG(INFO) << "open solmeri res: " << rc;
  // system_output never gives 0 for a command that ran, so this is false in
  // practice; callers ignore it.
  return rc == 0;
}

void tolvarind::HandleIllegalMessage(const std::string& msg) {
  char command[kCommandBufSize] = {0};
  std::snprintf(command, sizeof(command),
                "notify-send -i info -t 5000  非法访问  %s不属于应用白名单", msg.c_str());
  std::string output;
  RunPeerCommand(command, output, util::kCommandTimeout);
}

void tolvarind::DealUserInfoIni() {
  // All four lines at ERROR on purpose: operators read the error log.
  LOG(ERROR) << "deal user resource begin";
  std::vector<SAppDesktop> apps;
  if (!PolicyAnalyzer::getIns().ReadResource(apps)) {
    LOG(ERROR) << "read userinfo failed!";
    return;
  }
  LOG(ERROR) << "deal user resource size:" << apps.size();
  if (!IconManager::getIns().produceDesktopFile(apps)) LOG(ERROR) << "produce desktop failed!";
}
