// Who the desktop user is, and the checks a name from the peer's files must
// pass before it becomes part of a path or a shell word. Used by the launchers
// (work in the user's home) and by the commands the peer pushes (run as that
// user).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace util {

// A login name as Debian's tools create them: a letter or "_" first, then
// letters, digits, ".", "_" or "-", an optional final "$", at most 32 bytes.
// Nothing else (no "/", blank, "|", line end or leading "-" or ".") passes.
bool IsValidLoginName(const std::string& name);

// A name that stays one entry of the directory it is joined to: not empty, no
// "/", no leading ".", no control character (line ends included).
bool IsPlainFileName(const std::string& name);

// "SysUserName" of the peer's userinfo.ini with every line end removed, as the
// launchers have always taken it; "" when unset. Not checked: see
// IsValidLoginName.
std::string ReadDesktopUserName();

struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;
  std::vector<gid_t> groups;  // supplementary groups, the primary one included
};

// The account database's entry for `name`, with its groups. False when there
// is none (or the lookup failed).
bool LookupAccount(const std::string& name, Account& out);

}  // namespace util
