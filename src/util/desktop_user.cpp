#include "desktop_user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "inifile.h"
#include "sdp_paths.h"
#include "trusted_dir.h"

extern char** environ;

namespace util {
namespace {

bool IsAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool IsValidLoginName(const std::string& name) {
  constexpr size_t kMaxLoginName = 32;
  if (name.empty() || name.size() > kMaxLoginName) return false;
  if (!IsAsciiAlpha(name[0]) && name[0] != '_') return false;
  for (size_t i = 1; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '$' && i == name.size() - 1) break;
    if (!IsAsciiAlpha(c) && !IsAsciiDigit(c) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

bool IsPlainFileName(const std::string& name) {
  if (name.empty() || name[0] == '.') return false;
  return std::none_of(name.begin(), name.end(), [](char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return c == '/' || u < 0x20 || u == 0x7f;
  });
}

std::string ReadDesktopUserName(std::string* refusal) {
  const trusted::SessionFile file("userinfo.ini");
  if (refusal != nullptr) *refusal = file.refusal();
  if (!file.ok()) return "";
  char name[256] = {0};
  ReadStringFromIni(file.path(), "UserInfo", "SysUserName", name, sizeof(name), "");
  std::string user = name;
  user.erase(std::remove(user.begin(), user.end(), '\n'), user.end());
  return user;
}

bool LookupAccount(const std::string& name, Account& out) {
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* found = nullptr;
  if (getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr)
    return false;
  out.name = pw.pw_name;
  out.uid = pw.pw_uid;
  out.gid = pw.pw_gid;
  out.home = pw.pw_dir;
  int count = 64;
  out.groups.assign(static_cast<size_t>(count), 0);
  if (getgrouplist(pw.pw_name, pw.pw_gid, out.groups.data(), &count) < 0) {
    out.groups.assign(static_cast<size_t>(count), 0);  // count now holds the size needed
    if (getgrouplist(pw.pw_name, pw.pw_gid, out.groups.data(), &count) < 0) return false;
  }
  out.groups.resize(static_cast<size_t>(count));
  return true;
}

CommandUser DecideCommandUser(bool daemonIsRoot, const std::string& name, bool hasAccount) {
  if (!daemonIsRoot || name.empty()) return CommandUser::kDaemon;
  if (!IsValidLoginName(name)) return CommandUser::kRefused;
  return hasAccount ? CommandUser::kAccount : CommandUser::kDaemon;
}

std::vector<std::string> SessionEnvironment(const char* const* base, const Account& account,
                                            bool busExists) {
  static const char* const kSet[] = {"HOME=", "USER=", "LOGNAME=", "XDG_RUNTIME_DIR=",
                                     "DBUS_SESSION_BUS_ADDRESS="};
  std::vector<std::string> env;
  for (const char* const* e = base; e != nullptr && *e != nullptr; ++e) {
    const std::string entry = *e;
    if (std::none_of(std::begin(kSet), std::end(kSet),
                     [&](const char* name) { return entry.rfind(name, 0) == 0; }))
      env.push_back(entry);
  }
  const std::string runtime = sdp_paths::kUserRuntimeDirPrefix + std::to_string(account.uid);
  env.push_back("HOME=" + account.home);
  env.push_back("USER=" + account.name);
  env.push_back("LOGNAME=" + account.name);
  env.push_back("XDG_RUNTIME_DIR=" + runtime);
  if (busExists)
    env.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=" + runtime + "/" + sdp_paths::kSessionBusName);
  return env;
}

bool CommandRunAs(RunAs& as, std::string& why) {
  as = RunAs();
  std::string refusal;
  const std::string name = ReadDesktopUserName(&refusal);
  if (!refusal.empty()) {
    why = refusal;
    return false;
  }
  const bool root = geteuid() == 0;
  Account account;
  const bool found = root && IsValidLoginName(name) && LookupAccount(name, account);
  switch (DecideCommandUser(root, name, found)) {
    case CommandUser::kDaemon:
      return true;
    case CommandUser::kRefused:
      why = "desktop user name \"" + name + "\" is not a login name";
      return false;
    case CommandUser::kAccount:
      break;
  }
  const std::string bus = sdp_paths::kUserRuntimeDirPrefix + std::to_string(account.uid) + "/" +
                          sdp_paths::kSessionBusName;
  struct stat st {};
  const bool busExists = lstat(bus.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
  as.switchUser = true;
  as.uid = account.uid;
  as.gid = account.gid;
  as.groups = account.groups;
  as.dir = account.home.empty() ? "/" : account.home;
  as.env = SessionEnvironment(environ, account, busExists);
  return true;
}

}  // namespace util
