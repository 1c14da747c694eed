// Launchers on their fixed paths; runs in the namespace sandbox, so /tmp, /opt, /home and
// /usr/share/applications are private and empty at the start of every test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "iconmanager.h"
#include "log_capture.h"
#include "sdp_paths.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
const std::string kDesk = "/home/alice/Desktop/", kApps = "/usr/share/applications/";
const std::string kRecord = sdp_paths::kRecordOldAppNames;
IconManager& icons = IconManager::getIns();

void Write(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// The file's bytes, and its mode when it is not 0644; "<none>" when it cannot be read.
std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const auto mode = fs::status(path).permissions();
  return !in ? "<none>"
             : std::string(std::istreambuf_iterator<char>(in), {}) + (mode == fs::perms(0644) ? ""
                                                                      : mode == fs::perms(0755)
                                                                          ? "|755"
                                                                          : "|?");
}

SAppDesktop Resource(const char* name, const char* source) {
  SAppDesktop r;
  r.name = name;
  r.exec = source;
  return r;
}

TEST(LauncherFiles, EntriesAndScriptsReplaceTheFileAndTheRecordKeepsEveryLine) {
  Write("/tmp/a.desktop", std::string(500, 'z'));
  EXPECT_TRUE(icons.writeDesktopFile("/tmp/a.desktop", {"c", "m", "e", "x", "i", "n", "s", "t",
                                                        "ty", "v", "sn", "a", "cb", "id"}));
  EXPECT_TRUE(icons.writeExecShell("/tmp/run.sh", ""));
  EXPECT_EQ(Read("/tmp/a.desktop") + Read("/tmp/run.sh"),
            "[Desktop Entry]\nc\nm\ne\nx\ni\nn\nt\nty\nv\nsn\na\ncb\nid\n|755#!/bin/sh\n\n|755");
  // Start-up removes what the record lists, whatever happens, then names and empties it.
  Write(kDesk + "x.desktop", "d");
  Write("/tmp/full/f", "keep");
  Write(kRecord, kDesk + "x.desktop\n" + kDesk + "x.desktop\n/tmp/gone\n/tmp/full\n\n" + kApps);
  testsupport::LogCapture capture;
  icons.iconInit({});
  EXPECT_EQ(Read(kDesk + "x.desktop") + Read(kRecord), "<none>");
  const Lines logged = capture.texts();
  ASSERT_GE(logged.size(), 2u);
  EXPECT_EQ(Lines(logged.begin(), logged.begin() + 2),
            (Lines{"rm file:" + kDesk + "x.desktop",
                   "rm file failed !:/tmp/full error: Directory not empty"}));
  Write(kRecord, "a\n\nb");
  icons.loadAppNameFromFile();
  icons.loadAppNameFromFile();
  icons.saveAppNameToFile();
  EXPECT_EQ(Read(kRecord), "a\n\nb\na\n\nb\n");
  Lines names{"stale"};
  EXPECT_TRUE(icons.cleanAppNames() && icons.getAppNames(names) && names.empty());
  EXPECT_EQ(Read(kRecord), "");
}

// Start-up has named the record file; the user's desktop directory exists.
class LauncherPlacement : public testing::Test {
 protected:
  void SetUp() override {
    Write(sdp_paths::kUserinfoIni, "[Aum]\nmail01=https://m\n[CustomJumpPolicy]\nJumpBrowser=v\n");
    fs::create_directories(kDesk);
    fs::create_directories(sdp_paths::kInstallDir);
    icons.iconInit({});
  }
  const std::string user = "[UserInfo]\nSysUserName=alice\n";
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01"), Resource("Wiki", "wiki01"),
                                     Resource("Mail 2", "mail01"), Resource("X", "../x"),
                                     Resource("Y\nZ", "mail01")};
  testsupport::LogCapture capture;
};

