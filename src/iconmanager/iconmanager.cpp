#include "iconmanager.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "checked_dir.h"
#include "desktop_user.h"
#include "inifile.h"
#include "sdp_paths.h"
#include "trusted_dir.h"
#include "unique_fd.h"
#include "util.h"

namespace {

using FilePtr = util::UniqueFile;
using DirPtr = util::UniqueDir;
using launcherfs::CheckedDir;
using launcherfs::Outcome;

constexpr char kDesktopExt[] = ".desktop";
constexpr size_t kDesktopExtLen = sizeof(kDesktopExt) - 1;

// The desktop environment's own applications: their launchers are its business.
constexpr const char* kDesktopOwnApps[] = {"saipra",          "deepin-compressor", "deepin-reader",
                                           "niogriob",        "deepin-album",      "deepin-draw",
                                           "dde-file-manager"};

// The secure browser's launcher; the browser is only ever opened through the
// resource launchers.
constexpr char kBrowserLauncher[] = "com.vrek.browser.desktop";

bool IsDesktopOwnApp(const std::string& value) {
  return std::any_of(std::begin(kDesktopOwnApps), std::end(kDesktopOwnApps),
                     [&](const char* own) { return value == own; });
}

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// One line for everything turned away: what, and why.
void LogRefused(const std::string& what, const std::string& why) {
  LOG(ERROR) << "refused " << what << ": " << why;
}

// `path` split at its last "/": the directory (without the "/") and the name.
std::pair<std::string, std::string> SplitPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

bool HasLineBreak(const std::string& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

// For a shell line: the text in single quotes, each quote in it closed,
// escaped and reopened.
std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Writes `text` as `path` (its directory checked on the way), logging a
// refusal; false when nothing was written.
Outcome WriteLauncher(const std::string& path, const std::string& text, bool exclusive) {
  const auto [dirPath, name] = SplitPath(path);
  CheckedDir dir;
  std::string why;
  if (!dir.Open(dirPath, &why)) {
    if (dir.missing()) return Outcome::kFailed;
    LogRefused(dirPath, why);
    return Outcome::kRefused;
  }
  int err = 0;
  const Outcome result = launcherfs::WriteAt(dir, name, text, exclusive, &err, &why);
  if (result == Outcome::kRefused) LogRefused(path, why);
  return result;
}

// The client's own launchers have always been given "chmod 755" through the
// shell as well; the mode is already set on the descriptor, so the command
// changes nothing.
void ChmodCommand(const std::string& path) {
  char command[256];
  const int len = std::snprintf(command, sizeof(command), "chmod 755 %s", ShellQuote(path).c_str());
  if (len >= static_cast<int>(sizeof(command))) {
    LogRefused(path, "too long for the chmod command");
    return;
  }
  // As whoever may change the desktop, found afresh even when the copy
  // failed (the desktop may be missing now and there a moment later): a link
  // swapped in then leads only to what that user could change anyway.
  launcherfs::Authority owner{};
  if (!CheckedDir::AuthorityOfDeepest(SplitPath(path).first, &owner)) {
    LogRefused(path, "no checked directory to run the chmod command in");
    return;
  }
  util::RunAs as;
  if (geteuid() == 0 && (owner.uid != 0 || owner.gid != getegid())) {
    as.switchUser = true;
    as.uid = owner.uid;
    as.gid = owner.gid;
    as.groups = {owner.gid};
    as.dir = "/";
    as.env = {"PATH=/usr/bin:/bin"};
  }
  std::string output;
  util::system_output(command, output, util::kCommandTimeout, as);
  LOG(INFO) << "chmod 755:" << path << ", response:" << output;
}

}  // namespace

namespace iconmanager {

std::string DesktopEntryText(const SAppDesktop& desk) {
  std::string text = "[Desktop Entry]\n";
  // `spare` is left out on purpose.
  for (const std::string* line :
       {&desk.categories, &desk.mimeType, &desk.encoding, &desk.exec, &desk.icon, &desk.name,
        &desk.terminal, &desk.type, &desk.vendor, &desk.startupNotify, &desk.actions,
        &desk.createdBy, &desk.appId}) {
    text += *line;
    text += '\n';
  }
  return text;
}

std::vector<std::string> RecordLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return lines;
}

std::string RecordText(const std::vector<std::string>& paths) {
  std::string text;
  for (const std::string& path : paths) text += path + '\n';
  return text;
}

SAppDesktop ResourceLauncher(const SAppDesktop& resource) {
  const std::string& source = resource.exec;
  char exec[1024];
  std::snprintf(exec, sizeof(exec), "%s %s", sdp_paths::kAumScript, source.c_str());

  SAppDesktop desk;
  desk.categories = "Categories=Network;WebBrowser";
  // "application/xhtml_xml" with an underscore is what the desktop has always
  // been given; keep it.
  desk.mimeType =
      "MimeType=text/html;text/xml;application/xhtml_xml;image/webp;x-scheme-handler/http;"
      "x-scheme-handler/https;x-scheme-handler/ftp;";
  desk.encoding = "Encoding=UTF-8";
  desk.exec = std::string("Exec=") + exec;
  desk.icon = std::string("Icon=") + sdp_paths::kCfsDir + "/" + source + ".png";
  desk.name = "Name=" + resource.name;
  desk.terminal = "Terminal=false";
  desk.type = "Type=Application";
  desk.vendor = "X-Deepin-Vendor=user-custom";
  desk.startupNotify = "StartupNotify=true";
  desk.actions = "Actions=new-window;";
  desk.createdBy = "X-Deepin-CreatedBy=com.deepin.dde.daemon.Launcher";
  desk.appId = "X-Deepin-AppID=" + source;
  return desk;
}

}  // namespace iconmanager

