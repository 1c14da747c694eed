#include "sandbox.h"

#include <err.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

// Every failure exits with 1 and says why (err(3)): a test must never run
// half inside the sandbox.
namespace testsupport {
namespace {

namespace fs = std::filesystem;

const std::string kDirs[] = {"/tmp", "/opt", "/home", "/usr/share/applications"};

// The sandbox's own account database, bound over the host's files.
const char* const kAccounts[][2] = {
    {"passwd",
     "root:x:0:0:root:/root:/bin/sh\nalice:x:1000:1000::/home/alice:/bin/sh\nmallory:x:1001:1001::"
     "/home/mallory:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n"},
    {"group",
     "root:x:0:\nalice:x:1000:\nmallory:x:1001:\ndeskgroup:x:1500:alice\nnogroup:x:65534:\n"}};

void Write(const std::string& path, const std::string& text) {
  if (!(std::ofstream(path) << text << std::flush)) err(1, "write %s", path.c_str());
}

}  // namespace

void EnterSandbox(const std::vector<std::string>& keep, SandboxKind kind) {
  std::error_code ec;
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  if (kind == SandboxKind::kRealRoot && (getuid() != 0 || geteuid() != 0)) {
    std::printf("SKIPPED: these tests need real root (a second uid acts in them)\n");
    std::exit(77);
  }
  const bool userNs = kind == SandboxKind::kUserNs;
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | (userNs ? CLONE_NEWUSER : 0)) != 0)
    err(1, "unshare(%smount|net)", userNs ? "user|" : "");
  if (userNs) {
    Write("/proc/self/setgroups", "deny");
    Write("/proc/self/uid_map", "0 " + uid + " 1");
    Write("/proc/self/gid_map", "0 " + gid + " 1");
  }
  // Nothing mounted below may propagate back to the host.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) err(1, "make / private");

  // Hold on to the kept trees before they may be hidden, to bind them back
  // (onto themselves, harmlessly, when nothing hides them).
  std::vector<std::pair<std::string, int>> kept;
  for (const auto& k : keep)
    kept.emplace_back(fs::canonical(k, ec), open(k.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (const auto& dir : kDirs) {
    if (mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
              dir == "/tmp" ? "mode=1777" : "mode=0755") != 0)
      err(1, "mount tmpfs on %s (tools/bootstrap.sh creates a missing one)", dir.c_str());
  }
  for (const auto& [path, fd] : kept) {
    fs::create_directories(path, ec);
    const std::string src = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || mount(src.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
      err(1, "bind %s back", path.c_str());
    close(fd);
  }

  // Written on the fresh /tmp, so the bind mounts hide nothing of the host's.
  for (const auto& [name, text] : kAccounts) {
    const std::string path = std::string("/tmp/.sandbox-") + name;
    if (kind != SandboxKind::kRealRoot) continue;
    Write(path, text);
    if (mount(path.c_str(), ("/etc/" + std::string(name)).c_str(), nullptr, MS_BIND, nullptr) != 0)
      err(1, "bind /etc/%s", name);
  }
  // A known address on the interface that carries the default route.
  const std::string ip =
      "PATH=$PATH:/usr/sbin:/sbin; ip link set lo up && ip link add vtest0 type veth peer name "
      "vtest1 && ip addr add 10.0.0.5/24 dev vtest0 && ip link set vtest0 up && ip link set vtest1 "
      "up && ip route add default via 10.0.0.1 dev vtest0 onlink";
  if (std::system(ip.c_str()) != 0) errx(1, "%s (is iproute2 installed?)", ip.c_str());
}

}  // namespace testsupport
