// The peer's session directory (/tmp/.sdp_cfs) and the files the daemon reads
// from it, checked before anything in them is believed. /tmp is open to every
// local user: whoever creates the directory first, or a file in it, would
// otherwise choose the sandbox id, the desktop user and the resource list. Only
// root and the daemon's own user are trusted, as OpenSSH trusts a path only
// when root or its user owns it and nobody else can change it.
//
// Used by the start-up (safespace.ini), the desktop user's name (userinfo.ini)
// and the resource and policy readers (the two JSON files). Any thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace trusted {

// Why a directory with status `st` is not to be trusted by a daemon whose
// effective uid is `self`; "" when it is. Trusted: a directory owned by root
// or `self`, which others may write only if it is sticky.
std::string DirRefusal(const struct stat& st, uid_t self);

// The same for a file read from such a directory: a regular file with one
// link, owned by root or `self`, that nobody else may write.
std::string FileRefusal(const struct stat& st, uid_t self);

// One file of the session directory, opened through a checked descriptor of
// the directory (never following a link, never blocking on a FIFO) and checked
// with fstat. Readers that take a path use path(), which names the checked
// open file itself, so the file is never looked up again by its name.
class SessionFile {
 public:
  // `name`: an entry of sdp_paths::kCfsDir, e.g. "safespace.ini".
  explicit SessionFile(const char* name);
  ~SessionFile();
  SessionFile(const SessionFile&) = delete;
  SessionFile& operator=(const SessionFile&) = delete;

  bool ok() const { return fd_ >= 0; }
  // The directory or the file does not exist: not a refusal.
  bool missing() const { return missing_; }
  // Why the file is not used, naming the path ("" when ok or missing), e.g.
  // "/tmp/.sdp_cfs: owned by uid 1001, neither root nor the daemon's uid 0".
  const std::string& refusal() const { return refusal_; }
  int fd() const { return fd_; }
  // "/proc/self/fd/<n>" while ok; "" otherwise.
  const char* path() const { return path_.c_str(); }

 private:
  int fd_ = -1;
  bool missing_ = false;
  std::string refusal_;
  std::string path_;
};

// The directory alone: "" when it is trusted or missing, else why not.
std::string SessionDirRefusal();

}  // namespace trusted
