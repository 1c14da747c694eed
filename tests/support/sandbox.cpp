#include "sandbox.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace testsupport {
namespace {

namespace fs = std::filesystem;

const std::string kDirs[] = {"/tmp", "/opt", "/home", "/usr/share/applications"};

// The sandbox's own account database, bound over the host's files.
const char* const kAccounts[][2] = {
    {"passwd",
     "root:x:0:0:root:/root:/bin/sh\n"
     "alice:x:1000:1000::/home/alice:/bin/sh\n"
     "mallory:x:1001:1001::/home/mallory:/bin/sh\n"
     "nobody:x:65534:65534:nobody:/nonexistent:/bin/false\n"},
    {"group",
     "root:x:0:\nalice:x:1000:\nmallory:x:1001:\ndeskgroup:x:1500:alice\nnogroup:x:65534:\n"}};

// Never returns: a test must never run half inside the sandbox.
[[noreturn]] void Die(const std::string& what, int err = errno) {
  std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), err ? strerror(err) : "failed");
  _exit(1);
}

void Write(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  if (!(out << text << std::flush)) Die("write " + path);
}

}  // namespace

void EnterSandbox(const std::vector<std::string>& keep, SandboxKind kind) {
  std::error_code ec;
  const fs::path host_ns = fs::read_symlink("/proc/self/ns/mnt", ec);
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (kind == SandboxKind::kRealRoot) {
    if (getuid() != 0 || uid != 0) {
      std::printf("SKIPPED: these tests need real root (a second uid acts in them)\n");
      std::fflush(stdout);
      _exit(77);
    }
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) Die("unshare(mount|net)");
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0)
      Die("unshare(user|mount|net); user namespaces are required for these tests");
    Write("/proc/self/setgroups", "deny");
    Write("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    Write("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  // Nothing mounted below may propagate back to the host.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Die("make / private");

  // Hold on to the kept trees before they are hidden, to bind them back.
  std::vector<std::pair<std::string, int>> kept;
  for (const auto& k : keep) {
    const std::string real = fs::canonical(k, ec);
    kept.emplace_back(real, open(real.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (kept.back().second < 0) Die("open " + k);
  }
  for (const auto& dir : kDirs) {
    if (!fs::is_directory(dir, ec))
      Die(dir + " is missing on this machine; tools/bootstrap.sh creates it", 0);
    if (mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
              dir == "/tmp" ? "mode=1777" : "mode=0755") != 0)
      Die("mount tmpfs on " + dir);
    for (const auto& [path, fd] : kept) {
      if (path != dir && path.rfind(dir + "/", 0) != 0) continue;
      fs::create_directories(path, ec);
      const std::string src = "/proc/self/fd/" + std::to_string(fd);
      if (mount(src.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        Die("bind " + path + " back");
    }
  }
  for (const auto& k : kept) close(k.second);

  // Belt and braces: refuse to run unless every directory is really private.
  if (fs::read_symlink("/proc/self/ns/mnt", ec) == host_ns)
    Die("still in the host's mount namespace", 0);
  for (const auto& dir : kDirs) {
    struct statfs st;
    if (statfs(dir.c_str(), &st) != 0 || st.f_type != TMPFS_MAGIC)
      Die(dir + " is not a private tmpfs", 0);
  }
  // Written on the fresh /tmp, so the bind mounts hide nothing of the host's.
  if (kind == SandboxKind::kRealRoot)
    for (const auto& [name, text] : kAccounts) {
      const std::string path = std::string("/tmp/.sandbox-") + name,
                        target = std::string("/etc/") + name;
      Write(path, text);
      if (mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        Die("bind " + target);
    }
  // A known address on the interface that carries the default route.
  const std::string veth = kSandboxIfName;
  const std::string ip = "PATH=$PATH:/usr/sbin:/sbin; ip link set lo up && ip link add " + veth +
                         " type veth peer name vtest1 && ip addr add " + kSandboxIpv4 + "/24 dev " +
                         veth + " && ip link set " + veth + " up && ip link set vtest1 up && " +
                         "ip route add default via 10.0.0.1 dev " + veth + " onlink";
  if (std::system(ip.c_str()) != 0) Die(ip + " (is iproute2 installed?)", 0);
}

}  // namespace testsupport
