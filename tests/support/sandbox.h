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

// The address the sandbox's default-route interface (vtest0) carries.
inline constexpr char kSandboxIpv4[] = "10.0.0.5";

// kUserNs: an unprivileged user namespace in which the caller is root and no
// other uid exists. kRealRoot: real root in a mount + network namespace only,
// with a private /etc/passwd and /etc/group, for tests in which a second uid
// acts: alice (uid and gid 1000, the desktop user, who owns /home/alice, also
// in group deskgroup 1500) and mallory (another local user).
enum class SandboxKind { kUserNs, kRealRoot };
inline constexpr unsigned kOtherUid = 1001;  // mallory; his gid too

// Enters the sandbox. `keep` lists directories (source and build trees) that
// must stay reachable at their own paths even when they lie under a directory
// that gets a tmpfs. Never returns on failure: prints why and exits with 1, so
// a test can never silently run against the host. kRealRoot without real root
// prints why and exits with 77, which ctest reports as skipped.
void EnterSandbox(const std::vector<std::string>& keep, SandboxKind kind = SandboxKind::kUserNs);

}  // namespace testsupport
