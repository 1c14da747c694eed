#include "sandbox.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace testsupport {
namespace {

[[noreturn]] void Die(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::fputs("sandbox: ", stderr);
  std::vfprintf(stderr, fmt, ap);
  std::fputs("\n", stderr);
  va_end(ap);
  std::fflush(stderr);
  _exit(1);
}

void WriteProcFile(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) Die("open %s: %s", path, strerror(errno));
  ssize_t n = write(fd, text.data(), text.size());
  int err = errno;
  close(fd);
  if (n != static_cast<ssize_t>(text.size())) Die("write %s: %s", path, strerror(err));
}

bool IsUnder(const std::string& path, const std::string& dir) {
  return path == dir || (path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
                         path[dir.size()] == '/');
}

void MkdirAll(const std::string& path) {
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      std::string part = path.substr(0, i);
      if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
        Die("mkdir %s: %s", part.c_str(), strerror(errno));
    }
  }
}

ino_t MountNsInode() {
  struct stat st;
  if (stat("/proc/self/ns/mnt", &st) != 0) Die("stat /proc/self/ns/mnt: %s", strerror(errno));
  return st.st_ino;
}

void RunIp(std::vector<std::string> args) {
  const char* ip = access("/usr/sbin/ip", X_OK) == 0 ? "/usr/sbin/ip" : "/sbin/ip";
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(ip));
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid;
  int rc = posix_spawn(&pid, ip, nullptr, nullptr, argv.data(), environ);
  if (rc != 0) Die("spawn %s: %s (install iproute2)", ip, strerror(rc));
  int status = 0;
  if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::string line;
    for (auto& a : args) line += " " + a;
    Die("ip%s failed", line.c_str());
  }
}

}  // namespace

std::vector<std::string> SandboxedDirs() {
  return {"/tmp", "/opt", "/home", "/usr/share/applications"};
}

void EnterSandbox(const std::vector<std::string>& keep) {
  const ino_t host_ns = MountNsInode();
  const uid_t uid = geteuid();
  const gid_t gid = getegid();

  if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0)
    Die("unshare(user|mount|net): %s; user namespaces are required for these tests",
        strerror(errno));
  WriteProcFile("/proc/self/setgroups", "deny");
  WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");

  // Nothing mounted below may propagate back to the host.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    Die("make / private: %s", strerror(errno));

  // Hold on to the kept trees before they are hidden, to bind them back.
  struct Kept {
    std::string path;
    int fd;
  };
  std::vector<Kept> kept;
  for (const auto& k : keep) {
    char real[PATH_MAX];
    if (!realpath(k.c_str(), real)) Die("realpath %s: %s", k.c_str(), strerror(errno));
    int fd = open(real, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) Die("open %s: %s", real, strerror(errno));
    kept.push_back({real, fd});
  }

  for (const auto& dir : SandboxedDirs()) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      Die("%s is missing on this machine; tools/bootstrap.sh creates it", dir.c_str());
    const char* opts = dir == "/tmp" ? "mode=1777" : "mode=0755";
    if (mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, opts) != 0)
      Die("mount tmpfs on %s: %s", dir.c_str(), strerror(errno));
    for (const auto& k : kept) {
      if (!IsUnder(k.path, dir)) continue;
      MkdirAll(k.path);
      std::string src = "/proc/self/fd/" + std::to_string(k.fd);
      if (mount(src.c_str(), k.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        Die("bind %s back: %s", k.path.c_str(), strerror(errno));
    }
  }
  for (const auto& k : kept) close(k.fd);

  // Belt and braces: refuse to run unless every directory is really private.
  if (MountNsInode() == host_ns) Die("still in the host's mount namespace");
  for (const auto& dir : SandboxedDirs()) {
    struct statfs fs;
    if (statfs(dir.c_str(), &fs) != 0 || fs.f_type != TMPFS_MAGIC)
      Die("%s is not a private tmpfs", dir.c_str());
  }

  // A known address on the interface that carries the default route.
  RunIp({"link", "set", "lo", "up"});
  RunIp({"link", "add", kSandboxIfName, "type", "veth", "peer", "name", "vtest1"});
  RunIp({"addr", "add", std::string(kSandboxIpv4) + "/24", "dev", kSandboxIfName});
  RunIp({"link", "set", kSandboxIfName, "up"});
  RunIp({"link", "set", "vtest1", "up"});
  RunIp({"route", "add", "default", "via", "10.0.0.1", "dev", kSandboxIfName, "onlink"});
}

}  // namespace testsupport