IconManager& IconManager::getIns() {
  static IconManager instance;
  return instance;
}

bool IconManager::writeDesktopFile(const std::string& path, const SAppDesktop& desk) {
  return WriteLauncher(path, iconmanager::DesktopEntryText(desk), false) == Outcome::kDone;
}

bool IconManager::writeExecShell(const std::string& path, std::string content) {
  if (WriteLauncher(path, "#!/bin/sh\n" + content + "\n", false) != Outcome::kDone) {
    LOG(ERROR) << "write shell info,exec file write failed!! , " << path;
    return false;
  }
  return true;
}

void IconManager::saveAppNameToFile() {
  FilePtr out(std::fopen(recordFile.c_str(), "we"));
  if (!out) return;
  const std::string text = iconmanager::RecordText(appNames);
  std::fwrite(text.data(), 1, text.size(), out.get());
}

void IconManager::loadAppNameFromFile() {
  FilePtr in(std::fopen(recordFile.c_str(), "re"));
  if (!in) return;
  std::string text;
  char buf[8192];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0) text.append(buf, n);
  for (std::string& line : iconmanager::RecordLines(text)) appNames.push_back(std::move(line));
}

bool IconManager::cleanAppNames() {
  appNames.clear();
  saveAppNameToFile();
  return true;
}

bool IconManager::getAppNames(std::vector<std::string>& out) {
  out = appNames;
  return true;
}

std::string IconManager::_getDesktopPath() {
  std::string refusal;
  const std::string user = util::ReadDesktopUserName(&refusal);
  if (!refusal.empty()) LOG(ERROR) << "not trusted: " << refusal;
  // WARNING on purpose, at every call: the user name decides where launchers go.
  LOG(WARNING) << "get systemName:" << user;
  if (user.empty()) return "";
  const std::string home = sdp_paths::kHomeDir + user;
  // The name becomes a path: "../x" or "a/b" would leave the homes.
  if (!util::IsValidLoginName(user)) {
    LogRefused(home, "not a valid login name");
    return "";
  }
  // The first name when anything stands there: a link in its place is
  // refused when it is opened, not passed over for the second name.
  CheckedDir homeDir;
  std::string why;
  struct stat st {};
  if (homeDir.Open(home, &why)) {
    launcherfs::ActingAs as(homeDir.authority());
    if (as.ok() &&
        fstatat(homeDir.fd(), sdp_paths::kUserDesktopDir + 1, &st, AT_SYMLINK_NOFOLLOW) == 0)
      return home + sdp_paths::kUserDesktopDir;
  }
  return home + sdp_paths::kUserDesktopDirZh;
}

