// Every fixed path the daemon reads or writes, in one place.
// The daemon takes no path from its command line or environment; tests reach
// these locations only inside a private mount namespace (tests/support/sandbox.h).
#pragma once

namespace sdp_paths {

// Peer daemon channel.
inline constexpr char kCfsDir[] = "/tmp/.sdp_cfs";
inline constexpr char kDaemonSocket[] = "/tmp/.sdp_cfs/.ventrald.sock";

// Per-session files written by the peer daemon.
inline constexpr char kSafespaceIni[] = "/tmp/.sdp_cfs/safespace.ini";
inline constexpr char kUserinfoIni[] = "/tmp/.sdp_cfs/userinfo.ini";
inline constexpr char kResourceJson[] = "/tmp/.sdp_cfs/resource.json";
inline constexpr char kPolicyJson[] = "/tmp/.sdp_cfs/policy.json";

// System configuration.
inline constexpr char kSyscfgIni[] = "/opt/quorvane/zentaro/ini/syscfg.ini";
inline constexpr char kCertinfoIni[] = "/opt/quorvane/zentaro/ini/certinfo.ini";
inline constexpr char kCertDir[] = "/opt/apps/morvasta/certs";

// Installation.
inline constexpr char kInstallDir[] = "/opt/apps/morvasta";
inline constexpr char kWhitelistClientConf[] = "/opt/apps/morvasta/ini/.whitelist_client.conf";
inline constexpr char kRecordOldAppNames[] = "/opt/apps/morvasta/record_old_appnames.txt";
inline constexpr char kClientApplicationsDir[] = "/opt/apps/morvasta/applications";
inline constexpr char kPopupScript[] = "/opt/apps/morvasta/sdpPopup.sh";
inline constexpr char kSsoScript[] = "/opt/apps/morvasta/dravinSSO.sh";
inline constexpr char kAumScript[] = "/opt/apps/morvasta/dravinAum.sh";

// Logging (glog file-name prefixes; glog appends time stamp and pid).
inline constexpr char kLogDir[] = "/opt/apps/morvasta/log";
inline constexpr char kLogInfoPrefix[] = "/opt/apps/morvasta/log/tolvarind.info.";
inline constexpr char kLogWarningPrefix[] = "/opt/apps/morvasta/log/tolvarind.warning.";
inline constexpr char kLogErrorPrefix[] = "/opt/apps/morvasta/log/tolvarind.error.";

// Desktop.
inline constexpr char kSystemApplicationsDir[] = "/usr/share/applications/";
inline constexpr char kHomeDir[] = "/home/";
// The session user's desktop is kHomeDir + user + one of these: the first when
// it exists, else the second (the Chinese name, UTF-8), checked or not.
inline constexpr char kUserDesktopDir[] = "/Desktop";
inline constexpr char kUserDesktopDirZh[] = "/桌面";

// The desktop user's session: /run/user/<uid> and the session bus socket in it.
inline constexpr char kUserRuntimeDirPrefix[] = "/run/user/";
inline constexpr char kSessionBusName[] = "bus";

// Network probes.
inline constexpr char kProcNetRoute[] = "/proc/net/route";

// Shell used for every external command.
inline constexpr char kShell[] = "/bin/sh";

}  // namespace sdp_paths