TEST_F(LauncherPlacement, ResourcesWithAddressAndBrowserGetBothFilesRecordedEachTime) {
  // Without a user the name would stand at the root of the file system.
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("desktop produce failed ! /mail01.desktop", google::GLOG_WARNING));
  EXPECT_EQ(Read(kRecord) + Read("/mail01.desktop"), "<none>");
  // Blanks and a CR around the name are the INI reader's to trim. The second resource of the
  // same source overwrites the first's files; a source that is no file name, a name with a
  // line break and a source without an address get none.
  Write(sdp_paths::kUserinfoIni,
        "[UserInfo]\nSysUserName = alice\r\n[Aum]\nmail01=https://m\n"
        "../x=https://x\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  const std::string text =
      "[Desktop Entry]\nCategories=Network;WebBrowser\n"
      "MimeType=text/html;text/xml;application/xhtml_xml;image/webp;x-scheme-handler/http;"
      "x-scheme-handler/https;x-scheme-handler/ftp;\nEncoding=UTF-8\n"
      "Exec=/opt/apps/morvasta/dravinAum.sh mail01\nIcon=/tmp/.sdp_cfs/mail01.png\nName=Mail 2\n"
      "Terminal=false\nType=Application\nX-Deepin-Vendor=user-custom\nStartupNotify=true\n"
      "Actions=new-window;\nX-Deepin-CreatedBy=com.deepin.dde.daemon.Launcher\n"
      "X-Deepin-AppID=mail01\n|755";
  EXPECT_EQ(Read(kDesk + "mail01.desktop"), text);
  EXPECT_EQ(Read(kApps + "mail01.desktop"), text);
  const std::string twice = kDesk + "mail01.desktop\n" + kApps + "mail01.desktop\n";
  EXPECT_EQ(Read(kRecord), twice + twice);
  EXPECT_TRUE(capture.has("get desktop info failed!,url:  brower: v", google::GLOG_ERROR));
  EXPECT_EQ(resources[0].exec, "mail01");  // the caller's records are not touched
  Write(sdp_paths::kUserinfoIni, user + "[Aum]\nmail01=https://m\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("get desktop info failed!,url: https://m brower: ", google::GLOG_ERROR));
  EXPECT_EQ(Read(kRecord), twice + twice);
}

TEST_F(LauncherPlacement, FilesThatCouldNotBeWrittenStayRecordedAndAreNotCopied) {
  Write(sdp_paths::kUserinfoIni, user + "[Aum]\nmail01=h\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  fs::remove(kDesk);  // and "桌面" is missing too
  Write(kApps + "foo.desktop", "system foo");
  icons.iconInit({SAppInfo{"", "n", 1, "foo"}});
  resources.resize(1);
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("copy fail, app path: " + kApps + "/foo.desktop", google::GLOG_ERROR));
  EXPECT_TRUE(capture.has("opendir error", google::GLOG_ERROR));
  const std::string zh = "/home/alice/桌面/";
  EXPECT_TRUE(capture.has("desktop produce failed ! " + zh + "mail01.desktop"));
  EXPECT_EQ(Read(kRecord) + Read(kApps + "mail01.desktop"),
            zh + "foo.desktop\n" + zh + "mail01.desktop\n" + kApps + "mail01.desktop\n<none>");
}

// Only what is placed is recorded; the user's own and the system's files are left alone.
TEST_F(LauncherPlacement, WhitelistPlacesFoundAndClientEntriesButNothingElse) {
  const std::string client = std::string(sdp_paths::kClientApplicationsDir) + "/";
  for (const char* name : {"foo", "bar", "saipra", "deepin-draw", "saipra.desktop", "shared"})
    Write(kApps + name + ".desktop", std::string("system ") + name);
  for (const char* name :
       {"shared.desktop", "client.desktop", "com.vrek.browser.desktop", ".desktop", "notes.txt"})
    Write(client + name, std::string("client ") + name);
  fs::create_directories(client + "folder.desktop");
  Write(kDesk + "foo.desktop", "the user's own");
  Write(sdp_paths::kUserinfoIni, user);
  std::vector<SAppInfo> list;
  for (const char* value :
       {"/usr/bin/foo", "saipra", "deepin-draw", "shared", "missing", "saipra.desktop"})
    list.push_back(SAppInfo{"", "n", 1, value});
  for (int type : {0, 2}) list.push_back(SAppInfo{"", "n", type, "bar"});
  icons.iconInit(list);
  EXPECT_EQ(Read(kDesk + "foo.desktop") + "|" + Read(kDesk + "shared.desktop") + "|" +
                Read(kApps + "shared.desktop") + "|" + Read(kDesk + "saipra.desktop.desktop"),
            "the user's own|client shared.desktop|755|system shared|system saipra.desktop|755");
  EXPECT_EQ(Read(kRecord), kDesk + "client.desktop\n" + kApps + "client.desktop\n" + kDesk +
                               "saipra.desktop.desktop\n" + kDesk + "shared.desktop\n");
  EXPECT_TRUE(capture.has("chmod 755:" + kDesk + "client.desktop, response:"));
  EXPECT_EQ(0, capture.count_prefix("chmod 755:" + kDesk + "saipra"));
}

}  // namespace
