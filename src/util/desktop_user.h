// Who the desktop user is, and the checks a name from the peer's files must
// pass before it becomes part of a path or a shell word. Used by the launchers
// (work in the user's home) and by the commands the peer pushes (run as that
// user).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "util.h"

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
// IsValidLoginName. The file is read only when it passes the session
// directory's checks (trusted_dir.h); when it does not, the name is "" and
// `refusal`, if given, says why.
std::string ReadDesktopUserName(std::string* refusal = nullptr);

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

// Whom the peer's commands run as. Decided afresh for each command.
enum class CommandUser {
  kDaemon,   // the daemon itself, as always
  kAccount,  // the desktop user's account, in that user's session
  kRefused,  // not run at all
};

// The rule, pure:
// - a daemon that is not root cannot change its uid, and lends nothing: itself;
// - no name (no userinfo.ini, no SysUserName): itself;
// - a name that is no login name: refused (the file is broken or forged);
// - a login name without an account: itself;
// - otherwise the account.
// Running as the daemon lends nothing: the peer that sends the command and
// the file that names the user are both proven root's or the daemon's own.
CommandUser DecideCommandUser(bool daemonIsRoot, const std::string& name, bool hasAccount);

// The environment of a command run as `account`: `base` (the daemon's) with
// HOME, USER, LOGNAME and XDG_RUNTIME_DIR set to the account's, and
// DBUS_SESSION_BUS_ADDRESS to its session bus when `busExists`, removed
// otherwise.
std::vector<std::string> SessionEnvironment(const char* const* base, const Account& account,
                                            bool busExists);

// Reads the name, applies the rule and fills `as`; false, with `why`, when
// the command is refused.
bool CommandRunAs(RunAs& as, std::string& why);

}  // namespace util
