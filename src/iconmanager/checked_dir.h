// Files in places that someone else may write, the desktop user's home above
// all: every directory is reached without following a link, every file is
// opened relative to its checked directory and checked with fstat before it is
// touched, and all of it is done with the authority of the home's owner, never
// root's. Used by IconManager, on the main thread.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace launcherfs {

// Who the daemon acts as inside a directory: under the users' homes
// ("/home/<name>" and below), the owner of the deepest directory on the way
// that is not root's; the daemon itself elsewhere.
struct Authority {
  uid_t uid;
  gid_t gid;
};

// A directory opened from "/" one component at a time. A link is followed only
// inside a directory that root owns and no one else may write (so a system
// whose /home is a link still works); anywhere else it is refused, and so is
// anything that is not a directory, "." or "..".
class CheckedDir {
 public:
  // False with `why` set when it cannot be opened; `missing()` then tells
  // whether a component simply does not exist.
  bool Open(const std::string& path, std::string* why);

  // The authority for `path` when part of it does not exist yet: that of its
  // deepest existing directory. False when a directory on the way is refused.
  static bool AuthorityOfDeepest(const std::string& path, Authority* who);

  int fd() const { return fd_.get(); }
  const Authority& authority() const { return authority_; }
  bool missing() const { return missing_; }

 private:
  util::UniqueFd fd_;
  Authority authority_{0, 0};
  bool missing_ = false;
};

// Takes on `who` as the calling thread's filesystem identity for its lifetime.
// Nothing may log while it lives: glog could open a new log file as `who`.
// A daemon that is not root keeps its own identity, which lends nothing.
class ActingAs {
 public:
  explicit ActingAs(const Authority& who);
  ~ActingAs();
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;
  bool ok() const { return ok_; }

 private:
  bool switched_ = false;
  bool ok_ = false;
};

enum class Outcome {
  kDone,     // written or removed
  kExists,   // exclusive write: a regular file is already there, left alone
  kMissing,  // removal: nothing there
  kRefused,  // a link, a FIFO or anything else that is not one regular file
  kFailed,   // the system said no; `err` holds errno
};

// Writes `text` into `name` in `dir`, mode 0755, as the directory's authority.
// `exclusive`: only a file that did not exist is written. Otherwise a regular
// file with one link is rewritten in place. `why` says what was refused.
Outcome WriteAt(const CheckedDir& dir, const std::string& name, const std::string& text,
                bool exclusive, int* err, std::string* why);

// Removes the entry `name` of `dir` (a link itself, never what it points to),
// as the directory's authority.
Outcome RemoveAt(const CheckedDir& dir, const std::string& name, int* err);

// The bytes of the regular file at `path`, opened without blocking, so that a
// FIFO is refused rather than waited on. For sources in directories that only
// root may change.
bool ReadRegularFile(const std::string& path, std::string* text, std::string* why);

}  // namespace launcherfs
