// Launchers on their fixed paths; runs in the namespace sandbox, so /tmp,
// /opt, /home and /usr/share/applications are private and empty at the start
// of every test.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "iconmanager.h"
#include "log_capture.h"
#include "sdp_paths.h"

namespace {

using Lines = std::vector<std::string>;
namespace fs = std::filesystem;
const std::string kDesk = "/home/alice/Desktop/";
const std::string kZh = "/home/alice/桌面/";
const std::string kApps = "/usr/share/applications/";
const std::string kClient = std::string(sdp_paths::kClientApplicationsDir) + "/";
const std::string kUserinfo =
    "[UserInfo]\nSysUserName=alice\n[Aum]\nmail01=https://"
    "mail\n[CustomJumpPolicy]\nJumpBrowser=vrek\n";

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// The file's bytes, or "<none>" when it cannot be read.
std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return in ? text.str() : "<none>";
}

unsigned Mode(const std::string& path) {
  return static_cast<unsigned>(fs::status(path).permissions());
}

Lines Record() {
  Lines lines;
  std::ifstream in(sdp_paths::kRecordOldAppNames);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

IconManager& Icons() { return IconManager::getIns(); }

TEST(LauncherFiles, EntriesAndScriptsReplaceTheFileWithMode0755) {
  SAppDesktop desk{"c", "m", "e", "x", "i", "n", "s", "t", "ty", "v", "sn", "a", "cb", "id"};
  WriteFile("/tmp/a.desktop", std::string(500, 'z'));
  chmod("/tmp/a.desktop", 0600);
  EXPECT_TRUE(Icons().writeDesktopFile("/tmp/a.desktop", desk));
  EXPECT_EQ("[Desktop Entry]\nc\nm\ne\nx\ni\nn\nt\nty\nv\nsn\na\ncb\nid\n",
            ReadFile("/tmp/a.desktop"));
  EXPECT_EQ(0755u, Mode("/tmp/a.desktop"));
  EXPECT_TRUE(Icons().writeExecShell("/tmp/run.sh", ""));
  EXPECT_EQ("#!/bin/sh\n\n", ReadFile("/tmp/run.sh"));
  EXPECT_EQ(0755u, Mode("/tmp/run.sh"));

  testsupport::LogCapture capture;
  EXPECT_FALSE(Icons().writeDesktopFile("/tmp/no/a.desktop", desk));
  EXPECT_FALSE(Icons().writeExecShell("/tmp/no/run.sh", "echo"));
  EXPECT_EQ(Lines{"write shell info,exec file write failed!! , /tmp/no/run.sh"}, capture.texts());
}

// Start-up (iconInit) removes what the record lists, then names and empties it.
TEST(RecordFile, StartUpRemovesTheRecordedFilesThenLoadAndSaveKeepEveryLine) {
  WriteFile(kDesk + "x.desktop", "d");
  WriteFile(kApps + "x.desktop", "a");
  WriteFile("/tmp/full/f", "keep");
  WriteFile(sdp_paths::kRecordOldAppNames, kDesk + "x.desktop\n" + kDesk + "x.desktop\n" +
                                               "/tmp/gone\n/tmp/full\n\n" + kApps + "x.desktop\n");
  testsupport::LogCapture capture;
  Icons().iconInit({});
  EXPECT_FALSE(fs::exists(kDesk + "x.desktop") || fs::exists(kApps + "x.desktop"));
  const Lines removals = {"rm file:" + kDesk + "x.desktop",
                          "rm file failed !:/tmp/full error: Directory not empty",
                          "rm file:" + kApps + "x.desktop"};
  const Lines logged = capture.texts();
  ASSERT_GE(logged.size(), removals.size());
  EXPECT_EQ(removals, Lines(logged.begin(), logged.begin() + 3));
  EXPECT_EQ("", ReadFile(sdp_paths::kRecordOldAppNames));

  WriteFile(sdp_paths::kRecordOldAppNames, "a\n\nb");
  Icons().loadAppNameFromFile();
  Icons().loadAppNameFromFile();
  Lines names;
  EXPECT_TRUE(Icons().getAppNames(names));
  EXPECT_EQ((Lines{"a", "", "b", "a", "", "b"}), names);
  Icons().saveAppNameToFile();
  EXPECT_EQ("a\n\nb\na\n\nb\n", ReadFile(sdp_paths::kRecordOldAppNames));
  EXPECT_TRUE(Icons().cleanAppNames());
  EXPECT_TRUE(Icons().getAppNames(names) && names.empty());
  EXPECT_EQ("", ReadFile(sdp_paths::kRecordOldAppNames));
}

SAppDesktop Resource(const char* name, const char* source) {
  SAppDesktop r;
  r.name = name;
  r.exec = source;
  return r;
}

SAppInfo White(int type, const std::string& value) { return SAppInfo{"", "n", type, value}; }

// Start-up has named the record file; the user's desktop directory exists.
class LauncherPlacement : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile(sdp_paths::kUserinfoIni, kUserinfo);
    fs::create_directories(kDesk);
    fs::create_directories(sdp_paths::kInstallDir);
    Icons().iconInit({});  // names the record file
  }
  testsupport::LogCapture capture;
};

