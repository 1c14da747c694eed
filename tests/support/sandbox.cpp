#include "sandbox.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace testsupport {
namespace {

// Never returns: a test must never run half inside the sandbox.
[[noreturn]] void Die(const std::string& what, int err = errno) {
  std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), err ? strerror(err) : "failed");
  std::fflush(stderr);
  _exit(1);
}

void WriteProcFile(const char* path, const std::string& text) {
  std::ofstream out(path);
  if (!(out << text << std::flush)) Die(std::string("write ") + path);
}

ino_t MountNsInode() {
  struct stat st;
  if (stat("/proc/self/ns/mnt", &st) != 0) Die("stat /proc/self/ns/mnt");
  return st.st_ino;
}

// Runs iproute2's `ip` (the process is still single-threaded here).
void Ip(const std::string& args) {
  const std::string cmd = "PATH=$PATH:/usr/sbin:/sbin ip " + args;
  if (std::system(cmd.c_str()) != 0) Die(cmd + " (is iproute2 installed?)", 0);
}

// The sandbox's own account database, bound over the host's files: the
// desktop user and a second local user exist only here.
void PrivateAccounts() {
  const std::string dir = "/tmp/.sandbox-etc";
  if (mkdir(dir.c_str(), 0755) != 0) Die("mkdir " + dir);
  const std::string passwd = "root:x:0:0:root:/root:/bin/sh\n" + std::string(kDesktopUser) +
                             ":x:" + std::to_string(kDesktopUid) + ":" +
                             std::to_string(kDesktopUid) + "::/home/" + kDesktopUser +
                             ":/bin/sh\n" + kOtherUser + ":x:" + std::to_string(kOtherUid) + ":" +
                             std::to_string(kOtherUid) + "::/home/" + kOtherUser +
                             ":/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n";
  const std::string group =
      "root:x:0:\n" + std::string(kDesktopUser) + ":x:" + std::to_string(kDesktopUid) + ":\n" +
      kOtherUser + ":x:" + std::to_string(kOtherUid) + ":\n" + kDesktopExtraGroup +
      ":x:" + std::to_string(kDesktopExtraGid) + ":" + kDesktopUser + "\nnogroup:x:65534:\n";
  for (const auto& [name, text] : {std::pair<std::string, std::string>{"passwd", passwd},
                                   std::pair<std::string, std::string>{"group", group}}) {
    const std::string path = dir + "/" + name;
    WriteProcFile(path.c_str(), text);
    const std::string target = "/etc/" + name;
    if (mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) Die("bind " + target);
  }
}

}  // namespace

std::vector<std::string> SandboxedDirs() {
  return {"/tmp", "/opt", "/home", "/usr/share/applications"};
}

bool CanEnterRootSandbox() { return getuid() == 0 && geteuid() == 0; }

void EnterSandbox(const std::vector<std::string>& keep, SandboxKind kind) {
  const ino_t host_ns = MountNsInode();
  if (kind == SandboxKind::kRealRoot) {
    if (!CanEnterRootSandbox()) Die("the real-root sandbox needs real root", 0);
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) Die("unshare(mount|net)");
  } else {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0)
      Die("unshare(user|mount|net); user namespaces are required for these tests");
    WriteProcFile("/proc/self/setgroups", "deny");
    WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  // Nothing mounted below may propagate back to the host.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Die("make / private");

  // Hold on to the kept trees before they are hidden, to bind them back.
  std::vector<std::pair<std::string, int>> kept;
  for (const auto& k : keep) {
    char real[PATH_MAX];
    if (!realpath(k.c_str(), real)) Die("realpath " + k);
    const int fd = open(real, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) Die(std::string("open ") + real);
    kept.emplace_back(real, fd);
  }
  for (const auto& dir : SandboxedDirs()) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      Die(dir + " is missing on this machine; tools/bootstrap.sh creates it", 0);
    if (mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
              dir == "/tmp" ? "mode=1777" : "mode=0755") != 0)
      Die("mount tmpfs on " + dir);
    for (const auto& [path, fd] : kept) {
      if (path != dir && path.compare(0, dir.size() + 1, dir + "/") != 0) continue;
      for (size_t i = dir.size() + 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
      const std::string src = "/proc/self/fd/" + std::to_string(fd);
      if (mount(src.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        Die("bind " + path + " back");
    }
  }
  for (const auto& k : kept) close(k.second);

  // Belt and braces: refuse to run unless every directory is really private.
  if (MountNsInode() == host_ns) Die("still in the host's mount namespace", 0);
  for (const auto& dir : SandboxedDirs()) {
    struct statfs fs;
    if (statfs(dir.c_str(), &fs) != 0 || fs.f_type != TMPFS_MAGIC)
      Die(dir + " is not a private tmpfs", 0);
  }
  if (kind == SandboxKind::kRealRoot) PrivateAccounts();
  // A known address on the interface that carries the default route.
  const std::string veth = kSandboxIfName;
  Ip("link set lo up");
  Ip("link add " + veth + " type veth peer name vtest1");
  Ip("addr add " + std::string(kSandboxIpv4) + "/24 dev " + veth);
  Ip("link set " + veth + " up");
  Ip("link set vtest1 up");
  Ip("route add default via 10.0.0.1 dev " + veth + " onlink");
}

}  // namespace testsupport
