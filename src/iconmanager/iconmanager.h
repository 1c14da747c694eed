// Desktop launchers of the session user: desktop entries for the gateway's
// resources and copies of the entries of whitelisted local applications, put
// on the user's desktop and into the system applications directory. Every file
// created is recorded so that the next start removes it again.
//
// Threads: used from the client's main thread only; nothing here is locked.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "policyanalyzer.h"

class IconManager {
 public:
  static IconManager& getIns();

  IconManager(const IconManager&) = delete;
  IconManager& operator=(const IconManager&) = delete;

  // Writes "[Desktop Entry]" and every member of `desk` but `spare`, one per
  // line, then makes the file mode 0755. True when `path` could be opened.
  bool writeDesktopFile(const std::string& path, const SAppDesktop& desk);

  // Writes "#!/bin/sh", `content` and a line end; mode 0755. True when `path`
  // could be opened.
  bool writeExecShell(const std::string& path, std::string content);

  // The record file: one path per line. Both ignore a file that cannot be
  // opened, and an unset record file.
  void saveAppNameToFile();
  void loadAppNameFromFile();  // appends; does not clear appNames first

  bool cleanAppNames();
  bool getAppNames(std::vector<std::string>& out);

  // A launcher for every resource whose address ("Aum") and jump browser are
  // configured. Both paths of each are recorded before anything is written.
  // REQUIRES: iconInit ran first (it names the record file). Always true.
  bool produceDesktopFile(std::vector<SAppDesktop>& apps);

  // Start-up: removes the last run's launchers, then places the whitelisted
  // applications' and the client's own launchers.
  void iconInit(const std::vector<SAppInfo>& apps);

 private:
  IconManager() = default;

  // "" when no user is configured.
  std::string _getDesktopPath();
  void _clearDesktop();
  void _setAppWhiteList(const std::vector<SAppInfo>& apps);
  // Launcher name -> entry to copy. True when it found none (no caller looks).
  bool _getAppWitePath(std::map<std::string, std::string>& out);
  void _addDefaultDesktop(std::map<std::string, std::string>& out);
  void _addAppWhiteToDesk(const std::map<std::string, std::string>& apps);

  std::vector<SAppInfo> appWhiteList;
  std::set<std::string> whiteValues;  // accumulated, never cleared
  std::string recordFile;             // empty until _clearDesktop names it
  std::vector<std::string> appNames;  // launcher files created since the last clearing
  std::string desktopPath;
};

namespace iconmanager {

// The exact bytes writeDesktopFile writes for `desk`.
std::string DesktopEntryText(const SAppDesktop& desk);

// The record file's entries: one per line, a last line without a line end
// included, nothing trimmed; and the text that holds `paths`, each ended.
std::vector<std::string> RecordLines(const std::string& text);
std::string RecordText(const std::vector<std::string>& paths);

// The thirteen lines of a resource's launcher, from a record as read from the
// resource list (`exec` holds the source id, `name` the display name).
SAppDesktop ResourceLauncher(const SAppDesktop& resource);

}  // namespace iconmanager
