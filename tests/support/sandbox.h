// A private sandbox for tests of code that uses fixed system paths, and for
// the daemon's end-to-end tests: a new user + mount + network namespace with
// root mapped, fresh tmpfs over /tmp, /opt, /home and /usr/share/applications,
// and a veth pair that gives the namespace a known IPv4 address and a default
// route. The host's real directories are never written.
//
// Threads: call before any thread starts (unshare(CLONE_NEWUSER) requires a
// single-threaded process). Every process started afterwards inherits it.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// The address the sandbox's default-route interface carries.
inline constexpr char kSandboxIfName[] = "vtest0";
inline constexpr char kSandboxIpv4[] = "10.0.0.5";

// The directories that get a fresh tmpfs.
std::vector<std::string> SandboxedDirs();

// kUserNs: an unprivileged user namespace in which the caller is root and no
// other uid exists. kRealRoot: real root in a mount + network namespace only,
// with a private /etc/passwd and /etc/group holding the accounts below, for
// tests in which a second uid (the desktop user, an attacker) acts.
enum class SandboxKind { kUserNs, kRealRoot };

inline constexpr char kDesktopUser[] = "alice";  // owns /home/alice
inline constexpr unsigned kDesktopUid = 1000;    // gid too
inline constexpr char kDesktopExtraGroup[] = "deskgroup";
inline constexpr unsigned kDesktopExtraGid = 1500;  // alice's supplementary group
inline constexpr char kOtherUser[] = "mallory";     // another local user
inline constexpr unsigned kOtherUid = 1001;

// True when this process may enter the kRealRoot sandbox.
bool CanEnterRootSandbox();

// Enters the sandbox. `keep` lists directories (source and build trees) that
// must stay reachable at their own paths even when they lie under a directory
// that gets a tmpfs. Never returns on failure: prints why and exits with 1, so
// a test can never silently run against the host.
void EnterSandbox(const std::vector<std::string>& keep, SandboxKind kind = SandboxKind::kUserNs);

}  // namespace testsupport
