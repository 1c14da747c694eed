#include "checked_dir.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sdp_paths.h"

namespace launcherfs {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool OnlyRootMayChange(const struct stat& st) {
  return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string Describe(mode_t mode) {
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISREG(mode)) return "a regular file";
  return "not a regular file";
}

bool SetFsIds(uid_t uid, gid_t gid) {
  setfsgid(gid);
  setfsuid(uid);
  // Both calls return the previous value whatever happened; ask again.
  return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == uid &&
         static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == gid;
}

}  // namespace

bool CheckedDir::Open(const std::string& path, std::string* why) {
  fd_.reset();
  missing_ = false;
  authority_ = {geteuid(), getegid()};
  if (path.empty() || path[0] != '/') {
    *why = "not an absolute path";
    return false;
  }
  util::UniqueFd dir(open("/", kDirFlags));
  struct stat st {};
  if (!dir || fstat(dir.get(), &st) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  // "home" of "/home/": the directory whose entries are the users' homes.
  std::string homes = sdp_paths::kHomeDir;
  homes.erase(std::remove(homes.begin(), homes.end(), '/'), homes.end());
  bool firstIsHomes = false;  // the walk started down "/home"
  bool inHomes = false;       // the walk is at or below "/home/<user>"
  size_t depth = 0;
  size_t start = 1;
  while (start < path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    if (part == "." || part == "..") {
      *why = "\"" + part + "\" in the path";
      return false;
    }
    const bool trusted = OnlyRootMayChange(st);
    int next;
    {
      ActingAs as(authority_);
      if (!as.ok()) {
        *why = "cannot act as uid " + std::to_string(authority_.uid);
        return false;
      }
      next = openat(dir.get(), part.c_str(), kDirFlags | (trusted ? 0 : O_NOFOLLOW));
    }
    if (next < 0) {
      const int err = errno;
      missing_ = err == ENOENT;
      struct stat entry {};
      if ((err == ELOOP || err == ENOTDIR) &&
          fstatat(dir.get(), part.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0)
        *why = Describe(entry.st_mode);
      else
        *why = std::strerror(err);
      return false;
    }
    dir.reset(next);
    if (fstat(dir.get(), &st) != 0) {
      *why = std::strerror(errno);
      return false;
    }
    if (depth == 0) firstIsHomes = part == homes;
    if (depth == 1) inHomes = firstIsHomes;
    // Under the users' homes, the authority of whoever owns the deepest
    // directory that is not root's: that is who can change what is in it.
    if (inHomes && st.st_uid != 0) authority_ = {st.st_uid, st.st_gid};
    ++depth;
  }
  fd_ = std::move(dir);
  return true;
}

bool CheckedDir::AuthorityOfDeepest(const std::string& path, Authority* who) {
  std::string prefix = path;
  std::string why;
  for (;;) {
    CheckedDir dir;
    if (dir.Open(prefix, &why)) {
      *who = dir.authority();
      return true;
    }
    if (!dir.missing()) return false;
    const size_t slash = prefix.rfind('/');
    if (slash == std::string::npos || slash == 0) return false;
    prefix.erase(slash);
  }
}

ActingAs::ActingAs(const Authority& who) {
  if (geteuid() != 0 || (who.uid == 0 && who.gid == getegid())) {
    ok_ = true;  // nothing to lend, or root acting for root
    return;
  }
  switched_ = true;
  ok_ = SetFsIds(who.uid, who.gid);
}

ActingAs::~ActingAs() {
  if (!switched_) return;
  setfsuid(0);  // first: it gives back the capabilities that setting the group needs
  setfsgid(getegid());
}

Outcome WriteAt(const CheckedDir& dir, const std::string& name, const std::string& text,
                bool exclusive, int* err, std::string* why) {
  *err = 0;
  ActingAs as(dir.authority());
  if (!as.ok()) {
    *why = "cannot act as uid " + std::to_string(dir.authority().uid);
    return Outcome::kRefused;
  }
  const int flags =
      O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (exclusive ? O_EXCL : 0);
  util::UniqueFd fd(openat(dir.fd(), name.c_str(), flags, 0644));
  if (!fd) {
    *err = errno;
    struct stat entry {};
    const bool there = fstatat(dir.fd(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) == 0;
    if (there && !S_ISREG(entry.st_mode)) {
      *why = Describe(entry.st_mode);
      return Outcome::kRefused;
    }
    if (exclusive && *err == EEXIST) return Outcome::kExists;
    return Outcome::kFailed;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) {
    *err = errno;
    return Outcome::kFailed;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = Describe(st.st_mode);
    return Outcome::kRefused;
  }
  if (st.st_nlink != 1) {
    *why = "a file with " + std::to_string(st.st_nlink) + " links";
    return Outcome::kRefused;
  }
  if (ftruncate(fd.get(), 0) != 0) {
    *err = errno;
    return Outcome::kFailed;
  }
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *err = errno;
      return Outcome::kFailed;
    }
    done += static_cast<size_t>(n);
  }
  fchmod(fd.get(), 0755);
  return Outcome::kDone;
}

Outcome RemoveAt(const CheckedDir& dir, const std::string& name, int* err) {
  *err = 0;
  ActingAs as(dir.authority());
  if (!as.ok()) {
    *err = EPERM;
    return Outcome::kFailed;
  }
  struct stat entry {};
  if (fstatat(dir.fd(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return Outcome::kMissing;
    *err = errno;
    return Outcome::kFailed;
  }
  if (unlinkat(dir.fd(), name.c_str(), S_ISDIR(entry.st_mode) ? AT_REMOVEDIR : 0) != 0) {
    *err = errno;
    return Outcome::kFailed;
  }
  return Outcome::kDone;
}

bool ReadRegularFile(const std::string& path, std::string* text, std::string* why) {
  util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat st {};
  if (!fd || fstat(fd.get(), &st) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = Describe(st.st_mode);
    return false;
  }
  text->clear();
  char buf[8192];
  for (;;) {
    const ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *why = std::strerror(errno);
      return false;
    }
    if (n == 0) return true;
    text->append(buf, static_cast<size_t>(n));
  }
}

}  // namespace launcherfs