TEST_F(LauncherPlacement, ResourcesWithAddressAndBrowserGetBothFilesRecordedEachTime) {
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01"), Resource("Wiki", "wiki01"),
                                     Resource("Mail 2", "mail01")};
  EXPECT_TRUE(Icons().produceDesktopFile(resources));
  // The second resource of the same source overwrites the first's files.
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
      "X-Deepin-AppID=mail01\n";
  EXPECT_EQ(text, ReadFile(kDesk + "mail01.desktop"));
  EXPECT_EQ(text, ReadFile(kApps + "mail01.desktop"));
  EXPECT_EQ(0755u, Mode(kApps + "mail01.desktop"));
  EXPECT_FALSE(fs::exists(kDesk + "wiki01.desktop"));  // it has no "Aum" address
  const Lines twice{kDesk + "mail01.desktop", kApps + "mail01.desktop", kDesk + "mail01.desktop",
                    kApps + "mail01.desktop"};
  EXPECT_EQ(twice, Record());
  EXPECT_TRUE(capture.has("get desktop info failed!,url:  brower: vrek", google::GLOG_ERROR));
  EXPECT_EQ("mail01", resources[0].exec);  // the caller's records are not touched

  WriteFile(sdp_paths::kUserinfoIni, "[UserInfo]\nSysUserName=alice\n[Aum]\nmail01=https://m\n");
  EXPECT_TRUE(Icons().produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("get desktop info failed!,url: https://m brower: ", google::GLOG_ERROR));
  EXPECT_EQ(twice, Record());
}

TEST_F(LauncherPlacement, WithoutAUserOrADesktopNothingIsWrittenThere) {
  WriteFile(sdp_paths::kUserinfoIni,
            "[Aum]\nmail01=https://m\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01")};
  EXPECT_TRUE(Icons().produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("get systemName:", google::GLOG_WARNING));
  EXPECT_TRUE(capture.has("desktop produce failed ! /mail01.desktop", google::GLOG_WARNING));
  EXPECT_FALSE(fs::exists("/mail01.desktop"));
  EXPECT_EQ(Lines{}, Record());
  // Blanks and a CR around the name are the INI reader's to trim.
  WriteFile(sdp_paths::kUserinfoIni,
            "[UserInfo]\nSysUserName = alice\r\n" + kUserinfo.substr(kUserinfo.find("[Aum]")));
  EXPECT_TRUE(Icons().produceDesktopFile(resources));
  EXPECT_TRUE(fs::exists(kDesk + "mail01.desktop"));
}

TEST_F(LauncherPlacement, FilesThatCouldNotBeWrittenStayRecordedAndAreNotCopied) {
  fs::remove(kDesk);  // and "桌面" is missing too
  WriteFile(kApps + "foo.desktop", "system foo");
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01")};
  Icons().iconInit({White(1, "foo")});
  EXPECT_TRUE(Icons().produceDesktopFile(resources));
  EXPECT_TRUE(
      capture.has("copy fail, app path: /usr/share/applications//foo.desktop", google::GLOG_ERROR));
  EXPECT_TRUE(capture.has("opendir error", google::GLOG_ERROR));
  EXPECT_TRUE(
      capture.has("desktop produce failed ! " + kZh + "mail01.desktop", google::GLOG_WARNING));
  EXPECT_EQ((Lines{kZh + "foo.desktop", kZh + "mail01.desktop", kApps + "mail01.desktop"}),
            Record());
  EXPECT_FALSE(fs::exists(kApps + "mail01.desktop"));
}

TEST_F(LauncherPlacement, WhitelistPlacesFoundAndClientEntriesButNothingElse) {
  for (const char* name : {"foo", "bar", "saipra", "deepin-draw", "saipra.desktop", "shared"})
    WriteFile(kApps + name + ".desktop", std::string("system ") + name);
  for (const char* name :
       {"shared.desktop", "client.desktop", "com.vrek.browser.desktop", ".desktop", "notes.txt"})
    WriteFile(kClient + name, std::string("client ") + name);
  fs::create_directories(kClient + "folder.desktop");
  WriteFile(kDesk + "foo.desktop", "the user's own");

  Icons().iconInit({White(1, "/usr/bin/foo"), White(1, "saipra"), White(1, "deepin-draw"),
                    White(2, "bar"), White(0, "bar"), White(1, "shared"), White(1, "missing"),
                    White(1, "saipra.desktop")});
  EXPECT_EQ("the user's own", ReadFile(kDesk + "foo.desktop"));
  EXPECT_EQ("system saipra.desktop", ReadFile(kDesk + "saipra.desktop.desktop"));
  EXPECT_EQ("client shared.desktop", ReadFile(kDesk + "shared.desktop"));
  EXPECT_EQ("system shared", ReadFile(kApps + "shared.desktop"));
  EXPECT_EQ("client client.desktop", ReadFile(kApps + "client.desktop"));
  for (const char* absent : {"saipra.desktop", "deepin-draw.desktop", "bar.desktop",
                             "com.vrek.browser.desktop", ".desktop", "notes.txt", "folder.desktop"})
    EXPECT_FALSE(fs::exists(kDesk + absent)) << absent;
  EXPECT_FALSE(fs::exists(kApps + "com.vrek.browser.desktop"));
  EXPECT_EQ((Lines{kDesk + "client.desktop", kApps + "client.desktop",
                   kDesk + "saipra.desktop.desktop", kDesk + "shared.desktop"}),
            Record());
  EXPECT_TRUE(capture.has("chmod 755:" + kDesk + "client.desktop, response:"));
  EXPECT_EQ(0, capture.count_prefix("chmod 755:" + kDesk + "saipra"));
}

}  // namespace