void IconManager::_clearDesktop() {
  recordFile = sdp_paths::kRecordOldAppNames;
  loadAppNameFromFile();
  const std::vector<std::string> recorded = appNames;
  for (const std::string& path : recorded) {
    // Removed relative to its directory, which is reached without following
    // a link: a desktop replaced by a link to elsewhere loses nothing there.
    const auto [dirPath, name] = SplitPath(path);
    CheckedDir dir;
    std::string why;
    if (name.empty() || !dir.Open(dirPath, &why)) {
      if (!name.empty() && !dir.missing()) LogRefused(path, why);
      continue;
    }
    int err = 0;
    const Outcome result = launcherfs::RemoveAt(dir, name, &err);
    if (result == Outcome::kMissing) continue;
    if (result == Outcome::kDone) {
      LOG(INFO) << "rm file:" << path;
    } else {
      LOG(WARNING) << "rm file failed !:" << path << " error: " << std::strerror(err);
    }
  }
  // Emptied whatever happened, so a file that would not go is not tried again.
  appNames.clear();
  saveAppNameToFile();
}

bool IconManager::produceDesktopFile(std::vector<SAppDesktop>& apps) {
  for (const SAppDesktop& app : apps) {
    const std::string source = app.exec;
    const std::string name = app.name;
    LOG(INFO) << "desktop info: " << name << " source: " << source;
    // The source names the launcher's file; the name becomes one line of it.
    if (!util::IsPlainFileName(source)) {
      LogRefused("resource source \"" + source + "\"", "not a plain file name");
      continue;
    }
    if (HasLineBreak(name)) {
      LogRefused("resource name of " + source, "a line break in it");
      continue;
    }

    char address[1024] = {0};
    char browser[1024] = {0};
    {
      // Read through the checked file only; a refused one gives no values.
      const trusted::SessionFile userinfo("userinfo.ini");
      if (!userinfo.refusal().empty()) LOG(ERROR) << "not trusted: " << userinfo.refusal();
      if (userinfo.ok()) {
        ReadStringFromIni(userinfo.path(), "Aum", source.c_str(), address, sizeof(address), "");
        ReadStringFromIni(userinfo.path(), "CustomJumpPolicy", "JumpBrowser", browser,
                          sizeof(browser), "");
      }
    }
    // Both only decide whether the resource gets a launcher; neither enters it.
    if (address[0] == '\0' || browser[0] == '\0') {
      LOG(ERROR) << "get desktop info failed!,url: " << address << " brower: " << browser;
      continue;
    }
    const SAppDesktop desk = iconmanager::ResourceLauncher(app);

    const std::string dir = _getDesktopPath();
    char desktopFile[1024];
    char appsFile[1024];
    const int desktopLen = std::snprintf(desktopFile, sizeof(desktopFile), "%s/%s.desktop",
                                         dir.c_str(), source.c_str());
    const int appsLen = std::snprintf(appsFile, sizeof(appsFile), "%s%s.desktop",
                                      sdp_paths::kSystemApplicationsDir, source.c_str());
    // A cut name would be another file than the one recorded and meant.
    if (desktopLen >= static_cast<int>(sizeof(desktopFile)) ||
        appsLen >= static_cast<int>(sizeof(appsFile))) {
      LogRefused("launcher of " + source, "its path is too long");
      continue;
    }
    LOG(INFO) << "new desktop name: " << desktopFile;
    // No user, no desktop: the name would stand at the root of the file system.
    if (dir.empty()) {
      LOG(WARNING) << "desktop produce failed ! " << desktopFile;
      continue;
    }

    // Recorded first: a launcher left half made is still removed next start.
    appNames.push_back(desktopFile);
    appNames.push_back(appsFile);
    saveAppNameToFile();

    // The system copy is made from the bytes written, never read back from
    // the user's desktop, where the file may have been swapped meanwhile.
    const std::string text = iconmanager::DesktopEntryText(desk);
    const Outcome written = WriteLauncher(desktopFile, text, false);
    if (written == Outcome::kRefused) continue;
    if (written != Outcome::kDone) {
      LOG(WARNING) << "desktop produce failed ! " << desktopFile;
      continue;
    }
    if (WriteLauncher(appsFile, text, false) == Outcome::kFailed)
      LOG(WARNING) << "apps produce failed ! " << appsFile;
  }
  return true;
}

