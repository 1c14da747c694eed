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

TEST(LauncherFiles, EntriesAndScriptsReplaceTheFileAndTheRecordKeepsEveryLine) {
  SAppDesktop desk{"c", "m", "e", "x", "i", "n", "s", "t", "ty", "v", "sn", "a", "cb", "id"};
  Write("/tmp/a.desktop", std::string(500, 'z'));
  chmod("/tmp/a.desktop", 0600);
  EXPECT_TRUE(icons.writeDesktopFile("/tmp/a.desktop", desk));
  EXPECT_TRUE(icons.writeExecShell("/tmp/run.sh", ""));
  EXPECT_EQ(Read("/tmp/a.desktop"),
            "[Desktop Entry]\nc\nm\ne\nx\ni\nn\nt\nty\nv\nsn\na\ncb\nid\n|755");
  EXPECT_EQ(Read("/tmp/run.sh"), "#!/bin/sh\n\n|755");
  testsupport::LogCapture capture;
  EXPECT_FALSE(icons.writeDesktopFile("/tmp/no/a.desktop", desk));
  EXPECT_FALSE(icons.writeExecShell("/tmp/no/run.sh", "echo"));
  EXPECT_EQ(capture.texts(), Lines{"write shell info,exec file write failed!! , /tmp/no/run.sh"});

  // Start-up removes what the record lists, whatever happens, then names and empties it.
  Write(kDesk + "x.desktop", "d");
  Write(kApps + "x.desktop", "a");
  Write("/tmp/full/f", "keep");
  Write(kRecord, kDesk + "x.desktop\n" + kDesk + "x.desktop\n/tmp/gone\n/tmp/full\n\n" + kApps +
                     "x.desktop\n");
  capture.clear();
  icons.iconInit({});
  EXPECT_EQ(Read(kDesk + "x.desktop") + Read(kApps + "x.desktop") + Read(kRecord), "<none><none>");
  const Lines removals = {"rm file:" + kDesk + "x.desktop",
                          "rm file failed !:/tmp/full error: Directory not empty",
                          "rm file:" + kApps + "x.desktop"};
  const Lines logged = capture.texts();
  ASSERT_GE(logged.size(), 3u);
  EXPECT_EQ(Lines(logged.begin(), logged.begin() + 3), removals);
  Write(kRecord, "a\n\nb");
  icons.loadAppNameFromFile();
  icons.loadAppNameFromFile();
  icons.saveAppNameToFile();
  EXPECT_EQ(Read(kRecord), "a\n\nb\na\n\nb\n");
  Lines names{"stale"};
  EXPECT_TRUE(icons.cleanAppNames() && icons.getAppNames(names) && names.empty());
  EXPECT_EQ(Read(kRecord), "");
}

SAppDesktop Resource(const char* name, const char* source) {
  SAppDesktop r;
  r.name = name;
  r.exec = source;
  return r;
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
  testsupport::LogCapture capture;
};

