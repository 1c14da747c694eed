#include "iconmanager.h"

#include <dirent.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "inifile.h"
#include "sdp_paths.h"
#include "util.h"

namespace {

struct FileClose {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

struct DirClose {
  void operator()(DIR* d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

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

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
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

namespace util {

void getIconPathWithName(const std::set<std::string>& names,
                         std::map<std::string, std::string>& out) {
  out.clear();
  for (const std::string& name : names) {
    size_t slash = name.rfind('/');
    std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    // The directory constant ends in "/", so the path has "//": harmless, and
    // the logs have always shown it so.
    std::string candidate =
        std::string(sdp_paths::kSystemApplicationsDir) + "/" + base + kDesktopExt;
    LOG(INFO) << "icon path is: " << candidate;
    if (!Exists(candidate)) continue;
    std::string launcher = base + kDesktopExt;
    out.emplace(launcher, candidate);
    LOG(INFO) << launcher << " icon path is :" << candidate;
  }
}

}  // namespace util

IconManager& IconManager::getIns() {
  static IconManager instance;
  return instance;
}

bool IconManager::writeDesktopFile(const std::string& path, const SAppDesktop& desk) {
  FilePtr out(std::fopen(path.c_str(), "we"));
  if (!out) return false;
  const std::string text = iconmanager::DesktopEntryText(desk);
  std::fwrite(text.data(), 1, text.size(), out.get());
  out.reset();
  chmod(path.c_str(), 0755);
  return true;
}

bool IconManager::writeExecShell(const std::string& path, std::string content) {
  FilePtr out(std::fopen(path.c_str(), "we"));
  if (!out) {
    LOG(ERROR) << "write shell info,exec file write failed!! , " << path;
    return false;
  }
  const std::string text = "#!/bin/sh\n" + content + "\n";
  std::fwrite(text.data(), 1, text.size(), out.get());
  out.reset();
  chmod(path.c_str(), 0755);
  return true;
}

void IconManager::saveAppNameToFile() {
  FilePtr out(std::fopen(recordFile.c_str(), "we"));
  if (!out) return;
  for (const std::string& name : appNames) {
    std::fwrite(name.data(), 1, name.size(), out.get());
    std::fputc('\n', out.get());
  }
}

void IconManager::loadAppNameFromFile() {
  FilePtr in(std::fopen(recordFile.c_str(), "re"));
  if (!in) return;
  char* raw = nullptr;
  size_t capacity = 0;
  ssize_t n;
  while ((n = getline(&raw, &capacity, in.get())) >= 0) {
    std::string line(raw, static_cast<size_t>(n));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    appNames.push_back(line);
  }
  std::free(raw);
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
  char name[256] = {0};
  ReadStringFromIni(sdp_paths::kUserinfoIni, "UserInfo", "SysUserName", name, sizeof(name), "");
  // WARNING on purpose, at every call: the user name decides where launchers go.
  LOG(WARNING) << "get systemName:" << name;
  std::string user = name;
  if (user.empty()) return "";
  user.erase(std::remove(user.begin(), user.end(), '\n'), user.end());
  const std::string home = sdp_paths::kHomeDir + user;
  std::string desktop = home + sdp_paths::kUserDesktopDir;
  if (Exists(desktop)) return desktop;
  return home + sdp_paths::kUserDesktopDirZh;
}

void IconManager::_clearDesktop() {
  recordFile = sdp_paths::kRecordOldAppNames;
  loadAppNameFromFile();
  const std::vector<std::string> recorded = appNames;
  for (const std::string& path : recorded) {
    if (!Exists(path)) continue;
    if (std::remove(path.c_str()) == 0) {
      LOG(INFO) << "rm file:" << path;
    } else {
      int err = errno;
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

    char address[1024] = {0};
    char browser[1024] = {0};
    ReadStringFromIni(sdp_paths::kUserinfoIni, "Aum", source.c_str(), address, sizeof(address), "");
    ReadStringFromIni(sdp_paths::kUserinfoIni, "CustomJumpPolicy", "JumpBrowser", browser,
                      sizeof(browser), "");
    // Both only decide whether the resource gets a launcher; neither enters it.
    if (address[0] == '\0' || browser[0] == '\0') {
      LOG(ERROR) << "get desktop info failed!,url: " << address << " brower: " << browser;
      continue;
    }
    const SAppDesktop desk = iconmanager::ResourceLauncher(app);

    const std::string dir = _getDesktopPath();
    char desktopFile[1024];
    char appsFile[1024];
    std::snprintf(desktopFile, sizeof(desktopFile), "%s/%s.desktop", dir.c_str(), source.c_str());
    std::snprintf(appsFile, sizeof(appsFile), "%s%s.desktop", sdp_paths::kSystemApplicationsDir,
                  source.c_str());
    LOG(INFO) << "new desktop name: " << desktopFile;

    // Recorded first: a launcher left half made is still removed next start.
    appNames.push_back(desktopFile);
    appNames.push_back(appsFile);
    saveAppNameToFile();

    if (!writeDesktopFile(desktopFile, desk)) {
      LOG(WARNING) << "desktop produce failed ! " << desktopFile;
      continue;
    }
    if (!util::copyFile(desktopFile, appsFile))
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

    // An existing copy is the user's or the system's: left alone and not
    // recorded, so the next start does not remove it. A failed copy is
    // recorded all the same, in case it left a partial file.
    if (!Exists(desktopCopy)) {
      if (!util::copyFile(source, desktopCopy)) LOG(ERROR) << "copy fail, app path: " << source;
      if (StartsWith(source, sdp_paths::kClientApplicationsDir)) {
        char command[256];
        std::snprintf(command, sizeof(command), "chmod 755 %s", desktopCopy.c_str());
        std::string output;
        util::system_output(command, output, 3);
        LOG(INFO) << "chmod 755:" << desktopCopy << ", response:" << output;
      }
      appNames.push_back(desktopCopy);
    }
    if (!Exists(systemCopy)) {
      if (!util::copyFile(source, systemCopy)) LOG(ERROR) << "copy fail, app path: " << source;
      appNames.push_back(systemCopy);
    }
  }
  saveAppNameToFile();
}