void IconManager::iconInit(const std::vector<SAppInfo>& apps) {
  _clearDesktop();
  _setAppWhiteList(apps);
  desktopPath = _getDesktopPath();
  std::map<std::string, std::string> launchers;
  _getAppWitePath(launchers);
  _addAppWhiteToDesk(launchers);
}

void IconManager::_setAppWhiteList(const std::vector<SAppInfo>& apps) {
  appWhiteList = apps;
  LOG(INFO) << "appWhiteList size: " << appWhiteList.size();
  for (const SAppInfo& app : appWhiteList) {
    whiteValues.insert(app.value);
    LOG(INFO) << "app.appName: " << app.appName;
    LOG(INFO) << "app.type: " << app.type;
    LOG(INFO) << "app.value: " << app.value;
  }
}

bool IconManager::_getAppWitePath(std::map<std::string, std::string>& out) {
  std::set<std::string> names;
  for (const SAppInfo& app : appWhiteList)
    if (app.type == 1 && !IsDesktopOwnApp(app.value)) names.insert(app.value);
  util::getIconPathWithName(names, out);
  _addDefaultDesktop(out);
  // True for an empty table: the inverted sense is how it has always been, and
  // nothing reads it.
  return out.empty();
}

void IconManager::_addDefaultDesktop(std::map<std::string, std::string>& out) {
  DirPtr dir(opendir(sdp_paths::kClientApplicationsDir));
  if (!dir) {
    LOG(ERROR) << "opendir error";
    return;
  }
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (entry->d_type != DT_REG) continue;
    if (name.size() <= kDesktopExtLen) continue;
    if (name.compare(name.size() - kDesktopExtLen, kDesktopExtLen, kDesktopExt) != 0) continue;
    // The client's own entry wins over one found for a whitelisted name.
    std::string path = std::string(sdp_paths::kClientApplicationsDir) + "/" + name;
    LOG(INFO) << "_addDefaultDesktop:" << path;
    out[name] = path;
  }
}

void IconManager::_addAppWhiteToDesk(const std::map<std::string, std::string>& apps) {
  LOG(INFO) << "new app size: " << apps.size();
  for (const auto& [name, source] : apps) {
    LOG(INFO) << "new app name: " << name << ", path: " << source;
    if (name == kBrowserLauncher) {
      LOG(INFO) << "don't add dravin browser!";
      continue;
    }
    const std::string desktopCopy = desktopPath + "/" + name;
    const std::string systemCopy = sdp_paths::kSystemApplicationsDir + name;
    LOG(INFO) << "resPath is :" << desktopCopy;

    // Read once: both copies get these bytes, whatever happens to the source.
    std::string text, why;
    const bool readable = launcherfs::ReadRegularFile(source, &text, &why);

    // An existing copy is the user's or the system's: left alone and not
    // recorded, so the next start does not remove it. A failed copy is
    // recorded all the same, in case it left a partial file.
    const Outcome desk = desktopPath.empty() ? Outcome::kRefused
                         : readable          ? WriteLauncher(desktopCopy, text, true)
                                             : Outcome::kFailed;
    if (desk == Outcome::kDone || desk == Outcome::kFailed) {
      if (desk == Outcome::kFailed) LOG(ERROR) << "copy fail, app path: " << source;
      if (StartsWith(source, sdp_paths::kClientApplicationsDir)) ChmodCommand(desktopCopy);
      appNames.push_back(desktopCopy);
    }
    const Outcome sys = readable ? WriteLauncher(systemCopy, text, true) : Outcome::kFailed;
    if (sys == Outcome::kDone || sys == Outcome::kFailed) {
      if (sys == Outcome::kFailed) LOG(ERROR) << "copy fail, app path: " << source;
      appNames.push_back(systemCopy);
    }
  }
  saveAppNameToFile();
}
