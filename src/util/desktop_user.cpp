#include "desktop_user.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>

#include "inifile.h"
#include "sdp_paths.h"

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

std::string ReadDesktopUserName() {
  char name[256] = {0};
  ReadStringFromIni(sdp_paths::kUserinfoIni, "UserInfo", "SysUserName", name, sizeof(name), "");
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

}  // namespace util