TEST_F(LauncherPlacement, ResourcesWithAddressAndBrowserGetBothFilesRecordedEachTime) {
  // Without a user the name would stand at the root of the file system.
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01"), Resource("Wiki", "wiki01"),
                                     Resource("Mail 2", "mail01"), Resource("X", "../x"),
                                     Resource("Y\nZ", "mail01")};
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("desktop produce failed ! /mail01.desktop", google::GLOG_WARNING));
  EXPECT_EQ(Read(kRecord) + Read("/mail01.desktop"), "<none>");
  // Blanks and a CR around the name are the INI reader's to trim. The second resource of the
  // same source overwrites the first's files; a source that is no file name, a name with a
  // line break and one without an address get none.
  Write(sdp_paths::kUserinfoIni,
        "[UserInfo]\nSysUserName = "
        "alice\r\n[Aum]\nmail01=https://m\n../x=https://x\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  const std::string text =
      "[Desktop Entry]\n"
      "Categories=Network;WebBrowser\n"
      "MimeType=text/html;text/xml;application/xhtml_xml;image/webp;x-scheme-handler/http;"
      "x-scheme-handler/https;x-scheme-handler/ftp;\n"
      "Encoding=UTF-8\n"
      "Exec=/opt/apps/morvasta/dravinAum.sh mail01\n"
      "Icon=/tmp/.sdp_cfs/mail01.png\n"
      "Name=Mail 2\n"
      "Terminal=false\n"
      "Type=Application\n"
      "X-Deepin-Vendor=user-custom\n"
      "StartupNotify=true\n"
      "Actions=new-window;\n"
      "X-Deepin-CreatedBy=com.deepin.dde.daemon.Launcher\n"
      "X-Deepin-AppID=mail01\n|755";
  EXPECT_EQ(Read(kDesk + "mail01.desktop"), text);
  EXPECT_EQ(Read(kApps + "mail01.desktop"), text);
  const std::string twice = kDesk + "mail01.desktop\n" + kApps + "mail01.desktop\n";
  EXPECT_EQ(Read(kRecord), twice + twice);
  EXPECT_TRUE(capture.has("get desktop info failed!,url:  brower: v", google::GLOG_ERROR));
  EXPECT_EQ("mail01", resources[0].exec);  // the caller's records are not touched
  Write(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\nmail01=https://m\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("get desktop info failed!,url: https://m brower: ", google::GLOG_ERROR));
  EXPECT_EQ(Read(kRecord), twice + twice);
}

TEST_F(LauncherPlacement, FilesThatCouldNotBeWrittenStayRecordedAndAreNotCopied) {
  Write(sdp_paths::kUserinfoIni,
        "[UserInfo]\nSysUserName=alice\n[Aum]\nmail01=https://"
        "m\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  fs::remove(kDesk);  // and "桌面" is missing too
  Write(kApps + "foo.desktop", "system foo");
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01")};
  icons.iconInit({SAppInfo{"", "n", 1, "foo"}});
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(
      capture.has("copy fail, app path: /usr/share/applications//foo.desktop", google::GLOG_ERROR));
  EXPECT_TRUE(capture.has("opendir error", google::GLOG_ERROR));
  const std::string zh = "/home/alice/桌面/";
  EXPECT_TRUE(
      capture.has("desktop produce failed ! " + zh + "mail01.desktop", google::GLOG_WARNING));
  EXPECT_EQ(Read(kRecord),
            zh + "foo.desktop\n" + zh + "mail01.desktop\n" + kApps + "mail01.desktop\n");
  EXPECT_EQ(Read(kApps + "mail01.desktop"), "<none>");
}

TEST_F(LauncherPlacement, WhitelistPlacesFoundAndClientEntriesButNothingElse) {
  const std::string client = std::string(sdp_paths::kClientApplicationsDir) + "/";
  for (const char* name : {"foo", "bar", "saipra", "deepin-draw", "saipra.desktop", "shared"})
    Write(kApps + name + ".desktop", std::string("system ") + name);
  for (const char* name :
       {"shared.desktop", "client.desktop", "com.vrek.browser.desktop", ".desktop", "notes.txt"})
    Write(client + name, std::string("client ") + name);
  fs::create_directories(client + "folder.desktop");
  Write(kDesk + "foo.desktop", "the user's own");
  Write(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n");
  std::vector<SAppInfo> list;
  for (const auto& [type, value] : std::vector<std::pair<int, std::string>>{{1, "/usr/bin/foo"},
                                                                            {1, "saipra"},
                                                                            {1, "deepin-draw"},
                                                                            {2, "bar"},
                                                                            {0, "bar"},
                                                                            {1, "shared"},
                                                                            {1, "missing"},
                                                                            {1, "saipra.desktop"}})
    list.push_back(SAppInfo{"", "n", type, value});
  icons.iconInit(list);
  EXPECT_EQ(Read(kDesk + "foo.desktop"), "the user's own");
  EXPECT_EQ(Read(kDesk + "saipra.desktop.desktop"), "system saipra.desktop|755");
  EXPECT_EQ(Read(kDesk + "shared.desktop"), "client shared.desktop|755");
  EXPECT_EQ(Read(kApps + "shared.desktop"), "system shared");
  EXPECT_EQ(Read(kApps + "client.desktop"), "client client.desktop|755");
  for (const char* absent : {"saipra.desktop", "deepin-draw.desktop", "bar.desktop",
                             "com.vrek.browser.desktop", ".desktop", "notes.txt", "folder.desktop"})
    EXPECT_FALSE(fs::exists(kDesk + absent)) << absent;
  EXPECT_FALSE(fs::exists(kApps + "com.vrek.browser.desktop"));
  EXPECT_EQ(Read(kRecord), kDesk + "client.desktop\n" + kApps + "client.desktop\n" + kDesk +
                               "saipra.desktop.desktop\n" + kDesk + "shared.desktop\n");
  EXPECT_TRUE(capture.has("chmod 755:" + kDesk + "client.desktop, response:"));
  EXPECT_EQ(0, capture.count_prefix("chmod 755:" + kDesk + "saipra"));
}

}  // namespace
