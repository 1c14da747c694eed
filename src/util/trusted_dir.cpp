#include "trusted_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sdp_paths.h"

namespace trusted {
namespace {

std::string OwnerRefusal(const struct stat& st, uid_t self) {
  if (st.st_uid == 0 || st.st_uid == self) return "";
  return "owned by uid " + std::to_string(st.st_uid) + ", neither root nor the daemon's uid " +
         std::to_string(self);
}

// Opens and checks the session directory; -1 with `missing` or `why` set.
int OpenDir(bool& missing, std::string& why) {
  const int fd = open(sdp_paths::kCfsDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    const int e = errno;
    if (e == ENOENT) {
      missing = true;
    } else {
      // With O_DIRECTORY a link reads as ENOTDIR; lstat only names it.
      struct stat st {};
      const bool link = e == ELOOP || (e == ENOTDIR && lstat(sdp_paths::kCfsDir, &st) == 0 &&
                                       S_ISLNK(st.st_mode));
      why = std::string(sdp_paths::kCfsDir) + ": " +
            (link           ? "a symbolic link"
             : e == ENOTDIR ? "not a directory"
                            : strerror(e));
    }
    return -1;
  }
  struct stat st {};
  std::string reason = fstat(fd, &st) == 0 ? DirRefusal(st, geteuid()) : strerror(errno);
  if (!reason.empty()) {
    close(fd);
    why = std::string(sdp_paths::kCfsDir) + ": " + reason;
    return -1;
  }
  return fd;
}

}  // namespace

std::string DirRefusal(const struct stat& st, uid_t self) {
  if (!S_ISDIR(st.st_mode)) return "not a directory";
  std::string owner = OwnerRefusal(st, self);
  if (!owner.empty()) return owner;
  // Others may add entries to a sticky directory but not replace ours; what
  // they add is refused by its owner.
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0)
    return "writable by group or others and not sticky";
  return "";
}

std::string FileRefusal(const struct stat& st, uid_t self) {
  if (!S_ISREG(st.st_mode)) return "not a regular file";
  std::string owner = OwnerRefusal(st, self);
  if (!owner.empty()) return owner;
  // A second name could be a link to a file that was never meant for us.
  if (st.st_nlink != 1) return "has " + std::to_string(st.st_nlink) + " links";
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by group or others";
  return "";
}

SessionFile::SessionFile(const char* name) {
  const int dir = OpenDir(missing_, refusal_);
  if (dir < 0) return;
  const std::string path = std::string(sdp_paths::kCfsDir) + "/" + name;
  const int fd = openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  const int e = errno;
  close(dir);
  if (fd < 0) {
    if (e == ENOENT)
      missing_ = true;
    else
      refusal_ = path + ": " + (e == ELOOP ? "a symbolic link" : strerror(e));
    return;
  }
  struct stat st {};
  const std::string reason = fstat(fd, &st) == 0 ? FileRefusal(st, geteuid()) : strerror(errno);
  if (!reason.empty()) {
    close(fd);
    refusal_ = path + ": " + reason;
    return;
  }
  fd_ = fd;
  path_ = "/proc/self/fd/" + std::to_string(fd);
}

SessionFile::~SessionFile() {
  if (fd_ >= 0) close(fd_);
}

std::string SessionDirRefusal() {
  bool missing = false;
  std::string why;
  const int fd = OpenDir(missing, why);
  if (fd >= 0) close(fd);
  return why;
}

}  // namespace trusted
