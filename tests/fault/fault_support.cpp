#include "fault_support.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "sdp_paths.h"

namespace fault {

std::string DaemonRun::Start(Millis loopTimeout) {
  e2e::MakeDirs(kScratch);
  peer_ = std::make_unique<sdppeer::PeerServer>();
  std::string error;
  if (!peer_->Listen(sdp_paths::kDaemonSocket, &error)) return "peer: " + error;
  daemon_ = std::make_unique<e2e::Daemon>();
  if (!daemon_->Started()) return "daemon did not start";
  // The first attempt comes 3 seconds after start.
  if (!peer_->WaitFrame(0x1005, 10s)) return "no registration";
  // Commands are taken only once the desktop is prepared, so a command that
  // ran marks the end of start-up.
  static int started = 0;
  const std::string ready = std::string(kScratch) + "/ready." + std::to_string(++started);
  if (!peer_->SendFrame(2, 0x301, "touch " + ready)) return "could not send to the daemon";
  if (!e2e::WaitUntil([&] { return e2e::Exists(ready); }, loopTimeout))
    return "never reached the receive loop";
  return "";
}

std::string DaemonRun::SanitizerReport() const {
  return daemon_ ? e2e::SanitizerReport(daemon_->Stderr()) : "";
}

namespace {

int CountDir(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return -1;
  int n = 0;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n;
}

// The parent pid from /proc/<pid>/stat; the command name may hold anything,
// so the fields are counted from its closing parenthesis.
pid_t ParentOf(const std::string& statPath) {
  const std::string stat = e2e::ReadFile(statPath);
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream rest(stat.substr(close + 1));
  std::string state;
  pid_t ppid = -1;
  rest >> state >> ppid;
  return ppid;
}

}  // namespace

Footprint FootprintOf(pid_t pid) {
  Footprint f;
  const std::string proc = "/proc/" + std::to_string(pid);
  f.fds = CountDir(proc + "/fd");
  f.threads = CountDir(proc + "/task");
  f.children = 0;
  DIR* d = opendir("/proc");
  if (!d) return f;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    if (ParentOf(std::string("/proc/") + e->d_name + "/stat") == pid) ++f.children;
  }
  closedir(d);
  return f;
}

std::string Describe(const Footprint& f) {
  return std::to_string(f.fds) + " descriptors, " + std::to_string(f.threads) + " threads, " +
         std::to_string(f.children) + " children";
}

std::string DescriptorList(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  std::string out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    char target[512] = {0};
    const std::string link = dir + "/" + e->d_name;
    ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    out += std::string(e->d_name) + " -> " + (n > 0 ? target : "?") + "\n";
  }
  closedir(d);
  return out;
}

Footprint SettledFootprint(pid_t pid) {
  // Descriptors of an address probe or a command come and go; the fewest
  // seen over a second with no child left is what the daemon keeps.
  Footprint best;
  const auto end = std::chrono::steady_clock::now() + 1s;
  const auto giveUp = end + 5s;
  while (std::chrono::steady_clock::now() < giveUp) {
    const Footprint f = FootprintOf(pid);
    if (f.children == 0 && (best.fds < 0 || f.fds < best.fds)) best = f;
    if (best.fds >= 0 && std::chrono::steady_clock::now() >= end) break;
    std::this_thread::sleep_for(20ms);
  }
  return best;
}

Footprint WaitFootprint(pid_t pid, const Footprint& want, Millis timeout) {
  Footprint last;
  e2e::WaitUntil(
      [&] {
        last = FootprintOf(pid);
        return last == want;
      },
      timeout);
  return last;
}

namespace {

uint16_t U16At(const std::string& s, size_t at) {
  uint16_t v;
  std::memcpy(&v, s.data() + at, sizeof v);
  return v;
}

constexpr size_t kHeaderLen = 8;
constexpr uint16_t kMaxBody = 64503;

}  // namespace

std::vector<sdppeer::Frame> SplitFrames(const std::string& bytes) {
  std::vector<sdppeer::Frame> frames;
  size_t off = 0;
  while (bytes.size() - off >= kHeaderLen) {
    sdppeer::Frame f;
    f.m_reserved = U16At(bytes, off);
    f.m_cmd = U16At(bytes, off + 2);
    f.s_cmd = U16At(bytes, off + 4);
    f.msglen = U16At(bytes, off + 6);
    if (f.msglen > kMaxBody || bytes.size() - off - kHeaderLen < f.msglen) break;
    f.body = bytes.substr(off + kHeaderLen, f.msglen);
    frames.push_back(f);
    off += kHeaderLen + f.msglen;
  }
  return frames;
}

std::string Garbage(uint32_t seed, size_t size) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (auto& c : bytes) c = static_cast<char>(gen() & 0xff);
  size_t off = 0;
  while (bytes.size() - off >= kHeaderLen) {
    // Main command 3 is no command; the framing stays as it was.
    if (U16At(bytes, off + 2) == 2) bytes[off + 2] = 3;
    const uint16_t len = U16At(bytes, off + 6);
    if (len > kMaxBody || bytes.size() - off - kHeaderLen < len) break;
    off += kHeaderLen + len;
  }
  return bytes;
}

std::vector<std::string> RecordEntries() {
  std::vector<std::string> lines;
  std::istringstream in(e2e::ReadFile(sdp_paths::kRecordOldAppNames));
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::set<std::string> FilesIn(const std::string& dir) {
  std::set<std::string> files;
  DIR* d = opendir(dir.c_str());
  if (!d) return files;
  const std::string prefix = dir.back() == '/' ? dir : dir + "/";
  while (dirent* e = readdir(d)) {
    struct stat st;
    const std::string path = prefix + e->d_name;
    if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.insert(path);
  }
  closedir(d);
  return files;
}

std::set<std::string> LauncherFiles() {
  std::set<std::string> files = FilesIn(kDesktop);
  for (const auto& f : FilesIn(sdp_paths::kSystemApplicationsDir)) files.insert(f);
  return files;
}

std::set<std::string> NewLaunchers(const std::set<std::string>& before) {
  std::set<std::string> now;
  for (const auto& f : LauncherFiles())
    if (!before.count(f)) now.insert(f);
  return now;
}

void PrepareDesktopUser(const std::string& aumLines) {
  e2e::MakeDirs(kDesktop);
  e2e::WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\n" + aumLines +
                                              "[CustomJumpPolicy]\nJumpBrowser=vrek\n");
}

}  // namespace fault
